#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>
#include <string>
#include <vector>

/// One IPv4 address of a network adaptor of this machine; an adaptor with several addresses appears several times.
/// Addresses are in host order.
struct Sys_Adaptor {
  std::string name;
  std::uint32_t address = 0;
  std::uint32_t netmask = 0;
  /// Directed broadcast address of the adaptor's network (127.255.255.255 on the loopback adaptor); 0 if
  /// !canBroadcast.
  std::uint32_t broadcast = 0;
  bool isUp = false;
  bool isLoopback = false;
  bool canBroadcast = false;

  /// Whether an address is this adaptor's. The loopback adaptor has all of 127.0.0.0/8.
  bool Has(std::uint32_t candidate) const {
    constexpr std::uint32_t kLoopbackNetwork = 127; // first octet
    return candidate == address || (candidate >> 24U == kLoopbackNetwork && address >> 24U == kLoopbackNetwork);
  }
};

/// Addresses, names and adaptors of this machine.
class TREL_EXPORT Sys_Socket {
public:
  /// Prepares the platform's sockets. Only the first call has an effect.
  ///
  /// Thread-safe. Not real-time-safe.
  static void Initialize();

  /// Dotted text of an IPv4 address in host order: 0x7f000001 is "127.0.0.1".
  ///
  /// Thread-safe. Not real-time-safe: the text may allocate.
  static std::string DecodeIPAddress(std::uint32_t address);

  /// Reads four decimal numbers, 0 to 255 and without leading zeros, with dots between them and nothing around them.
  /// Returns false and leaves the address as it is for any other text, null included.
  ///
  /// Thread-safe and real-time-safe.
  static bool EncodeIPAddress(const char* text, std::uint32_t* address) noexcept;

  /// Name of this machine; empty if the operating system does not tell it.
  ///
  /// Thread-safe. Not real-time-safe: a system call, allocates.
  static std::string GetHostName();

  /// All IPv4 addresses of the machine's adaptors as they are now, also of those that are down, in the operating
  /// system's order. Empty if the operating system does not tell them.
  ///
  /// Thread-safe. Not real-time-safe: system calls, allocates.
  static std::vector<Sys_Adaptor> GetAdaptors();

  /// The same; false, with the list as it was, if the operating system does not tell them.
  static bool ReadAdaptors(std::vector<Sys_Adaptor>* adaptors);

  /// Whether an address belongs to this machine; then fills in its adaptor. Every address of 127.0.0.0/8 belongs to the
  /// loopback adaptor, whose `address` stays its own.
  ///
  /// Thread-safe. Not real-time-safe: system calls, allocates.
  static bool FindAdaptorOf(std::uint32_t address, Sys_Adaptor* adaptor);
};
