#pragma once

#include <trel/Sys_Clock.h>
#include <trel/TCPE_CommManager.h>
#include <trel/Trel_Export.h>
#include <trel/Trel_System.h>
#include <trel/host/Trel_LinkEvent.h>
#include <trel/host/Trel_LinkState.h>
#include <trel/host/Trel_RunningTimeExchange.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

class Trel_Cmd_GetDocumentStartAndLength;
class Trel_Cmd_GetFrameEdgeInRunningTime;
class Trel_Cmd_GetPlayRange;
class Trel_Cmd_GetPositionRunningTimeCorrelation;
class Trel_Cmd_GetProjectInfo;
class Trel_LinkShell;

/// All that a host needs of the link beside Trel_Init and Trel_CommManager::Initialize: builds it and keeps it, keeps
/// the clocks correlated, hands control over, primes and starts all systems together, and mirrors what they tell each
/// other. docs/hosts.md shows how to write a host with it, docs/link.md what travels.
///
/// One session a process at a time; a second one reports an assertion and does nothing. Make it before
/// Trel_CommManager::Initialize, so that nobody connects unnoticed. While it lives, the handlers of the commands that
/// it has use for are its own; docs/hosts.md lists them. For all others the host may keep handlers of its own. The
/// engine must deliver on its handler threads, not be pumped. The session runs the idle loop and the exchange of
/// running times.
///
/// Callbacks. onEvent, onPrime, onStart and onStop are called one at a time, in order, on one thread of the session: a
/// host that takes its time there delays nothing but what it is told next. The others are called on the engine's
/// handler threads and must not block. What a callback throws goes no further, is reported as in TCPE_CommManager, and
/// counts as no answer: not ready, not begun, control is not given, no master found.
///
/// All operations may be called from any thread; Stop and the destructor not from a callback or a handler,
/// RequestControl and StartPlayback not from the session's thread, which they would wait for. None is real-time-safe
/// but GetRunningTime, GetHostTime and IsClockLocked, which wait for nothing and may be called from audio callbacks.
///
/// IPv4 addresses are in host order; times and timeline positions are microseconds.
class TREL_EXPORT Trel_LinkSession {
public:
  using Event = Trel_LinkEvent;
  using EventKind = Trel_LinkEvent::Kind;

  struct Settings {
    bool isMaster = false;
    std::uint32_t masterAddress = 0;        ///< satellite: 0 searches for one
    bool wantsMesh = false;                 ///< master: has the satellites connect to each other
    bool reconnects = true;                 ///< satellite: comes back after a failure or a loss
    std::int64_t firstPause = 250'000;      ///< before it does; doubled each time ...
    std::int64_t longestPause = 5'000'000;  ///< ... up to this; up to a quarter is taken off at random
    std::optional<std::int64_t> zeroTime{}; ///< master: host time of running time 0; nothing: when the session is made
    /// Master. Seldom enough that 64 satellites cost it little, often enough to keep them at their strictest.
    Trel_RunningTimeExchange::Settings exchange{.interval = 500'000};

    std::function<void(const Event&)> onEvent{};
    /// Get ready to play a range, and return true when ready. What was primed or agreed on before is over. Empty: this
    /// system is ready at once.
    std::function<bool(const Trel_PlayRange&)> onPrime{};
    /// Begin as agreed, or return false: this system does not make the start. Called as soon as the start is known, so
    /// return at once, begin later (Trel_StartHelper waits), and then tell with ReportStart or ReportNoStart. A start
    /// takes the place of the one before. Empty: this system takes no part in playing.
    std::function<bool(const Trel_AgreedStart&)> onStart{};
    /// What was primed, agreed on, or plays is over.
    std::function<void()> onStop{};

    /// A system has opened a connection to this one, which need not be linked. Called before the first command of that
    /// connection is handled.
    std::function<void(std::uint32_t address)> onConnect{};
    /// Whether this system, in control, lets go when another system asks. `asker` is the address of the system that
    /// wants control, or, on a satellite, of the master that asks for it. Empty: always. Answer within a second; it is
    /// called on a handler thread or on that of RequestControl.
    std::function<bool(std::uint32_t asker)> mayGiveControl{};
    /// From the start command to playback, microseconds, as this system needs at present. Empty: 0.
    std::function<std::int64_t()> getStartDelay{};
    // What other systems may ask. Return false, or leave it empty: it is answered with an error.
    std::function<bool(Trel_Cmd_GetPlayRange&)> getPlayRange{}; ///< empty: what was primed last
    std::function<bool(Trel_Cmd_GetDocumentStartAndLength&)> getDocument{};
    std::function<bool(Trel_Cmd_GetProjectInfo&)> getProject{}; ///< its rates are also asked for one by one
    std::function<bool(Trel_Cmd_GetPositionRunningTimeCorrelation&)> getPosition{};
    std::function<bool(Trel_Cmd_GetFrameEdgeInRunningTime&)> getFrameEdge{};
    /// Searches the network for masters, true: available. A master searches every ten seconds or so, for others. Empty:
    /// Trel_CommManager::GetMasterSystemsList, on a master GetOtherMastersList.
    std::function<void(std::map<Trel_System, bool>* masters)> findMasters{};
  };

  /// Registers the handlers, and sets role and type of this system: a master holds the master clock.
  explicit Trel_LinkSession(Settings settings);
  /// Stops, removes the handlers and waits for those that are running.
  ~Trel_LinkSession();
  Trel_LinkSession(const Trel_LinkSession&) = delete;
  Trel_LinkSession& operator=(const Trel_LinkSession&) = delete;

  /// Give it to Trel_CommManager::Initialize, or call it from the host's own callback. Without a session nothing
  /// happens.
  static void OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t address);

  /// Starts; a master allows satellites to connect from now on.
  /// Started already, it ends the staying away that DisconnectSystem began.
  /// @return false before Trel_CommManager::Initialize, when the system has no thread to give, and from a callback
  /// while
  ///         another thread stops the session
  bool Start();
  /// Leaves the link in order and returns when the thread has ended. That takes as long as an attempt to connect that
  /// is under way, 11 s at the most; after Trel_CommManager::Terminate it takes no time. A stopped master lets nobody
  /// connect. Stop before another Trel_CommManager::Initialize: the session does not notice that.
  void Stop();

  /// Satellite: the sequence is complete. Master: at least one satellite is linked.
  bool IsLinked() const;
  /// Those of the link, this one included, in their order. Alone, this one.
  std::vector<Trel_System> GetSystems() const;
  /// Master: of the linked satellites. Satellite: of the master and of the satellites that it is connected to.
  std::set<std::uint32_t> GetLinkedAddresses() const;

  // --- time; real-time-safe

  /// The master's running time at a host time; nothing while the clock of this system is not locked to the master's,
  /// or that time is not known.
  [[nodiscard]] std::optional<std::int64_t>
  GetRunningTime(std::int64_t hostTime = Sys_Clock::Microseconds()) const noexcept;
  /// ... and the other way round.
  [[nodiscard]] std::optional<std::int64_t> GetHostTime(std::int64_t runningTime) const noexcept;
  /// Always on a master.
  [[nodiscard]] bool IsClockLocked() const noexcept;
  /// Master: how the exchange with a satellite goes; nothing for a system that is not linked. Takes a lock.
  std::optional<Trel_RunningTimeExchange::Status> GetExchangeStatus(std::uint32_t address) const;

  // --- control

  enum class ControlAnswer : std::uint8_t { granted, busy, noLink };
  /// Asks for control and waits until the link says who has it, 10 s at the most. Granted: this system has control, and
  /// every system that could be reached knows. Busy: the system in control does not let go, or another one is asking.
  /// No link: this satellite is not linked. A master without satellites can always have control.
  ControlAnswer RequestControl();
  bool HasControl() const;
  /// Address of the system in control, 0 when unknown.
  std::uint32_t GetSystemInControl() const;

  // --- playing together. Only the system in control conducts

  /// Has all systems get ready to play a range. Their states tell when they are (GetState, EventKind::transport).
  Trel_LinkRefusal Prime(const Trel_PlayRange& range);
  /// Starts all systems together. As soon as everybody can: waits for the start delays that they tell, half a second at
  /// the most. Delays above 10 s are left out, and named. Who is not ready and the start goes ahead without, says so
  /// itself; every system tells its own host how its start ended, and the master's is told of all
  /// (EventKind::together).
  Trel_StartAnswer StartPlayback(const Trel_StartRequest& request = {});
  Trel_LinkRefusal StopPlayback();

  /// This system has begun the start with that running time, at a host time. To be called once for each onStart that
  /// has returned true and was not followed by onStop or another onPrime or onStart, within 2 s of the start.
  void ReportStart(std::int64_t runningTime, std::int64_t hostTime);
  /// ... or has not, and why, for people.
  void ReportNoStart(std::int64_t runningTime, const std::string& why);
  /// Actual start minus agreed of those who made the last start, as far as known here: on a satellite its own.
  std::map<std::uint32_t, std::int64_t> GetLastStart() const;

  // --- what the systems tell each other

  Trel_SystemState GetState() const;
  /// Of the others, by address: on a master all, on a satellite those that it is connected to.
  std::map<std::uint32_t, Trel_SystemState> GetStates() const;
  Trel_SharedSettings GetSharedSettings() const;

  void SetSoloed(bool isOn);
  void SetRecording(bool isOn);
  void SetOnline(bool isOn);
  /// Whether this system plays when the others do. A host without onStart never does.
  void SetTakingPart(bool isOn);
  void SetVideoReference(ETrel_VideoReferenceFormat format);
  /// A dialog is on the screen here, at most 255 characters; empty: none. Anybody can close it.
  void SetDialog(const std::string& text);

  // For all; only the system in control may.
  Trel_LinkRefusal SetLoopPlay(bool isOn);
  Trel_LinkRefusal SetSelection(const Trel_PlayRange& range);
  Trel_LinkRefusal EnableGroup(ETrel_Group group, bool isOn);
  Trel_LinkRefusal SoloAll(bool isOn);
  /// Asks a system to go on line or off, 0: all that are linked. Only the system in control may.
  Trel_LinkRefusal RequestOnline(bool isOn, std::uint32_t address);
  /// ... to play when the others do, or not. The master may too.
  Trel_LinkRefusal RequestTakingPart(bool isOn, std::uint32_t address);
  /// Presses OK or Cancel in the dialog that is on a screen, here or elsewhere.
  Trel_LinkRefusal PressButton(bool isOK);

  /// A refusal in words. `holder` is who is in control, as its host is to read it.
  static std::string Explain(Trel_LinkRefusal refusal, const std::string& holder = {});

  // --- who is there

  /// Master: moves a system, itself included, to a place of the order, 1 and up. The system that has that place gets
  /// the one that becomes free.
  /// @return false on a satellite, for a system that is not in the link, and for a place below 1
  bool SetOrderNumber(std::uint32_t address, std::int32_t number);
  /// Names this system, and tells the others. At most 29 characters; a longer name is cut.
  /// @return false for null
  bool SetSystemName(const char* name);
  /// Master: ends the link of a satellite, which may come back. Satellite: leaves its master, whose address is given,
  /// and stays away until Start.
  /// @return false for a system that is not linked with this one
  bool DisconnectSystem(std::uint32_t address);

private:
  const std::int64_t mProcess; // a child that is forked from it has no threads of the session
  std::shared_ptr<Trel_LinkShell> mShell;
};
