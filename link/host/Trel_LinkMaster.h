#pragma once

#include "link/host/Trel_ControlArbiter.h"
#include "link/host/Trel_LinkRole.h"
#include "link/host/Trel_SystemRoster.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// The master's side of the link: admits satellites, takes each through the sequence, keeps everybody's list up to
/// date, and arbitrates control.
class Trel_LinkMaster final : public Trel_LinkRole {
public:
  using Trel_LinkRole::Trel_LinkRole;

  void Begin() override;
  std::int64_t Tick(std::int64_t now) override;
  void End() override;

  void OnConnect(const Trel_Cmd_Connect& command) override;
  void OnDisconnect(std::uint32_t from) override;
  void OnNetworkError(ETCPE_NetworkError error, std::uint32_t address) override;
  void OnConnectComplete(const Trel_Cmd_ConnectComplete& command) override;
  void OnConnectToComplete(const Trel_Cmd_ConnectToComplete& command) override;
  void OnConnectionFailed(const Trel_Cmd_ConnectionFailed& command) override;
  void OnSetSystemName(const Trel_Cmd_SetSystemName& command) override;
  bool OnRequestControl(std::uint32_t asker) override;

  Trel_LinkSession::ControlAnswer RequestControl() override;
  bool SetOrderNumber(std::uint32_t address, std::int32_t number) override;
  bool DisconnectSystem(std::uint32_t address) override;
  void Renamed() override;

private:
  /// A satellite that is still on its way through the sequence.
  struct Joining {
    std::set<std::uint32_t> mConnectsTo; ///< satellites that it has not told about
    bool mIsTold = false;                ///< that all connections are complete
    std::int64_t mDeadline = 0;          ///< then it is told anyway; once told, then it has to be linked
  };
  /// A satellite that has connected and is not admitted yet.
  struct Applicant {
    Trel_System mSystem;
    std::int64_t mSince = 0; ///< raw time at which it came
  };

  /// The engine may have moved to another address, where nobody is connected: so does the link.
  void FollowAddress();
  void Admit(const Trel_System& newcomer);
  /// Admits, refuses, or puts it off: a rival with the same identifier may be the applicant itself, on a dead
  /// connection from the address that it had before.
  void Decide(const Applicant& applicant);
  /// Whether a system has not been heard since, and may still be found to be lost.
  bool MayBeDead(const Trel_System& rival, std::int64_t since) const;
  void Refuse(const Trel_System& newcomer, const Trel_SystemRoster::Admission& admission);
  void BeginSequence(const Trel_System& satellite);
  void Connected(std::uint32_t satellite, std::uint32_t to, bool success);
  void CompleteIfConnected(std::uint32_t satellite);
  void Linked(std::uint32_t satellite);
  /// A satellite does not complete the sequence.
  void GiveUp(std::uint32_t satellite);
  /// A system is gone, if it was here.
  void Remove(std::uint32_t address, Kind kind, const std::string& text);
  /// A transition up to the announcement, which is the worker's; whether control goes to the asker. Any thread.
  bool HandOver(std::uint32_t asker);
  void AnnounceControl();
  void TellWhoIsInControl(std::uint32_t address, const Trel_System& holder);
  void SendLists();
  void Publish();
  void ListChanged();

  // Calls a function with roster and arbiter; gives a default value while the session is not started.
  template <class Function>
  auto WithLink(Function function);
  std::optional<Trel_System> Find(std::uint32_t address);
  std::string NameOf(std::uint32_t address);

  struct Link {
    Trel_SystemRoster mRoster;
    Trel_ControlArbiter mArbiter;
  };
  std::atomic<bool> mIsStopped = false; // has run, and does not now
  std::mutex mMutex;                    // guards the link; held for no call that sends or tells
  std::optional<Link> mLink;

  // The worker's own.
  std::uint32_t mAddress = 0;
  std::map<std::uint32_t, Applicant> mApplicants; // that are put off
  std::map<std::uint32_t, Joining> mJoining;
  std::optional<std::int64_t> mListsDue;
  std::optional<std::int64_t> mWaitEnds; // for a lost system that was in control
};
