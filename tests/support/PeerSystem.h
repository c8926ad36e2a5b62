#pragma once

#include "tests/support/TestSystem.h"

#include <trel/TCPE_CommManager.h>
#include <trel/Trel_CommPreferences.h>
#include <trel/Trel_CommTask.h>
#include <trel/Trel_Command.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

constexpr std::uint32_t kHostAddress = 0x7f000002;
constexpr std::uint32_t kPeerAddress = 0x7f000003;
constexpr std::uint32_t kOtherPeerAddress = 0x7f000004;

/// Preferences of a system of a test.
inline Trel_CommPreferences TestPreferences(std::uint32_t address) {
  Trel_CommPreferences preferences;
  preferences.SetLocalInterfaceAddress(address);
  preferences.SetCommunicationPort(TestPort());
  return preferences;
}

/// A second system in this process, with an engine on an address of its own: records every command that it gets, as
/// name and debug text, and answers with what it is told to.
class PeerSystem final : public TCPE_CommManager {
public:
  explicit PeerSystem(std::uint32_t address) {
    Trel_CommPreferences preferences = TestPreferences(address);
    mStatus = Initialize(&preferences, nullptr);
  }
  ~PeerSystem() {
    Hold(false);
    Terminate();
  }
  PeerSystem(const PeerSystem&) = delete;
  PeerSystem& operator=(const PeerSystem&) = delete;

  std::int32_t Status() const { return mStatus; }

  /// The next command that arrived; waits for it. A text of its own when none comes.
  std::string Next() {
    std::unique_lock lock(mMutex);
    if (!mChanged.wait_for(lock, std::chrono::seconds(10), [this] { return !mReceived.empty(); })) {
      return "nothing has arrived";
    }
    std::string next = std::move(mReceived.front());
    mReceived.pop_front();
    return next;
  }
  bool HasReceived() const {
    const std::lock_guard lock(mMutex);
    return !mReceived.empty();
  }

  /// Commands that are answered, and not recorded. Before it is connected.
  void Ignore(std::set<std::string> names) { mIgnored = std::move(names); }

  /// The payload of the replies from now on.
  void SetReply(std::string bytes) {
    const std::lock_guard lock(mMutex);
    mReply = std::move(bytes);
  }
  enum class Answer {
    reply,
    error, ///< it has no handlers: its engine answers with errors, and nothing is recorded
    leave, ///< it disconnects in place of answering
  };
  void SetAnswer(Answer answer) { mAnswer = answer; }
  /// While it holds, its handlers do not return.
  void Hold(bool hold) {
    const std::lock_guard lock(mMutex);
    mHolds = hold;
    mChanged.notify_all();
  }

private:
  class Task : public Trel_CommTask {
  public:
    Task(std::uint16_t communicationPort, std::uint16_t discoveryPort, TCPE_System* localSystem, PeerSystem* peer)
        : Trel_CommTask(communicationPort, discoveryPort, localSystem, 128, peer), mPeer(*peer) {}
    bool HasHandler(const TCPE_Command* /*command*/) override { return mPeer.mAnswer != Answer::error; }
    void DoCommand(TCPE_Command* command) override { mPeer.Receive(*command); }

  private:
    PeerSystem& mPeer;
  };

  TCPE_CommTask* CreateCommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort,
                                TCPE_System* localSystem) override {
    return new Task(communicationPort, discoveryPort, localSystem, this);
  }

  static constexpr std::uint8_t kNewestRevision = 2; // the bytes of replies have all fields that there are

  void Receive(TCPE_Command& command) {
    std::ostringstream text;
    command.GetSendDebugInfo(text);
    std::unique_lock lock(mMutex);
    if (!mIgnored.contains(command.GetCommandName())) {
      mReceived.push_back(command.GetCommandName() + (text.str().empty() ? "" : ' ' + text.str()));
    }
    mChanged.notify_all();
    mChanged.wait(lock, [this] { return !mHolds; });
    if (mAnswer == Answer::leave) {
      lock.unlock();
      Disconnect(command.GetIPAddressFrom());
      return;
    }
    command.SetReceivedRevision(kNewestRevision);
    char* cursor = mReply.data();
    command.SetPayloadEnd(cursor + mReply.size());
    command.PrepareReceiveReply(&cursor);
  }

  mutable std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<std::string> mReceived;
  std::set<std::string> mIgnored;
  std::string mReply;
  bool mHolds = false;
  std::atomic<Answer> mAnswer = Answer::reply;
  std::int32_t mStatus;
};
