#include <trel/SPSStartupOption.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CommPreferences.h>
#include <trel/host/Trel_LinkSession.h>

#include "tests/support/NumberingTest.h"
#include "tests/support/TestSystem.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ControlAnswer = Trel_LinkSession::ControlAnswer;

constexpr std::uint32_t kFirstAddress = 0x7f000a02; // 127.0.10.2, the master; the satellites follow
constexpr int kLinked = 3;

template <class Value>
void Write(int file, const Value& value) {
  if (write(file, &value, sizeof value) != static_cast<ssize_t>(sizeof value)) {
    _exit(EXIT_FAILURE);
  }
}
template <class Value>
Value Read(int file) {
  Value value{};
  auto* bytes = reinterpret_cast<char*>(&value);
  for (std::size_t done = 0; done < sizeof value;) {
    const ssize_t count = read(file, bytes + done, sizeof value - done);
    if (count <= 0) {
      return {};
    }
    done += static_cast<std::size_t>(count);
  }
  return value;
}

struct Order {
  enum class Kind { end, ask, tell } kind = Kind::end;
  std::int64_t when = 0; ///< raw time at which to ask
};
struct View {
  bool isLinked = false;
  bool hasControl = false;
  std::uint32_t inControl = 0;
};
/// Raw times between which a system certainly was in control: after it had it, and before it could lose it.
struct Interval {
  std::int64_t begin = 0;
  std::int64_t end = 0;
};

/// What runs in each process: a session that does as it is ordered.
class System {
public:
  System(int number, int orders, int answers) : mNumber(number), mOrders(orders), mAnswers(answers) {}

  void Run(std::uint16_t port) {
    SPSSetStartupOption("DiscoveryPort", std::to_string(port + 8000).c_str());
    Trel_LinkSession::Settings settings;
    settings.mIsMaster = mNumber == 0;
    settings.mMasterAddress = mNumber == 0 ? 0 : kFirstAddress;
    settings.mMayGiveControl = [this](std::uint32_t) {
      const std::int64_t now = Sys_Clock::RawMicroseconds();
      const std::lock_guard lock(mMutex);
      ++mTimesGiven;
      Close(now);
      return true;
    };
    Trel_LinkSession session(settings);
    Trel_CommPreferences preferences;
    preferences.SetLocalInterfaceAddress(kFirstAddress + static_cast<std::uint32_t>(mNumber));
    preferences.SetCommunicationPort(port);
    if (Trel_CommManager::Initialize(&preferences, &Trel_LinkSession::OnNetworkError) != 0 || !session.Start()) {
      _exit(EXIT_FAILURE);
    }
    for (auto order = Read<Order>(mOrders); order.kind != Order::Kind::end; order = Read<Order>(mOrders)) {
      if (order.kind == Order::Kind::tell) {
        Write(mAnswers, View{session.IsLinked(), session.HasControl(), session.GetSystemInControl()});
      } else {
        Write(mAnswers, Ask(session, order.when));
      }
    }
    Close(Sys_Clock::RawMicroseconds());
    Write(mAnswers, mIntervals.size());
    for (const Interval& interval : mIntervals) {
      Write(mAnswers, interval);
    }
    session.Stop();
    Trel_CommManager::Terminate();
  }

private:
  ControlAnswer Ask(Trel_LinkSession& session, std::int64_t when) {
    const auto timesGiven = [this] {
      const std::lock_guard lock(mMutex);
      return mTimesGiven;
    };
    const std::int64_t before = timesGiven();
    std::this_thread::sleep_for(std::chrono::microseconds(when - Sys_Clock::RawMicroseconds()));
    const ControlAnswer answer = session.RequestControl();
    const std::lock_guard lock(mMutex);
    // Control may have been given on already.
    if (answer == ControlAnswer::granted && mTimesGiven == before && !mSince) {
      mSince = Sys_Clock::RawMicroseconds();
    }
    return answer;
  }
  void Close(std::int64_t now) {
    if (mSince) {
      mIntervals.push_back({*mSince, now});
      mSince.reset();
    }
  }

  const int mNumber;
  const int mOrders;
  const int mAnswers;
  std::mutex mMutex;
  std::int64_t mTimesGiven = 0;
  std::optional<std::int64_t> mSince;
  std::vector<Interval> mIntervals;
};

/// A process with such a system in it, on ports of this test.
class Process {
public:
  explicit Process(int number) {
    int orders[2] = {};
    int answers[2] = {};
    EXPECT_EQ(pipe2(orders, O_CLOEXEC) + pipe2(answers, O_CLOEXEC), 0);
    const std::uint16_t port = TestPort();
    mId = fork();
    if (mId == 0) {
      close(orders[1]);
      System(number, orders[0], answers[1]).Run(port);
      _exit(EXIT_SUCCESS);
    }
    close(orders[0]);
    close(answers[1]);
    mOrders = orders[1];
    mAnswers = answers[0];
    sOthersOrders.push_back(mOrders);
  }
  ~Process() {
    std::erase(sOthersOrders, mOrders);
    close(mOrders); // ends it
    close(mAnswers);
    int status = 0;
    EXPECT_EQ(waitpid(mId, &status, 0), mId);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) << status;
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void Send(const Order& order) const { Write(mOrders, order); }
  template <class Answer>
  Answer Receive() const {
    return Read<Answer>(mAnswers);
  }
  View Look() const {
    Send({Order::Kind::tell});
    return Receive<View>();
  }

private:
  static inline std::vector<int> sOthersOrders;

  pid_t mId = -1;
  int mOrders = -1;
  int mAnswers = -1;
};

class LinkControl : public NumberingTest {};
INSTANTIATE_NUMBERING_TESTS(LinkControl);

TEST_P(LinkControl, OneOfTwoThatAskTogetherGetsIt) {
  constexpr int kRounds = 1000;
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  std::deque<Process> processes;
  for (int number = 0; number < kLinked; ++number) {
    processes.emplace_back(number);
  }
  for (const Process& process : processes) {
    ASSERT_TRUE(Eventually([&] { return process.Look().isLinked; }));
  }
  int bothGranted = 0;
  int bothBusy = 0;
  for (int round = 0; round < kRounds; ++round) {
    if (round % 2 == 0) { // else one of the two has it already, and may go on to the other
      // Busy while the end of the last handing over has not arrived there.
      ASSERT_TRUE(Eventually([&] {
        processes[0].Send({Order::Kind::ask, 0});
        return processes[0].Receive<ControlAnswer>() == ControlAnswer::granted;
      })) << "round "
          << round;
    }
    // At the same moment, and up to 150 us apart.
    constexpr std::int64_t kStep = 50, kSteps = 7, kLead = 300;
    const std::int64_t when = Sys_Clock::RawMicroseconds() + kLead;
    processes[1].Send({Order::Kind::ask, when});
    processes[2].Send({Order::Kind::ask, when + kStep * (round % kSteps - kSteps / 2)});
    ControlAnswer answers[kLinked] = {};
    for (const std::size_t asker : {1U, 2U}) {
      answers[asker] = processes[asker].Receive<ControlAnswer>();
    }
    std::vector<View> views;
    const bool isAgreed = Eventually([&] {
      views.clear();
      for (const Process& process : processes) {
        views.push_back(process.Look());
      }
      return std::all_of(views.begin(), views.end(), [&](const View& view) {
        const auto number = static_cast<std::uint32_t>(&view - views.data());
        return view.inControl == views[0].inControl && view.hasControl == (view.inControl == kFirstAddress + number);
      });
    });
    const std::uint32_t holder = views[0].inControl - kFirstAddress;
    ASSERT_TRUE(isAgreed && holder < kLinked) << "round " << round;
    if (holder == 0) {
      ++bothBusy; // for the same reason
      ASSERT_TRUE(answers[1] == ControlAnswer::busy && answers[2] == ControlAnswer::busy) << "round " << round;
    } else {
      ASSERT_EQ(answers[holder], ControlAnswer::granted) << "round " << round;
      bothGranted += answers[1] == answers[2] ? 1 : 0;
    }
  }

  std::vector<Interval> intervals;
  for (const Process& process : processes) {
    process.Send({});
    const auto count = process.Receive<std::size_t>();
    for (std::size_t i = 0; i < count; ++i) {
      intervals.push_back(process.Receive<Interval>());
    }
  }
  std::sort(intervals.begin(), intervals.end(), [](const Interval& a, const Interval& b) { return a.begin < b.begin; });
  for (std::size_t i = 1; i < intervals.size(); ++i) {
    EXPECT_LE(intervals[i - 1].end, intervals[i].begin) << "two systems in control at once";
  }
  std::cout << kRounds << " rounds, control passed on " << intervals.size() << " times, in " << bothGranted
            << " rounds to both, one after the other; both were busy in " << bothBusy << "\n";
  EXPECT_LE(bothBusy, kRounds / 100) << "too often the master kept it";
  EXPECT_GT(intervals.size(), kRounds / 10U) << "it was hardly ever handed over";
  ExpectWithin("all rounds, us", Sys_Clock::RawMicroseconds() - begin, 30'000'000);
}

} // namespace
