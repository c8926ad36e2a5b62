#pragma once

#include <trel/TCPE_CommManager.h>

#include <mutex>

/// The communication engine as the link uses it: default ports, admission, and the commands that the link answers
/// itself. Trel_CommManager owns the one of the host; another one in the same process is a system of its own, but
/// shares the satellite limits and the clock with it.
///
/// All operations are thread-safe and need no initialised engine. The engine calls the handlers and AllowConnect from
/// its network thread; none of them blocks beyond a short lock.
class TREL_EXPORT Trel_TCPEInterface final : public TCPE_CommManager {
public:
  static constexpr std::uint16_t kDefaultDiscoveryPort = 28283;

  /// Starts the clock correlation. Returns the authorized features 1 to 4 in bits 16 to 19.
  std::int32_t InitializeSubclass() override;
  void TerminateSubclass() override;
  /// The new task is the caller's. It admits as many satellites as this build supports.
  TCPE_CommTask* CreateCommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort,
                                TCPE_System* localSystem) override;
  /// Port of the discovery datagrams; unset, that is 0, it becomes 28283.
  std::int32_t GetDiscoveryPort() override;
  /// Port of the connections; unset, that is 0 or 65535, it becomes 28282.
  std::int32_t GetCommunicationPort() override;
  /// Answers the timing commands and the questions for the satellite limits. False for every other command and null.
  bool HandleSyncCommand(TCPE_Command* inCommand) override;
  /// Consumes the request for another number of satellites. False for every other command and null.
  bool HandleAsyncCommand(TCPE_Command* inCommand) override;
  /// Refuses systems that failed to authenticate, and no other.
  bool AllowConnect(std::uint32_t address) override;
  /// As the engine's answer; a master that has the number of satellites that it admits has no room either.
  bool IsAvailable() override;
  /// Empties the clock correlation when it comes from another instance of the system at this address or, this one being
  /// a master, from another system that is not connected any more: nobody's start may be made by its running time.
  void PeerConnected(std::uint32_t address, std::uint64_t instance, ETCPE_SystemType type) override;

private:
  struct Instance {
    std::uint32_t mAddress = 0;
    std::uint64_t mNumber = 0;
    bool operator==(const Instance&) const = default;
  };
  std::mutex mClockMutex;
  Instance mClockSupplier; // who sent the last timing command; guarded
};
