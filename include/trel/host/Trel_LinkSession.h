#pragma once

#include <trel/TCPE_CommManager.h>
#include <trel/Trel_Export.h>
#include <trel/Trel_System.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

class Trel_LinkCore;

/// Builds the link and keeps it: a master admits satellites and tells everybody who is there; a satellite finds its
/// master, connects, and comes back after a loss. Control of the transport is handed over so that two systems never
/// have it at once. docs/link.md shows what travels.
///
/// One session a process at a time; a second one reports an assertion and does nothing. Make it before
/// Trel_CommManager::Initialize, so that nobody connects unnoticed. While it lives, the handlers of these commands are
/// its own: Connect, Disconnect, ConnectComplete, ConnectTo, ConnectToComplete, DoConnectTo, DoConnectToComplete,
/// AllConnectionsComplete, ConnectionFailed, DisconnectFrom, ListSystems, SetMasterSystem, SetOrderNumber,
/// SetSystemName, GetName, GetType, GetSystemInformation, RequestControl, SystemInControl. The engine must deliver on
/// its handler threads, not be pumped.
///
/// One thread of the session does what blocks: it connects, waits and calls mOnEvent. What the engine's handler threads
/// bring is answered at once or handed to that thread. All operations may be called from any thread; Stop and the
/// destructor not from mOnEvent, mOnConnect, mMayGiveControl or a handler, RequestControl not from mOnEvent, which it
/// would wait for. None is real-time-safe. IPv4 addresses are in host order, times microseconds.
class TREL_EXPORT Trel_LinkSession {
public:
  enum class EventKind : std::uint8_t {
    searching,     ///< for a master on the network
    masterFound,   ///< mAddress is the one that was chosen
    noMaster,      ///< that could be connected to
    connecting,    ///< to mAddress
    connectFailed, ///< nobody answers there, or not in time
    connected,     ///< not linked yet
    refused,       ///< by the master; on a master: mAddress has been refused
    orderNumber,   ///< mValue is the place of mAddress in the order
    systems,       ///< the list of systems has changed; mValue is their number
    meshConnected, ///< two satellites are connected, one of them mAddress
    meshFailed,    ///< ... could not be
    linked,        ///< mAddress is linked; on a satellite: the master, the sequence is complete
    left,          ///< mAddress has ended its connection in order
    lost,          ///< the connection to mAddress is gone
    waiting,       ///< mValue microseconds, before the next attempt
    named,         ///< mAddress has another name
    control,       ///< mAddress is in control, 0: nobody
    networkError,  ///< any other network error; mValue is the ETCPE_NetworkError
  };
  struct Event {
    EventKind mKind = EventKind::searching;
    std::uint32_t mAddress = 0; ///< of the system that it is about; 0 without one
    std::int32_t mUniqueID = 0; ///< of that system, as far as known
    std::int64_t mValue = 0;    ///< as the kind says
    std::string mText;          ///< a line for the user, free of control characters; for a failure it says what to do
  };
  struct Settings {
    bool mIsMaster = false;
    std::uint32_t mMasterAddress = 0;       ///< satellite: 0 searches for one
    bool mWantsMesh = false;                ///< master: has the satellites connect to each other
    bool mReconnects = true;                ///< satellite: comes back after a failure or a loss
    std::int64_t mFirstPause = 250'000;     ///< before it does; doubled each time ...
    std::int64_t mLongestPause = 5'000'000; ///< ... up to this; up to a quarter is taken off at random
    std::function<void(const Event&)> mOnEvent{};
    /// A system has opened a connection to this one, which need not be linked: what it told on an earlier one does not
    /// hold any more. Called on a handler thread, before the first command of that connection is handled. Must not
    /// block.
    std::function<void(std::uint32_t address)> mOnConnect{};
    /// Whether this system, in control, lets go when another system asks. `asker` is the address of the system that
    /// wants control, or, on a satellite, of the master that asks for it. Empty: always. Called on a handler thread or
    /// on that of RequestControl; answer within a second.
    std::function<bool(std::uint32_t asker)> mMayGiveControl{};
    /// Searches the network for masters, true: available. Empty: Trel_CommManager::GetMasterSystemsList.
    std::function<void(std::map<Trel_System, bool>* masters)> mFindMasters{};
  };

  /// Registers the handlers.
  explicit Trel_LinkSession(Settings settings);
  /// Stops, removes the handlers and waits for those that are running.
  ~Trel_LinkSession();
  Trel_LinkSession(const Trel_LinkSession&) = delete;
  Trel_LinkSession& operator=(const Trel_LinkSession&) = delete;

  /// Give it to Trel_CommManager::Initialize, or call it from the host's own callback. Without a session nothing
  /// happens.
  static void OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t address);

  /// Sets role and type of this system (a master holds the master clock and allows satellites to connect) and starts.
  /// Started already, it ends the staying away that DisconnectSystem began.
  /// @return false before Trel_CommManager::Initialize, and when the system has no thread to give
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

  enum class ControlAnswer : std::uint8_t { granted, busy, noLink };
  /// Asks for control and waits until the link says who has it, 10 s at the most. Granted: this system has control, and
  /// every system that could be reached knows. Busy: the system in control does not let go, or another one is asking.
  /// No link: this satellite is not linked. A master without satellites can always have control.
  ControlAnswer RequestControl();
  bool HasControl() const;
  /// Address of the system in control, 0 when unknown.
  std::uint32_t GetSystemInControl() const;

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
  std::shared_ptr<Trel_LinkCore> mCore;
};
