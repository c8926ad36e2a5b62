#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>

/// What the engine is told before it starts. A plain value: set it up, then pass it to Initialize.
class TREL_EXPORT TCPE_CommPreferences {
public:
  TCPE_CommPreferences(std::uint32_t localInterfaceAddress, std::uint16_t communicationPort)
      : mLocalInterfaceAddress(localInterfaceAddress), mCommunicationPort(communicationPort) {}

  /// IPv4 address of the adaptor to use, host order; 0 lets the engine choose.
  std::uint32_t GetLocalInterfaceAddress() const { return mLocalInterfaceAddress; }
  void SetLocalInterfaceAddress(std::uint32_t address) { mLocalInterfaceAddress = address; }
  /// TCP port on which every system of the link listens; 0 stands for the default port.
  std::uint16_t GetCommunicationPort() const { return mCommunicationPort; }
  void SetCommunicationPort(std::uint16_t port) { mCommunicationPort = port; }

private:
  std::uint32_t mLocalInterfaceAddress;
  std::uint16_t mCommunicationPort;
};
