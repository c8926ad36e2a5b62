#pragma once

#include "link/session/Trel_ControlArbiter.h"
#include "link/session/Trel_SessionCore.h"
#include "link/session/Trel_SystemRoster.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

/// The master's side of the link: admits satellites, takes each through the sequence, keeps everybody's list up to
/// date, and arbitrates control.
class Trel_MasterSession final : public Trel_SessionCore {
public:
  using Trel_SessionCore::Trel_SessionCore;

  void Notice(const Surroundings& surroundings, Time now) override;
  void Begin(Time now) override;
  void End(Time now) override;
  Time NextDeadline() const override;
  void Tick(Time now) override;

  void Connected(const System& peer, std::uint64_t instance, Time now) override;
  void Disconnected(std::uint32_t address, Time now) override;
  void NetworkError(std::uint32_t address, ETCPE_NetworkError error, bool isConnected, Time now) override;
  void ControlAsked(std::uint32_t from, Token token, Time now) override;

  void SearchEnded(const std::vector<Event::System>& masters, Time now) override;
  void HostAnswered(Token token, bool agrees, Time now) override;
  void Heard(std::uint32_t address, std::optional<Time> silence, Time now) override;

  void RequestControl(Token token, Time now) override;
  bool SetOrderNumber(std::uint32_t address, std::int32_t place, Time now) override;
  bool DisconnectSystem(std::uint32_t address, Time now) override;
  void Renamed(Time now) override;

  bool IsLinked() const override { return mLink && !mLink->roster.GetLinkedAddresses().empty(); }
  std::vector<System> GetSystems() const override;
  std::set<std::uint32_t> GetLinkedAddresses() const override;

private:
  using Kind = Event::Kind;
  using Reason = Event::Reason;

  struct Link {
    Trel_SystemRoster roster;
    Trel_ControlArbiter arbiter;
  };
  /// A satellite that is still on its way through the sequence.
  struct Joining {
    std::set<std::uint32_t> connectsTo; ///< satellites that it has not told about
    bool isTold = false;                ///< that all connections are complete
    Time deadline = 0;                  ///< then it is told anyway; once told, then it has to be linked
    std::uint64_t listChanges = 0;      ///< before the list that it has
  };
  /// A satellite that has connected and is not admitted yet.
  struct Applicant {
    System system;
    Time since = 0;
    Time check = 0;
    std::uint32_t rival = 0;
    bool isRivalAlive = false;
  };
  /// The system in control has been asked to let go.
  struct Transfer {
    Token token = 0;
    Request request = 0; ///< 0: the host of this system is asked
  };
  /// All linked systems are told who is in control, the new holder last.
  struct Announcement {
    System holder;
    Request request = 0;
    std::set<std::uint32_t> awaited{};
    bool holderIsTold = false;
    bool isNews = false;
    std::set<std::uint32_t> linkedMeanwhile{};
  };

  std::uint32_t Master() const override { return Self(); }
  Event::System Describe(std::uint32_t address) const override;
  bool IsOfLink(std::uint32_t address) const override { return mLink && mLink->roster.Find(address).has_value(); }
  void ReceivedOfLink(std::uint32_t from, const Message::Any& message, Time now) override;
  void SendOfLinkEnded(Request request, std::uint32_t address, Outcome outcome, Time now) override;

  void On(std::uint32_t from, const Message::ConnectComplete& message, Time now);
  void On(std::uint32_t from, const Message::ConnectToComplete& message, Time now);
  void On(std::uint32_t from, const Message::ConnectionFailed& message, Time now);
  void On(std::uint32_t from, const Message::SetSystemName& message, Time now);
  template <class Other>
  void On(std::uint32_t /*from*/, const Other& /*message*/, Time /*now*/) {}

  /// For other masters, which satellites that search may find in place of this one.
  void Search(Time now);
  /// The engine has moved to another address, where nobody is connected: so does the link.
  void FollowAddress(std::uint32_t before, Time now);
  void Admit(const System& newcomer, Time now);
  /// Admits, refuses, or puts it off: a rival with the same identifier may be the applicant itself, on a dead
  /// connection from the address that it had before.
  void Decide(const Applicant& applicant, Time now);
  void Refuse(const System& newcomer, const Trel_SystemRoster::Admission& admission);
  void BeginSequence(const System& satellite, Time now);
  void ConnectedTo(std::uint32_t satellite, std::uint32_t to, bool success, Time now);
  void CompleteIfConnected(std::uint32_t satellite, Time now);
  /// A system is gone, if it was here.
  void Remove(std::uint32_t address, Event event, Time now);

  /// Begins a transition; who asked gets an answer, now or later.
  void HandOver(std::uint32_t asker, Token token, Time now);
  void HolderAnswered(Trel_ControlArbiter::Answer answer, Time now);
  void AnswerAsker(Token token, bool isGranted, Time now);
  /// Goes on with what the arbiter has due.
  void Settle(Time now);
  void BeginAnnouncement(Time now);
  void GoOnAnnouncing(Time now);
  void AnnounceHere(Time now);
  void TellWhoIsInControl(const std::set<std::uint32_t>& addresses, const System& holder, Request request = 0);

  void SendLists();
  void ListChanged(Time now);

  std::optional<Link> mLink; ///< while it is running
  bool mHasRun = false;
  std::map<std::uint32_t, System> mEarly; ///< who has connected before the session began
  std::map<std::uint32_t, Applicant> mApplicants;
  std::map<std::uint32_t, Joining> mJoining;
  std::optional<Transfer> mTransfer;
  std::optional<Announcement> mAnnouncement;
  std::optional<Time> mListsDue;
  std::uint64_t mListChanges = 0;
  std::optional<Time> mWaitEnds; ///< for a lost system that was in control
  Time mLeftUntil = 0;           ///< then who was left by this system has noticed
  Time mSearchDue = 0;
  std::map<std::uint32_t, int> mOtherMasters; ///< that the host has been told of; how many searches they have missed
};
