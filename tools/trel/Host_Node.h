#pragma once

#include "Capture_Writer.h"
#include "Host_Clock.h"
#include "Host_Console.h"
#include "Host_Input.h"
#include "Host_Link.h"
#include "Host_Mirror.h"
#include "Host_Options.h"
#include "Host_Sender.h"
#include "Host_State.h"
#include "Host_Transport.h"

#include <functional>
#include <optional>
#include <set>
#include <stop_token>

class Host_Events;

/// The interactive host: joins the engine, the link, what is mirrored and the user's commands. One object a process.
class Host_Node {
public:
  /// The platform has been prepared.
  Host_Node(const Host_Options& options, Host_Events& events);

  /// Until the user has had enough.
  /// @return an ExitStatus
  int Run();

private:
  using Answer = Host_Console::Answer;

  bool StartEngine();
  /// Carries out what the user types.
  int Converse();
  void Idle(const std::stop_token& stop);
  void TellRoundTrips(const std::set<std::uint32_t>& linked);
  void LeaveLink();
  void OnLinked(std::uint32_t address, bool isLinked);

  std::vector<Host_Console::Command> Commands();
  Answer ListSystems() const;
  Answer ShowState() const;
  Answer Prime(Host_Arguments& arguments);
  Answer Start(Host_Arguments& arguments);
  Answer AskForControl();
  Answer SetName(Host_Arguments& arguments);
  Answer SetOrder(Host_Arguments& arguments);
  Answer SwitchLink(Host_Arguments& arguments);
  Answer SwitchOnline(Host_Arguments& arguments);
  Answer Group(Host_Arguments& arguments);
  Answer Video(Host_Arguments& arguments);
  Answer Disconnect(Host_Arguments& arguments);
  Answer Wait(Host_Arguments& arguments);
  /// Returns when the condition holds; throws Host_Error when it does not in time.
  void WaitUntil(const std::string& what, std::int64_t timeOut, const std::function<bool()>& condition);
  /// "all" or an address of a linked system.
  std::set<std::uint32_t> TakeOthers(Host_Arguments& arguments) const;

  const Host_Options mOptions;
  Host_Events& mEvents;
  std::optional<Capture_Writer> mCapture;
  Host_State mState;
  Host_Clock mClock;
  Host_Link mLink;
  Host_Sender mSender;
  Host_Mirror mMirror;
  Host_Transport mTransport;
  Host_Input mInput;
  Host_Console mConsole;
  std::int64_t mStartsAwaited = 0; // for "wait played": those done before the last start command
  bool mHasQuit = false;
};
