#pragma once

#include <trel/TCPE_Types.h>
#include <trel/host/Trel_LinkEvent.h>

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <variant>
#include <vector>

/// Microseconds of a clock that never jumps; only differences count.
using Trel_SessionTime = std::int64_t;

/// One system as the session knows it.
struct Trel_SessionSystem {
  std::uint32_t address = 0;
  std::uint16_t port = 0; ///< 0 stands for that of the link
  std::int32_t uniqueID = 0;
  std::int32_t place = 0; ///< in the order; 0 is none
  ETCPE_SystemType type = eTCPE_SystemType_None;
  std::string name{};
  std::string hostName{};
  std::uint8_t majorVersion = 0;
  std::uint8_t minorVersion = 0;

  bool operator==(const Trel_SessionSystem&) const = default;
};

/// What the sessions of a link say to each other: the fields of their commands. Those that a receiver has to confirm
/// are marked.
struct Trel_SessionMessage {
  struct SetMasterSystem {
    std::uint32_t address = 0;
  };
  /// The receiver itself is meant by identifier 0, in the legacy numbering by address 0.
  struct SetOrderNumber {
    std::int32_t place = 0;
    std::uint32_t address = 0; ///< legacy numbering only
    std::int32_t uniqueID = 0; ///< current numbering only
  };
  /// Without identifiers.
  struct ListSystems {
    std::vector<Trel_SessionSystem> systems{};
  };
  struct ConnectTo {
    Trel_SessionSystem system{};
  };
  struct DisconnectFrom {
    std::uint32_t address = 0;
    std::int32_t uniqueID = 0;
  };
  struct DoConnectTo {
    std::int32_t uniqueIDTo = 0;
  };
  struct DoConnectToComplete {
    bool success = false;
  };
  struct ConnectToComplete {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    bool success = false;
  };
  struct ConnectionFailed {
    std::uint32_t address = 0;
  };
  struct AllConnectionsComplete {};
  struct SetSystemName {
    std::string name{};
  };
  struct ConnectComplete {}; ///< confirmed
  /// Confirmed. The system is named by identifier in the current numbering, by address in the legacy one.
  struct SystemInControl {
    std::uint32_t address = 0;
    std::int32_t uniqueID = 0;
  };
  struct RequestControl {}; ///< confirmed, with yes or no

  // Conducting. Times are running times.
  struct Prime {
    Trel_PlayRange range{};
  };
  struct StartPlayback {
    std::int64_t runningTime = 0;
  };
  struct StopPlayback {};
  struct ReportPlayStartData {
    std::int64_t runningTime = 0;
  };
  struct GetStartDelay {}; ///< confirmed, with a delay

  // State. What is on or off is that of the sender, unless it is a request.
  struct SendState { ///< confirmed
    ETrel_State transport = eTrel_State_Stop;
  };
  /// The idle loop of the engine tells it too, but nothing to a system that has gone and come back between two passes.
  struct ClockLockState {
    bool isOn = false;
  };
  struct UpdateLinkState {
    ETrel_LinkState link = eTrel_LinkState_NotLinkable;
  };
  struct RequestLink {
    bool isOn = false;
  };
  struct UpdateOnlineState {
    bool isOn = false;
  };
  struct RequestOnline {
    bool isOn = false;
  };
  struct UpdateSystemIsRecording { ///< confirmed
    bool isOn = false;
  };
  struct TrackIsSoloed {
    bool isOn = false;
  };
  struct SoloAllTracks {
    bool isOn = false;
  };
  struct SetLoopPlay {
    bool isOn = false;
  };
  struct SetCurrentSelection {
    Trel_PlayRange range{};
  };
  struct RequestGroupEnable {
    ETrel_Group group = eTrel_Group_All;
    bool isOn = false;
  };
  struct UpdateGroupEnable {
    std::array<bool, Trel_SharedSettings::kGroups> groups{};
  };
  struct VideoReferenceAvailable {
    bool isOn = false;
  };
  struct VideoReferenceFormat {
    ETrel_VideoReferenceFormat format = eTrel_VideoReferenceFormat_Undefined;
  };
  struct DialogOnScreen {
    std::string text{}; ///< empty: none
  };
  struct OKDialog {};     ///< confirmed
  struct CancelDialog {}; ///< confirmed

  using Any = std::variant<SetMasterSystem, SetOrderNumber, ListSystems, ConnectTo, DisconnectFrom, DoConnectTo,
                           DoConnectToComplete, ConnectToComplete, ConnectionFailed, AllConnectionsComplete,
                           SetSystemName, ConnectComplete, SystemInControl, RequestControl, Prime, StartPlayback,
                           StopPlayback, ReportPlayStartData, GetStartDelay, SendState, ClockLockState, UpdateLinkState,
                           RequestLink, UpdateOnlineState, RequestOnline, UpdateSystemIsRecording, TrackIsSoloed,
                           SoloAllTracks, SetLoopPlay, SetCurrentSelection, RequestGroupEnable, UpdateGroupEnable,
                           VideoReferenceAvailable, VideoReferenceFormat, DialogOnScreen, OKDialog, CancelDialog>;

  /// What became of a confirmed message at one receiver.
  enum class Outcome : std::uint8_t {
    confirmed, ///< RequestControl: yes
    refused,   ///< RequestControl: no
    none,      ///< no answer, an error as the answer, or no connection
  };
};

/// What a session wants done. Each is carried out in turn, for what concerns one peer in the order given.
struct Trel_SessionAction {
  /// Names a confirmed message whose outcomes are awaited; 0 is none.
  using Request = std::uint64_t;
  /// Names somebody who waits for an answer: a peer's RequestControl, or the host's; 0 is nobody.
  using Token = std::uint64_t;

  /// Search the network for masters; SearchEnded follows.
  struct Search {};
  /// Open a connection; ConnectEnded follows.
  struct Connect {
    std::uint32_t address = 0;
  };
  struct Disconnect {
    std::uint32_t address = 0;
  };
  /// To several at once. With a request, SendEnded follows for each; what the receivers need not confirm has none.
  struct Send {
    std::set<std::uint32_t> to{};
    Trel_SessionMessage::Any message{};
    Request request = 0;
    Token waiting = 0; ///< who gets an answer by this
  };
  /// Ask the host whether this system lets go of control; HostAnswered follows.
  struct AskHost {
    Token token = 0;
    std::uint32_t asker = 0;
  };
  struct Answer {
    enum class Value : std::uint8_t { granted, busy, noLink };
    Token token = 0;
    Value value = Value::busy;
  };
  /// Find out how long a peer has been silent; Heard follows.
  struct Listen {
    std::uint32_t address = 0;
  };
  /// Keep the address of the master for the host.
  struct SetMaster {
    std::uint32_t address = 0;
  };
  /// The correlation of the clocks belongs to a system that supplies the clock no more. To be done before anything else
  /// is told to the session, so that no running time of that system gets in.
  struct ResetClock {};
  /// What the host has asked for with a token.
  struct AnswerStart {
    Token token = 0;
    Trel_StartAnswer answer{};
  };
  // Have the host do something; HostDone follows, and only then the next of these three. When the session begins again
  // the host is done with all.
  struct HostPrime {
    Trel_PlayRange range{};
  };
  struct HostStart {
    Trel_AgreedStart start{}; ///< without the host time
  };
  struct HostStop {};
  struct Tell {
    Trel_LinkEvent event{};
  };

  using Any = std::variant<Search, Connect, Disconnect, Send, AskHost, Answer, Listen, SetMaster, ResetClock,
                           AnswerStart, HostPrime, HostStart, HostStop, Tell>;
};
