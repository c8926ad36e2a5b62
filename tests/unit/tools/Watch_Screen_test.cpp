#include "tools/trel/watch/Watch_Screen.h"

#include "tools/trel/common/Status_Judge.h"
#include "tools/trel/common/Status_Snapshot.h"
#include "tools/trel/watch/Watch_Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <utility>

namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

Status_Snapshot Satellite() {
  Status_Snapshot snapshot;
  snapshot.name = "Regie \u00dc\u6771\u4eac";
  snapshot.address = "192.168.100.103";
  snapshot.role = "satellite";
  snapshot.isLinked = true;
  snapshot.inControl = "192.168.100.102";
  snapshot.clock = Trel_ClockStatus{
      .state = eTrel_ClockState_Stable, .reason = eTrel_ClockReason_ErrorSmall, .isLocked = true, .errorBound = 41};
  snapshot.systems = {{.order = 1,
                       .name = "Stage\x1b[2J\n\xc2\x9b",
                       .address = "192.168.100.102",
                       .role = "master",
                       .isInControl = true,
                       .isConnected = true,
                       .isLocked = true},
                      {.order = 2,
                       .name = snapshot.name,
                       .address = snapshot.address,
                       .role = "satellite",
                       .isThis = true,
                       .isLocked = true,
                       .late = -3}};
  Status_Judge(snapshot);
  return snapshot;
}

/// A master with 128 satellites, the last of which is not locked.
Status_Snapshot Master() {
  Status_Snapshot snapshot;
  snapshot.name = "A name that takes 29 columns.";
  snapshot.isMaster = true;
  snapshot.isLinked = true;
  for (int place = 1; place <= 129; ++place) {
    snapshot.systems.push_back({.order = place,
                                .name = "System " + std::to_string(place),
                                .address = "10.0.0." + std::to_string(place),
                                .role = "satellite",
                                .isThis = place == 1,
                                .isConnected = place != 1,
                                .isLocked = place != 129});
  }
  snapshot.dropped = {{"malformed_payloads", 3}};
  Status_Judge(snapshot);
  return snapshot;
}

/// As who watches gets it.
Status_Snapshot Arrived(const Status_Snapshot& snapshot) { return Status_Snapshot::FromJson(snapshot.ToJson()); }

TEST(WatchScreen, FitsEveryTerminalAndKeepsWhatMatters) {
  using Size = std::pair<std::size_t, std::size_t>;
  for (const auto& [width, height] : {Size(120, 40), Size(80, 24), Size(60, 14), Size(30, 6)}) {
    for (const Status_Snapshot& snapshot : {Satellite(), Master()}) {
      SCOPED_TRACE(snapshot.verdict + " at " + std::to_string(width) + " x " + std::to_string(height));
      const auto lines = Watch_Screen::Lines(Arrived(snapshot), {.width = width, .height = height});
      EXPECT_LE(lines.size(), height);
      for (const std::string& line : lines) {
        EXPECT_LE(Watch_Text::Width(line), width) << line;
        EXPECT_THAT(line, AllOf(Not(HasSubstr("\x1b")), Not(HasSubstr("\n")), Not(HasSubstr("\xc2\x9b"))));
      }
      EXPECT_THAT(lines, Contains(HasSubstr(snapshot.verdict)));
      if (height >= 14) {
        EXPECT_THAT(lines, Contains(AllOf(HasSubstr(snapshot.isMaster ? " 129 " : "> 2 "),
                                          HasSubstr(snapshot.isMaster ? "free" : "stable"))));
      }
    }
  }
  EXPECT_THAT(Watch_Screen::Lines(Master(), {.width = 80, .height = 24}),
              AllOf(Contains(HasSubstr("System 129 (10.0.0.129)")), Contains(HasSubstr("3 malformed payloads")),
                    Contains(HasSubstr("more, nothing wrong with them"))));
  EXPECT_EQ(Arrived(Satellite()).ToJson(), Satellite().ToJson());
  EXPECT_THAT(Watch_Screen::Lines(Arrived(Satellite()), {.hasColours = true}),
              Contains(HasSubstr("\x1b[1;32mIN SYNC\x1b[0m: to")));
}

TEST(StatusJudge, SaysWhyNot) {
  Status_Snapshot satellite = Satellite();
  satellite.clock->state = eTrel_ClockState_Lost;
  Status_Judge(satellite);
  EXPECT_EQ(satellite.sync, Status_Sync::no);
  satellite.isLinked = false;
  satellite.whyNotLinked = "Nobody answers.";
  Status_Judge(satellite);
  EXPECT_EQ(satellite.verdict + ": " + satellite.why, "NOT LINKED: Nobody answers.");

  Status_Snapshot master = Master();
  EXPECT_EQ(master.sync, Status_Sync::no);
  EXPECT_THAT(master.why, HasSubstr("1 of 128 satellites"));
  master.systems.back().isLocked = true;
  Status_Judge(master);
  EXPECT_EQ(master.sync, Status_Sync::yes);
  master.systems.back() = {.name = "Gone", .address = "10.0.0.129", .gone = 5'000'000, .isLost = true};
  Status_Judge(master);
  EXPECT_EQ(master.sync, Status_Sync::soon);
  EXPECT_THAT(master.why, HasSubstr("lost: Gone (10.0.0.129)"));
}

} // namespace
