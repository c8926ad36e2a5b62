#include <trel/host/Trel_LinkSession.h>

#include "link/host/Trel_LinkCommands.h"
#include "link/host/Trel_LinkCore.h"

#include <trel/Trel_CommManager.h>

#include <utility>

Trel_LinkSession::Trel_LinkSession(Settings settings) : mCore(std::make_shared<Trel_LinkCore>(std::move(settings))) {
  if (!mCore->Attach()) {
    mCore.reset();
  }
}

Trel_LinkSession::~Trel_LinkSession() {
  if (mCore) {
    mCore->Stop();
    mCore->Detach();
  }
}

void Trel_LinkSession::OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t address) {
  Trel_LinkCore::OnNetworkError(error, address);
}

bool Trel_LinkSession::Start() { return mCore && mCore->Start(); }

void Trel_LinkSession::Stop() {
  if (mCore) {
    mCore->Stop();
  }
}

bool Trel_LinkSession::IsLinked() const { return mCore && mCore->View().IsLinked(); }

std::vector<Trel_System> Trel_LinkSession::GetSystems() const {
  std::vector<Trel_System> systems;
  if (mCore) {
    systems = mCore->View().GetSystems();
  }
  if (systems.empty()) {
    systems.push_back(Trel_LinkCommands::LocalSystem());
  }
  return systems;
}

std::set<std::uint32_t> Trel_LinkSession::GetLinkedAddresses() const {
  return mCore ? mCore->View().GetLinkedAddresses() : std::set<std::uint32_t>();
}

Trel_LinkSession::ControlAnswer Trel_LinkSession::RequestControl() {
  return mCore ? mCore->Role().RequestControl() : ControlAnswer::noLink;
}

bool Trel_LinkSession::HasControl() const {
  return mCore && mCore->View().WithControl([](const Trel_ControlState& control) { return control.HasControl(); });
}

std::uint32_t Trel_LinkSession::GetSystemInControl() const {
  return mCore ? mCore->View().WithControl([](const Trel_ControlState& control) { return control.GetHolder(); }) : 0;
}

bool Trel_LinkSession::SetOrderNumber(std::uint32_t address, std::int32_t number) {
  return mCore && mCore->Role().SetOrderNumber(address, number);
}

bool Trel_LinkSession::SetSystemName(const char* name) {
  if (!mCore || name == nullptr) {
    return false;
  }
  Trel_CommManager::SetSystemName(name);
  mCore->Role().Renamed();
  return true;
}

bool Trel_LinkSession::DisconnectSystem(std::uint32_t address) {
  return mCore && mCore->Role().DisconnectSystem(address);
}
