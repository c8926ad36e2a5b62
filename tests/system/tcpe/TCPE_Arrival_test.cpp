#include "tests/support/TestSystem.h"

#include <limits>

namespace {

/// What arrives while the network thread is held up is read late.
TEST(TCPE_Arrival, IsWhenTheBytesCameAndNotWhenTheyWereRead) {
  TestSystem a(0), b(1);
  std::atomic<bool> isHeldUp = false;
  std::atomic<std::int64_t> heldUntil = 0;
  b.inPlace = [&](const std::string& text, std::uint32_t /*from*/) {
    isHeldUp = text == "TestRunningTime 1";
    while (isHeldUp && Sys_Clock::Microseconds() < heldUntil) {
      std::this_thread::yield();
    }
    return isHeldUp.exchange(false);
  };
  b.SetHostPumpedDelivery(true);
  Link(a, b);
  const auto take = [&b] { // also the connect command
    TCPE_Command* command = nullptr;
    EXPECT_TRUE(Eventually([&] { return (command = b.TakeCommand()) != nullptr; }));
    const std::int64_t arrival = command->GetArrivalTime();
    b.DisposeCommand(command);
    return arrival;
  };
  EXPECT_NE(take(), 0);
  const auto whileHeldUp = [&](const std::function<std::int64_t()>& arrive) {
    return Eventually([&] { // a busy machine may take so long that the stamp is not believed
      heldUntil = std::numeric_limits<std::int64_t>::max();
      a.SendTime(1, b.Address());
      EXPECT_TRUE(Eventually([&] { return isHeldUp.load(); }));
      const std::int64_t begin = Sys_Clock::Microseconds();
      heldUntil = begin + 1'000;
      const std::int64_t arrival = arrive();
      EXPECT_GE(arrival, begin);
      EXPECT_LE(arrival, Sys_Clock::Microseconds());
      return arrival < heldUntil;
    });
  };
  EXPECT_TRUE(whileHeldUp([&] {
    Trel_Cmd_GetState query; // a answers on threads of its own
    EXPECT_EQ(query.GetArrivalTime(), 0);
    EXPECT_EQ(b.Send(query, a.Address()), eTCPE_CommErr_None);
    return query.GetArrivalTime();
  }));
  EXPECT_TRUE(whileHeldUp([&] {
    EXPECT_EQ(a.SendTime(2, b.Address()), eTCPE_CommErr_None);
    return take();
  }));
  Sys_Clock::SetSource([] { return std::int64_t{42}; });
  Trel_Cmd_GetState query;
  EXPECT_EQ(b.Send(query, a.Address()), eTCPE_CommErr_None);
  EXPECT_EQ(query.GetArrivalTime(), 42);
  Sys_Clock::SetSource(nullptr);
}

} // namespace
