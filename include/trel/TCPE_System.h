#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_Export.h>

#include <cstddef>
#include <cstdint>

/// What is known of one system: the engine's record of the local one, and the base of the link's system lists.
///
/// A plain value. Not thread-safe by itself; the engine hands out its own record for reading and changes it only
/// through TCPE_CommManager's setters.
class TREL_EXPORT TCPE_System {
public:
  /// Sizes of the text buffers, terminators included. A longer text is cut here; the setters of commands replace it by
  /// "Unknown System Name" or "Unknown Host Name".
  static constexpr std::size_t kSystemNameSize = 30;
  static constexpr std::size_t kHostNameSize = 256;

  TCPE_System() = default;

  const char* GetSystemName() const { return mSystemName; }
  void SetSystemName(const char* name);
  const char* GetHostName() const { return mHostName; }
  void SetHostName(const char* name);

  /// IPv4 address, host order; 0 when unknown.
  std::uint32_t GetIPAddress() const { return mIPAddress; }
  void SetIPAddress(std::uint32_t address) { mIPAddress = address; }
  /// Communication port; 0 stands for the default port.
  std::uint16_t GetPort() const { return mPort; }
  void SetPort(std::uint16_t port) { mPort = port; }
  ETCPE_SystemType GetSystemType() const { return mSystemType; }
  void SetSystemType(ETCPE_SystemType type) { mSystemType = type; }
  /// Place of the system in the host's order.
  std::int32_t GetOrderNumber() const { return mOrderNumber; }
  void SetOrderNumber(std::int32_t number) { mOrderNumber = number; }
  /// Identifier of the system within the link; 0 is none.
  std::int32_t GetUniqueID() const { return mUniqueID; }
  void SetUniqueID(std::int32_t identifier) { mUniqueID = identifier; }
  std::uint8_t GetMajorVersion() const { return mMajorVersion; }
  void SetMajorVersion(std::uint8_t version) { mMajorVersion = version; }
  std::uint8_t GetMinorVersion() const { return mMinorVersion; }
  void SetMinorVersion(std::uint8_t version) { mMinorVersion = version; }

private:
  char mSystemName[kSystemNameSize] = {};
  char mHostName[kHostNameSize] = {};
  std::uint32_t mIPAddress = 0;
  ETCPE_SystemType mSystemType = eTCPE_SystemType_None;
  std::int32_t mOrderNumber = 0;
  std::int32_t mUniqueID = 0;
  std::uint16_t mPort = 0;
  std::uint8_t mMajorVersion = 0;
  std::uint8_t mMinorVersion = 0;
};
