#include "link/session/Trel_SystemRoster.h"

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Verdict = Trel_SystemRoster::Verdict;

Trel_SessionSystem System(std::uint32_t address, std::int32_t uniqueID) {
  return {.address = address, .uniqueID = uniqueID};
}

std::string Text(const std::vector<Trel_SessionSystem>& systems) {
  std::ostringstream text;
  for (const Trel_SessionSystem& system : systems) {
    text << system.place << ':' << system.address << ' ';
  }
  return text.str();
}

TEST(Trel_SystemRoster, AdmitsWhoMayComeAndKeepsPlaces) {
  Trel_SystemRoster roster(System(9, 90));
  const auto admit = [&roster](std::uint32_t address, std::int32_t uniqueID, std::int32_t most = 3) {
    return roster.Admit(System(address, uniqueID), true, most);
  };
  EXPECT_EQ(roster.Admit(System(1, 10), false, 3).mVerdict, Verdict::notAllowed);
  EXPECT_EQ(admit(1, 10, 0).mVerdict, Verdict::full);
  EXPECT_EQ(admit(1, 10, -5).mVerdict, Verdict::full);
  EXPECT_EQ(admit(1, 10).mVerdict, Verdict::admitted);
  EXPECT_EQ(admit(2, 0).mVerdict, Verdict::admitted);
  EXPECT_EQ(admit(3, 0).mVerdict, Verdict::admitted) << "0 is no identifier";
  EXPECT_EQ(admit(4, 40).mVerdict, Verdict::full);
  // Why a rival is refused matters more than that the link is full.
  EXPECT_EQ(admit(4, 10).mVerdict, Verdict::identifierUsed);
  EXPECT_EQ(admit(4, 10).mSystem.address, 1U);
  EXPECT_EQ(admit(4, 90).mSystem.address, 9U) << "the master's own identifier";
  EXPECT_EQ(Text(roster.GetSystems()), "1:9 2:1 3:2 4:3 ");

  EXPECT_TRUE(roster.SetLinked(1));
  EXPECT_FALSE(roster.SetLinked(1)) << "once";
  EXPECT_FALSE(roster.SetLinked(4)) << "not here";
  EXPECT_FALSE(roster.SetLinked(9)) << "the master";

  EXPECT_EQ(Text(roster.Move(3, 2)), "4:1 2:3 ");
  EXPECT_EQ(Text(roster.Move(3, 7)), "7:3 ");
  EXPECT_EQ(Text(roster.Move(3, 0)), "");
  EXPECT_EQ(Text(roster.Move(4, 1)), "");
  EXPECT_TRUE(roster.Remove(1).has_value());
  EXPECT_FALSE(roster.Remove(1).has_value());
  EXPECT_TRUE(roster.GetLinkedAddresses().empty());
  EXPECT_EQ(admit(5, 10).mSystem.place, 2) << "the place of one that is away stays free";
  EXPECT_TRUE(roster.Remove(5).has_value());
  EXPECT_EQ(admit(1, 10).mSystem.place, 4) << "it gets its place back";
}

} // namespace
