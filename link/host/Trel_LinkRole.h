#pragma once

#include "link/host/Trel_LinkView.h"
#include "link/host/Trel_LinkWorker.h"

#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_Control.h>
#include <trel/Trel_Cmd_Identity.h>
#include <trel/host/Trel_LinkSession.h>

#include <cstdint>
#include <optional>
#include <string>

/// What a session does as a master, or as a satellite. The On operations run on handler threads of the engine: they
/// answer what must be answered at once and leave the rest to the worker, on which everything else runs unless it says
/// otherwise. What a role does not override it ignores.
class Trel_LinkRole {
public:
  using Settings = Trel_LinkSession::Settings;
  using Kind = Trel_LinkSession::EventKind;

  Trel_LinkRole(const Settings& settings, Trel_LinkView& view, Trel_LinkWorker& worker)
      : mSettings(settings), mView(view), mWorker(worker) {}
  virtual ~Trel_LinkRole();
  Trel_LinkRole(const Trel_LinkRole&) = delete;
  Trel_LinkRole& operator=(const Trel_LinkRole&) = delete;

  /// Before the worker runs, on the thread that starts it.
  virtual void Begin() = 0;
  virtual std::int64_t Tick(std::int64_t now) = 0;
  virtual void End() = 0;

  /// Tells the host of the connection, and the role.
  void TakeConnect(const Trel_Cmd_Connect& command);
  virtual void OnConnect(const Trel_Cmd_Connect& /*command*/) {}
  virtual void OnDisconnect(std::uint32_t /*from*/) {}
  virtual void OnNetworkError(ETCPE_NetworkError /*error*/, std::uint32_t /*address*/) {}
  virtual void OnConnectComplete(const Trel_Cmd_ConnectComplete& /*command*/) {}
  virtual void OnConnectTo(const Trel_Cmd_ConnectTo& /*command*/) {}
  virtual void OnConnectToComplete(const Trel_Cmd_ConnectToComplete& /*command*/) {}
  virtual void OnDoConnectTo(const Trel_Cmd_DoConnectTo& /*command*/) {}
  virtual void OnDoConnectToComplete(const Trel_Cmd_DoConnectToComplete& /*command*/) {}
  virtual void OnAllConnectionsComplete(const Trel_Cmd_AllConnectionsComplete& /*command*/) {}
  virtual void OnConnectionFailed(const Trel_Cmd_ConnectionFailed& /*command*/) {}
  virtual void OnDisconnectFrom(const Trel_Cmd_DisconnectFrom& /*command*/) {}
  virtual void OnListSystems(const Trel_Cmd_ListSystems& /*command*/) {}
  virtual void OnSetMasterSystem(const Trel_Cmd_SetMasterSystem& /*command*/) {}
  virtual void OnSetOrderNumber(const Trel_Cmd_SetOrderNumber& /*command*/) {}
  virtual void OnSetSystemName(const Trel_Cmd_SetSystemName& /*command*/) {}
  virtual void OnSystemInControl(const Trel_Cmd_SystemInControl& /*command*/) {}
  /// Whether the asking system gets control, or may take it.
  virtual bool OnRequestControl(std::uint32_t asker) = 0;

  /// Of this system; 0 when it has none. Any thread.
  std::int32_t PlaceInOrder() const;

  // The host's wishes, on any thread.
  virtual Trel_LinkSession::ControlAnswer RequestControl() = 0;
  virtual bool SetOrderNumber(std::uint32_t /*address*/, std::int32_t /*number*/) { return false; }
  virtual bool DisconnectSystem(std::uint32_t address) = 0;
  virtual void Resume() {}
  /// This system has another name.
  virtual void Renamed() = 0;

protected:
  void Tell(Kind kind, std::uint32_t address, const std::string& text, std::int64_t value = 0,
            std::int32_t uniqueID = 0) const;
  /// Lets go of control if this system has it and its host agrees. Any thread.
  bool LetGo(std::uint32_t asker);
  /// Asks the link for control with `ask`, which sends the request, and waits for the announcement. Any thread.
  template <class Ask>
  Trel_LinkSession::ControlAnswer AskForControl(Ask ask);

  const Settings& mSettings;
  Trel_LinkView& mView;
  Trel_LinkWorker& mWorker;
};

template <class Ask>
Trel_LinkSession::ControlAnswer Trel_LinkRole::AskForControl(Ask ask) {
  using ControlAnswer = Trel_LinkSession::ControlAnswer;
  constexpr std::int64_t kLongestAnnouncement = 7'000'000; // time-outs of dead systems included
  std::uint64_t losses = 0;
  const auto answer = mView.WithControl([&losses](Trel_ControlState& control) {
    losses = control.GetLosses();
    return control.HasControl()     ? std::optional(ControlAnswer::granted)
           : control.BeginRequest() ? std::nullopt
                                    : std::optional(ControlAnswer::busy);
  });
  if (answer) {
    return *answer;
  }
  if (ask()) {
    mView.WaitForControl(kLongestAnnouncement, [losses](const Trel_ControlState& control) {
      return control.HasControl() || control.GetLosses() != losses;
    });
  }
  return mView.WithControl([losses](Trel_ControlState& control) {
    control.EndRequest();
    return control.HasControl()            ? ControlAnswer::granted
           : control.GetLosses() != losses ? ControlAnswer::noLink
                                           : ControlAnswer::busy;
  });
}
