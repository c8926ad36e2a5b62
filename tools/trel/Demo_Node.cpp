#include "Demo_Node.h"

#include "Demo_Process.h"
#include "Texts.h"

#include <trel/SPSStartupOption.h>
#include <trel/Sys_Clock.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CommPreferences.h>
#include <trel/Trel_Init.h>

#include <stdexcept>

#include <sys/types.h>

Demo_Node* Demo_Node::sNode = nullptr;

Demo_Node::Demo_Node(const Demo_NodeOptions& options) : mOptions(options) {
  sNode = this;
  Demo_ParentWatch::Start(static_cast<pid_t>(options.coordinator), [this](const std::string& line) {
    if (const auto finish = Demo_Finish::FromLine(line)) {
      const std::lock_guard lock(mMutex);
      mFinish = finish;
      mChanged.notify_all();
    }
  });
}

Demo_Node::~Demo_Node() = default;

void Demo_Node::Prepare() {
  SPSSetStartupOption("SimulatedClockOffsetMilliseconds", std::to_string(mOptions.offsetMilliseconds).c_str());
  SPSSetStartupOption("SimulatedClockDriftPPM", std::to_string(mOptions.driftPPM).c_str());
  SPSSetStartupOption("SupportsMarlo11", mOptions.legacy ? "0" : "1");
  // Nobody searches for a demonstration, and a host on this machine may have the discovery port.
  SPSSetStartupOption("AnswersDiscovery", "0");
  SPSSetStartupOption("MaxNumberSatellites", std::to_string(mOptions.satellites).c_str());
  Trel_Init::Init();

  const bool isMaster = mOptions.IsMaster();
  Trel_CommManager::SetSystemName(mOptions.name.c_str());
  Trel_CommManager::SetSystemType(isMaster ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite);
  Trel_CommManager::SetIsSatellite(!isMaster);
  Trel_CommManager::SetIsMasterClock(isMaster);
  Trel_CommManager::SetAllowSatellitesToConnectToMasterSystem(isMaster);
}

bool Demo_Node::StartEngine() {
  if (!mOptions.captureFile.empty()) {
    try {
      mCapture.emplace(mOptions.captureFile).CaptureEngine();
    } catch (const std::runtime_error& error) {
      EmitFailure(error.what());
      return false;
    }
  }
  Trel_CommPreferences* const preferences = Trel_CommPreferences::Inst();
  preferences->SetLocalInterfaceAddress(mOptions.address);
  preferences->SetCommunicationPort(mOptions.port);
  const std::int32_t status =
      Trel_CommManager::Initialize(preferences, [](TCPE_CommManager::ENetworkError error, std::uint32_t address) {
        sNode->OnNetworkError(error, address);
      });
  if (status != eTCPE_Status_Success) {
    EmitFailure(std::string("cannot start the engine: ") + StatusText(status) +
                (status == eTCPE_Status_PortInUse ? "; without --port a free one is taken" : ""));
  }
  return status == eTCPE_Status_Success;
}

void Demo_Node::StopEngine() {
  Trel_CommManager::Terminate();
  if (mCapture && !mCapture->IsComplete()) {
    EmitFailure("cannot write all of " + mOptions.captureFile);
  }
}

void Demo_Node::Emit(Demo_Event event) {
  if (event.rawTime == 0) {
    event.rawTime = Sys_Clock::RawMicroseconds();
  }
  if (event.address == 0) {
    event.address = mOptions.address;
  }
  mEvents.Write(event);
}

void Demo_Node::EmitFailure(const std::string& text) { Emit({.kind = Demo_Event::Kind::failure, .text = text}); }

void Demo_Node::Idle() { Trel_CommManager::DoIdle(); }
