#include "tools/trel/host/Host_Listing.h"

#include "tools/trel/common/Texts.h"
#include "tools/trel/host/Host_Session.h"
#include "tools/trel/watch/Watch_Text.h"

#include <trel/Cmn_Printable.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_CommManager.h>

#include <cstdint>
#include <sstream>
#include <string>

namespace {

std::string OnOff(bool on) { return on ? "on" : "off"; }

} // namespace

Host_Console::Answer Host_ListSystems(const Host_Session& session) {
  std::ostringstream text;
  nlohmann::json list = nlohmann::json::array();
  const auto others = session->GetStates();
  const std::uint32_t inControl = session->GetSystemInControl();
  const auto row = [&text](const std::string& place, const std::string& address, const std::string& name,
                           const std::string& role, const std::string& transport, const std::string& clock,
                           const std::string& link) {
    text << Watch_Text::Fit(place, 5) << "  " << Watch_Text::Fit(address, 15) << "  " << Watch_Text::Fit(name, 29)
         << "  " << Watch_Text::Fit(role, 9) << "  " << Watch_Text::Fit(transport, 13) << "  "
         << Watch_Text::Fit(clock, 6) << "  " << link;
  };
  row("place", "address", "name", "role", "transport", "clock", "link");
  for (const Trel_System& system : session->GetSystems()) {
    const std::uint32_t address = system.GetIPAddress();
    const bool isOwn = address == Host_Session::OwnAddress();
    const auto other = others.find(address);
    const bool isKnown = isOwn || other != others.end();
    const Trel_SystemState known = isOwn ? session->GetState() : isKnown ? other->second : Trel_SystemState{};
    const bool isLocked = known.isClockLocked || system.GetSystemType() == eTCPE_SystemType_Master;
    nlohmann::json entry = {{"address", Sys_Socket::DecodeIPAddress(address)},
                            {"name", system.GetSystemName()},
                            {"host", system.GetHostName()},
                            {"role", RoleText(system.GetSystemType())},
                            {"place", system.GetOrderNumber()},
                            {"this_system", isOwn},
                            {"in_control", address == inControl}};
    if (isKnown) {
      // Satellites of a star know this of themselves and the master only.
      entry["transport"] = TransportText(known.transport);
      entry["clock_locked"] = isLocked;
      entry["link"] = LinkStateText(known.link);
      entry["online"] = known.isOnline;
      entry["recording"] = known.isRecording;
      entry["solo"] = known.isSoloed;
      entry["video_reference"] = VideoReferenceText(known.videoReference);
    }
    list.push_back(entry);
    const std::int32_t place = system.GetOrderNumber();
    text << '\n';
    row(place != 0 ? std::to_string(place) : "-", Sys_Socket::DecodeIPAddress(address),
        Cmn_Printable(system.GetSystemName()), RoleText(system.GetSystemType()),
        isKnown ? TransportText(known.transport) : "-", isKnown ? (isLocked ? "locked" : "free") : "-",
        std::string(isKnown ? LinkStateText(known.link) : "-") + (isOwn ? ", this system" : "") +
            (address == inControl ? ", in control" : ""));
  }
  return {.text = text.str(), .fields = {{"systems", list}}};
}

Host_Console::Answer Host_ShowState(const Host_Session& session) {
  const Trel_SystemState own = session->GetState();
  const Trel_SharedSettings shared = session->GetSharedSettings();
  const std::uint32_t inControl = session->GetSystemInControl();
  const bool isLocked = session->IsClockLocked();
  const auto runningTime = session->GetRunningTime();
  const auto linked = session->GetLinkedAddresses();
  nlohmann::json addresses = nlohmann::json::array();
  for (const std::uint32_t address : linked) {
    addresses.push_back(Sys_Socket::DecodeIPAddress(address));
  }
  const std::string role = RoleText(session.IsMaster() ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite);
  const std::string name = Trel_CommManager::GetSystemName();
  const std::string address = Sys_Socket::DecodeIPAddress(Host_Session::OwnAddress());
  std::ostringstream text;
  text << "this system      " << Cmn_Printable(name) << ", " << role << ", " << address << '\n'
       << "in control       "
       << (session->HasControl() ? "this system"
           : inControl != 0      ? session.NameOf(inControl)
                                 : "nobody")
       << '\n'
       << "linked with      " << linked.size() << (linked.size() == 1 ? " system" : " systems") << '\n'
       << "clock            "
       << (session.IsMaster() ? "the master's own"
           : isLocked         ? "locked to the master's"
                              : "not locked to the master's")
       << '\n'
       << "transport        " << TransportText(own.transport) << (shared.loopPlay ? ", in a loop" : "") << '\n'
       << "link             " << LinkStateText(own.link) << '\n'
       << "solo " << OnOff(own.isSoloed) << ", record " << OnOff(own.isRecording) << ", online " << OnOff(own.isOnline)
       << ", video reference " << VideoReferenceText(own.videoReference)
       << (own.dialog.empty() ? "" : ", dialog on screen: " + Cmn_Printable(own.dialog));
  return {.text = text.str(),
          .fields = {{"role", role},
                     {"name", name},
                     {"address", address},
                     {"has_control", session->HasControl()},
                     {"in_control", inControl != 0 ? nlohmann::json(Sys_Socket::DecodeIPAddress(inControl)) : nullptr},
                     {"linked", addresses},
                     {"clock_locked", isLocked},
                     {"running_time", runningTime ? nlohmann::json(*runningTime) : nullptr},
                     {"transport", TransportText(own.transport)},
                     {"link", LinkStateText(own.link)},
                     {"loop", shared.loopPlay},
                     {"selection", {{"in_us", shared.selection.in}, {"out_us", shared.selection.out}}},
                     {"groups", shared.groups},
                     {"solo", own.isSoloed},
                     {"recording", own.isRecording},
                     {"online", own.isOnline},
                     {"video_reference", VideoReferenceText(own.videoReference)},
                     {"dialog", own.dialog}}};
}
