#pragma once

#include <trel/Sys_Clock.h>
#include <trel/TCPE_CommManager.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_CommTask.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

/// Waits until a condition holds, 10 s at the most.
template <class Condition>
bool Eventually(Condition condition) {
  const std::int64_t end = Sys_Clock::RawMicroseconds() + 10'000'000;
  while (!condition()) {
    if (Sys_Clock::RawMicroseconds() >= end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

/// Prints a measured value beside its limit, and judges it.
inline void ExpectWithin(const std::string& what, std::int64_t measured, std::int64_t limit) {
  std::cout << what << ": " << measured << " (limit " << limit << ")\n";
  EXPECT_LE(measured, limit) << what;
}

/// The port of all systems of the running test; each test has a process of its own, and some start themselves again.
inline std::uint16_t TestPort() {
  static const int sPort = [] {
    setenv("LINK_TEST_PORT", std::to_string(20'000 + getpid() % 8'000).c_str(), 0);
    return std::stoi(std::getenv("LINK_TEST_PORT"));
  }();
  return static_cast<std::uint16_t>(sPort);
}

inline std::string ErrorText(ETCPE_NetworkError error) { return "error " + std::to_string(error); }

/// A system with an engine and a task of its own at 127.0.0.10, .11 or .12. What arrives has a text: the command's
/// name, the number of a TestRunningTime behind it; or "error" and its number, for the network-error callback.
/// Set what stands public before Start; what the handlers use is declared before the system, for a farewell reaches
/// them at its end.
class TestSystem final : public TCPE_CommManager {
public:
  explicit TestSystem(std::size_t number) : mNumber(number) { sSystems.at(number) = this; }
  ~TestSystem() { Terminate(); }
  TestSystem(const TestSystem&) = delete;
  TestSystem& operator=(const TestSystem&) = delete;

  std::uint32_t Address() const { return 0x7f00000a + static_cast<std::uint32_t>(mNumber); }
  std::int32_t Start() {
    TCPE_CommPreferences preferences(Address(), TestPort());
    return Initialize(&preferences, ErrorProc());
  }
  NetworkErrorProc ErrorProc() const {
    return std::array{&OnNetworkError<0>, &OnNetworkError<1>, &OnNetworkError<2>}[mNumber];
  }

  template <class Command>
  TCPE_CommErr Send(Command&& command, std::uint32_t address) {
    command.SetIPAddressTo(address);
    SendCommand(&command);
    return command.GetError();
  }
  TCPE_CommErr SendTime(std::int64_t time, std::uint32_t to) { return Send(Trel_Cmd_TestRunningTime(time), to); }
  TCPE_CommErr Query(std::uint32_t to) { return Send(Trel_Cmd_GetState(), to); }
  /// With host-pumped delivery: handles what has come.
  void Pump() {
    while (TCPE_Command* const command = TakeCommand()) {
      Arrive(TextOf(*command), command->GetIPAddressFrom());
      DisposeCommand(command);
    }
  }

  /// What came from an address, in the order in which the handlers started.
  std::vector<std::string> From(std::uint32_t address) const {
    const std::lock_guard lock(mMutex);
    std::vector<std::string> texts;
    for (const auto& [from, text] : mArrived) {
      if (from == address) {
        texts.push_back(text);
      }
    }
    return texts;
  }
  std::int64_t Count(const std::string& beginning) const {
    const std::lock_guard lock(mMutex);
    return std::count_if(mArrived.begin(), mArrived.end(),
                         [&beginning](const auto& arrived) { return arrived.second.starts_with(beginning); });
  }

  std::function<void(const std::string& text, std::uint32_t from)> handler;
  /// Runs on the network thread; true consumes the command.
  std::function<bool(const std::string& text, std::uint32_t from)> inPlace;
  /// Runs on the thread that sends, before anything is written.
  std::function<void(const TCPE_Command& command)> beforeSending;
  /// Runs when the task is asked for its version, as it is several times while the system starts.
  std::function<void()> beforeVersion;
  std::atomic<bool> admits = true;
  std::atomic<bool> hasHandler = true;
  std::uint16_t maxSatellites = 128;

private:
  class Task final : public Trel_CommTask {
  public:
    Task(std::uint16_t communicationPort, std::uint16_t discoveryPort, TCPE_System* record, TestSystem* system)
        : Trel_CommTask(communicationPort, discoveryPort, record, system->maxSatellites, system), mSystem(*system) {}
    bool HasHandler(const TCPE_Command* /*command*/) override { return mSystem.hasHandler; }
    void DoCommand(TCPE_Command* command) override { mSystem.Arrive(TextOf(*command), command->GetIPAddressFrom()); }
    void WriteCommandHeader(TCPE_Command* command, char** cursor) override {
      if (mSystem.beforeSending) {
        mSystem.beforeSending(*command);
      }
      Trel_CommTask::WriteCommandHeader(command, cursor);
    }
    std::uint8_t GetCurrentProtocolMajorVersion() override {
      if (mSystem.beforeVersion) {
        mSystem.beforeVersion();
      }
      return Trel_CommTask::GetCurrentProtocolMajorVersion();
    }

  private:
    TestSystem& mSystem;
  };

  static std::string TextOf(const TCPE_Command& command) {
    const auto* numbered = dynamic_cast<const Trel_Cmd_TestRunningTime*>(&command);
    return command.GetCommandName() + (numbered != nullptr ? ' ' + std::to_string(numbered->GetTime()) : "");
  }
  void Arrive(const std::string& text, std::uint32_t from) {
    {
      const std::lock_guard lock(mMutex);
      mArrived.emplace_back(from, text);
    }
    if (handler) {
      handler(text, from);
    }
  }
  TCPE_CommTask* CreateCommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort,
                                TCPE_System* record) override {
    return new Task(communicationPort, discoveryPort, record, this);
  }
  bool HandleSyncCommand(TCPE_Command* command) override {
    return inPlace && inPlace(TextOf(*command), command->GetIPAddressFrom());
  }
  bool HandleAsyncCommand(TCPE_Command* command) override { return HandleSyncCommand(command); }
  bool AllowConnect(std::uint32_t /*address*/) override { return admits; }

  // The callback has no argument for its owner: every system has a function of its own.
  static inline std::array<TestSystem*, 3> sSystems{};
  template <std::size_t Number>
  static void OnNetworkError(ENetworkError error, std::uint32_t address) {
    sSystems[Number]->Arrive(ErrorText(error), address);
  }

  const std::size_t mNumber;
  mutable std::mutex mMutex;
  std::vector<std::pair<std::uint32_t, std::string>> mArrived;
};

/// What a system knows of a peer.
inline TCPE_PeerSnapshot PeerOf(const TestSystem& system, std::uint32_t address) {
  for (const TCPE_PeerSnapshot& peer : system.GetSnapshot().peers) {
    if (peer.address == address) {
      return peer;
    }
  }
  return {};
}

inline void Start(TestSystem& a, TestSystem& b) { ASSERT_EQ(a.Start() + b.Start(), 0); }
inline void Link(TestSystem& a, TestSystem& b) {
  Start(a, b);
  ASSERT_TRUE(a.Connect(b.Address()));
}

/// Queries a system again and again, and notes how that goes.
class RoundTrips {
public:
  template <class Query = Trel_Cmd_GetState>
  RoundTrips(TestSystem& from, std::uint32_t to, Query query = {})
      : mThread([this, &from, to, query](const std::stop_token& ends) {
          do { // once even when the thread comes to run after the end of a short test
            const std::int64_t begin = Sys_Clock::RawMicroseconds();
            mFailures += from.Send(Query(query), to) != eTCPE_CommErr_None ? 1 : 0;
            mTimes.push_back(Sys_Clock::RawMicroseconds() - begin);
            ++mCount;
          } while (!ends.stop_requested());
        }) {}

  std::int64_t Count() const { return mCount; }
  /// Ends them. None has failed, none took longer than half of the time-out, and most were quick.
  void ExpectUndisturbed() {
    mThread.request_stop();
    mThread.join();
    EXPECT_EQ(mFailures, 0);
    std::sort(mTimes.begin(), mTimes.end());
    ExpectWithin("worst of them, us", mTimes.back(), 1'000'000);
    ExpectWithin("median, us", mTimes[mTimes.size() / 2], 20'000);
  }

private:
  std::atomic<std::int64_t> mCount = 0;
  std::int64_t mFailures = 0;
  std::vector<std::int64_t> mTimes;
  std::jthread mThread;
};
