#include <trel/Trel_TCPEInterface.h>

#include <trel/Cmn_Assert.h>
#include <trel/Cmn_FeatureAuthorization.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CommPreferences.h>
#include <trel/Trel_CommTask.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <new>

std::int32_t Trel_TCPEInterface::InitializeSubclass() {
  Trel_CorrelatedClockMgr::Initialize();
  std::uint32_t features = 0;
  for (std::int32_t feature = 1; feature <= Cmn_FeatureAuthorization::kNumberFeatures; ++feature) {
    if (Cmn_FeatureAuthorization::IsAuthorized(feature)) {
      features |= 0x8000U << static_cast<std::uint32_t>(feature);
    }
  }
  return static_cast<std::int32_t>(features);
}

void Trel_TCPEInterface::TerminateSubclass() { Trel_CorrelatedClockMgr::Terminate(); }

TCPE_CommTask* Trel_TCPEInterface::CreateCommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort,
                                                  TCPE_System* localSystem) {
  const auto maxSatellites = static_cast<std::uint16_t>(Trel_CommManager::GetMaxNumberSatellitesSupported());
  return new (std::nothrow) Trel_CommTask(communicationPort, discoveryPort, localSystem, maxSatellites, this);
}

std::int32_t Trel_TCPEInterface::GetDiscoveryPort() {
  std::uint16_t unset = 0;
  mDiscoveryPort.compare_exchange_strong(unset, kDefaultDiscoveryPort);
  return mDiscoveryPort;
}

std::int32_t Trel_TCPEInterface::GetCommunicationPort() {
  // Wider than the discovery port's rule: 65535 is kept there.
  std::uint16_t port = mCommunicationPort;
  if (port == 0 || port == 65535) {
    mCommunicationPort.compare_exchange_strong(port, Trel_CommPreferences::kDefaultCommunicationPort);
  }
  return mCommunicationPort;
}

bool Trel_TCPEInterface::HandleSyncCommand(TCPE_Command* inCommand) {
  if (inCommand == nullptr) {
    return false;
  }
  if (Trel_CorrelatedClockMgr::HandleTimingCommand(dynamic_cast<Trel_Command*>(inCommand))) {
    const std::uint32_t from = inCommand->GetIPAddressFrom();
    const Instance supplier{.mAddress = from, .mNumber = GetPeerInstance(from)};
    const std::lock_guard lock(mClockMutex);
    mClockSupplier = supplier;
  } else {
    const TCPE_eCmd type = inCommand->GetCommandType();
    if (type == Trel_Cmd_GetMaxSatellites::GetCommandID()) {
      if (auto* command = dynamic_cast<Trel_Cmd_GetMaxSatellites*>(inCommand)) {
        command->SetMaxSatellites(Trel_CommManager::GetMaxNumberSatellites());
      }
    } else if (type == Trel_Cmd_GetMaxSatellitesSupported::GetCommandID()) {
      if (auto* command = dynamic_cast<Trel_Cmd_GetMaxSatellitesSupported*>(inCommand)) {
        command->SetMaxSatellitesSupported(Trel_CommManager::GetMaxNumberSatellitesSupported());
      }
    } else {
      return false;
    }
  }
  Cmn_Assert::HandleMagicAssert(inCommand->IsSynchronous(), R"(inCommand->IsSynchronous()@$^$@..\Trel_CommManager)",
                                __LINE__);
  return true;
}

bool Trel_TCPEInterface::HandleAsyncCommand(TCPE_Command* inCommand) {
  if (inCommand == nullptr || inCommand->GetCommandType() != Trel_Cmd_RequestMaxSatellites::GetCommandID()) {
    return false;
  }
  if (const auto* command = dynamic_cast<const Trel_Cmd_RequestMaxSatellites*>(inCommand)) {
    Trel_CommManager::SetMaxNumberSatellites(command->GetMaxSatellitesRequested());
  }
  Cmn_Assert::HandleMagicAssert(!inCommand->IsSynchronous(), R"(! inCommand->IsSynchronous()@$^$@..\Trel_CommManager)",
                                __LINE__);
  return true;
}

bool Trel_TCPEInterface::AllowConnect(std::uint32_t address) { return !GetAuthenticationFailed(address); }

void Trel_TCPEInterface::PeerConnected(std::uint32_t address, std::uint64_t instance, ETCPE_SystemType type) {
  {
    const Instance peer{.mAddress = address, .mNumber = instance};
    const std::lock_guard lock(mClockMutex);
    const bool takesItsPlace = mClockSupplier.mAddress == address ||
                               (type == eTCPE_SystemType_Master && !IsConnected(mClockSupplier.mAddress));
    if (mClockSupplier == Instance() || mClockSupplier == peer || !takesItsPlace) {
      return;
    }
    mClockSupplier = {};
  }
  Trel_CorrelatedClockMgr::ResetClock();
}

bool Trel_TCPEInterface::IsAvailable() {
  const auto connected = static_cast<std::int64_t>(GetConnectedAddresses().size());
  return TCPE_CommManager::IsAvailable() &&
         (IsSatellite() || connected < std::int64_t{Trel_CommManager::GetMaxNumberSatellites()});
}
