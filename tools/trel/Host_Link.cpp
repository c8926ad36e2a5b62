#include "Host_Link.h"

#include "Host_Error.h"
#include "Host_Events.h"
#include "Host_Options.h"
#include "Texts.h"

#include <trel/Sys_Socket.h>
#include <trel/Trel_CommManager.h>

#include <utility>

namespace {

using EventKind = Trel_LinkSession::EventKind;

struct KindName {
  const char* name;
  bool isDetail;
};

KindName NameOfKind(EventKind kind) {
  switch (kind) {
  case EventKind::searching:
    return {"searching", false};
  case EventKind::masterFound:
    return {"master_found", false};
  case EventKind::noMaster:
    return {"no_master", false};
  case EventKind::connecting:
    return {"connecting", true};
  case EventKind::connectFailed:
    return {"connect_failed", false};
  case EventKind::connected:
    return {"connected", true};
  case EventKind::refused:
    return {"link_refused", false};
  case EventKind::orderNumber:
    return {"order", true};
  case EventKind::systems:
    return {"systems", true};
  case EventKind::meshConnected:
    return {"mesh_connected", true};
  case EventKind::meshFailed:
    return {"mesh_failed", false};
  case EventKind::linked:
    return {"linked", false};
  case EventKind::left:
    return {"left", false};
  case EventKind::lost:
    return {"lost", false};
  case EventKind::waiting:
    return {"waiting", true};
  case EventKind::named:
    return {"named", false};
  case EventKind::control:
    return {"control", false};
  case EventKind::networkError:
    return {"network_error", false};
  }
  return {"unknown", true};
}

/// Whether an event tells why a system is not linked; the others tell what it does about it.
bool TellsWhy(EventKind kind) {
  return kind == EventKind::searching || kind == EventKind::noMaster || kind == EventKind::connectFailed ||
         kind == EventKind::refused || kind == EventKind::left || kind == EventKind::lost;
}

Trel_LinkSession::Settings SettingsFor(const Host_Options& options,
                                       std::function<void(const Trel_LinkSession::Event&)> onEvent,
                                       Host_Link::OnConnect onConnect) {
  Trel_LinkSession::Settings settings;
  settings.mIsMaster = options.isMaster;
  settings.mMasterAddress = options.masterAddress;
  settings.mWantsMesh = options.mesh;
  settings.mOnEvent = std::move(onEvent);
  settings.mOnConnect = std::move(onConnect);
  return settings;
}

} // namespace

Host_Link::Host_Link(const Host_Options& options, Host_Events& events, OnLinked onLinked, OnConnect onConnect)
    : mIsMaster(options.isMaster), mEvents(events), mOnLinked(std::move(onLinked)),
      mSession(SettingsFor(
          options, [this](const Trel_LinkSession::Event& event) { OnEvent(event); }, std::move(onConnect))) {}

std::uint32_t Host_Link::OwnAddress() { return Trel_CommManager::GetAdaptorIPAddress(); }

bool Host_Link::MayConduct(std::uint32_t address) const {
  return address == mSession.GetSystemInControl() ||
         (!mIsMaster && address == Trel_CommManager::GetMasterSystemIPAddress());
}

void Host_Link::ExpectControl() const {
  if (HasControl()) {
    return;
  }
  if (!mIsMaster && !mSession.IsLinked()) {
    throw Host_Error("this system is not linked with a master yet; wait for it with: wait linked 1");
  }
  const std::uint32_t inControl = mSession.GetSystemInControl();
  throw Host_Error(
      (inControl != 0 ? NameOf(inControl) + " is in control" : std::string("this system is not in control")) +
      "; ask for it with: control");
}

std::string Host_Link::NameOf(std::uint32_t address) const {
  for (const Trel_System& system : mSession.GetSystems()) {
    if (system.GetIPAddress() == address && *system.GetSystemName() != '\0') {
      return Printable(system.GetSystemName()) + " (" + Sys_Socket::DecodeIPAddress(address) + ")";
    }
  }
  return Sys_Socket::DecodeIPAddress(address);
}

std::string Host_Link::WhyNotLinked() const {
  const std::lock_guard lock(mMutex);
  return mWhyNotLinked;
}

nlohmann::json Host_Link::FieldsOf(std::uint32_t address) const {
  nlohmann::json fields = {{"address", Sys_Socket::DecodeIPAddress(address)}};
  for (const Trel_System& system : mSession.GetSystems()) {
    if (system.GetIPAddress() == address) {
      fields["name"] = system.GetSystemName();
    }
  }
  return fields;
}

void Host_Link::OnEvent(const Trel_LinkSession::Event& event) {
  if (TellsWhy(event.mKind)) {
    const std::lock_guard lock(mMutex);
    mWhyNotLinked = event.mText;
  }
  const KindName kind = NameOfKind(event.mKind);
  nlohmann::json fields = event.mAddress != 0 ? FieldsOf(event.mAddress) : nlohmann::json::object();
  fields["value"] = event.mValue;
  const bool isAttempt = event.mKind == EventKind::connectFailed || event.mKind == EventKind::refused ||
                         event.mKind == EventKind::meshFailed || event.mKind == EventKind::networkError;
  // A satellite tries again and again; what stays the same is told once.
  const bool isRepeated = isAttempt && event.mText == mLastFailure;
  if (isAttempt || event.mKind == EventKind::linked) {
    mLastFailure = event.mText;
  }
  mEvents.Tell(
      {.kind = kind.name, .text = event.mText, .fields = std::move(fields), .isDetail = kind.isDetail || isRepeated});
  const bool isMeshPeer = !mIsMaster && event.mAddress != OwnAddress();
  if (event.mKind == EventKind::linked || (isMeshPeer && event.mKind == EventKind::meshConnected)) {
    mOnLinked(event.mAddress, true);
  } else if (event.mKind == EventKind::left || event.mKind == EventKind::lost || event.mKind == EventKind::refused ||
             event.mKind == EventKind::networkError || (isMeshPeer && event.mKind == EventKind::meshFailed)) {
    mOnLinked(event.mAddress, false);
  }
}
