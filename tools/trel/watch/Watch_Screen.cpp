#include "tools/trel/watch/Watch_Screen.h"

#include "tools/trel/common/DurationText.h"
#include "tools/trel/common/Status_Snapshot.h"
#include "tools/trel/watch/Watch_Text.h"

#include <trel/Cmn_Printable.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <iterator>
#include <optional>
#include <sstream>

namespace {

using Lines = std::vector<std::string>;
using System = Status_Snapshot::System;

enum class Style { plain, strong, faint, good, fair, bad };

constexpr std::array kStyleCodes = {"", "1", "2", "1;32", "1;33", "1;31"};
constexpr std::int64_t kLongSilenceOfSystem = 1'500'000; // microseconds; an idle connection is heard each second
constexpr double kMicrosecondsOfSecond = 1e6;
constexpr std::size_t kLabelWidth = 14;
constexpr std::size_t kFewestRows = 3;

/// What has several lines becomes one.
std::string Clean(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return Cmn_Printable(text);
}

std::string Fixed(double value, int decimals) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(decimals) << value;
  return text.str();
}

std::string Signed(std::int64_t microseconds) { return (microseconds < 0 ? "" : "+") + DurationText(microseconds); }

/// For the cells of a table: without the space before the unit.
std::string Short(std::string duration) {
  std::erase(duration, ' ');
  return duration;
}

template <class Value, class Text>
std::string OrDash(const std::optional<Value>& value, Text text) {
  return value ? std::string(text(*value)) : "-";
}

bool IsMember(const System& system) { return system.isThis || system.order != 0 || system.isConnected; }

bool IsInTrouble(const System& system) {
  return !system.isLocked.value_or(true) || system.silence.value_or(0) > kLongSilenceOfSystem;
}

Style StyleOf(Status_Sync sync) {
  return sync == Status_Sync::yes ? Style::good : sync == Status_Sync::soon ? Style::fair : Style::bad;
}

struct Cell {
  std::string text;
  Style style = Style::plain;
};

/// The systems, one a row.
class Table {
public:
  Table(const std::vector<System>& systems, const Cell& ownClock, std::size_t width, bool isWide);

  /// Whether there is room for everything.
  bool IsWhole() const { return mIsWhole; }
  std::string Heading() const;
  /// The row of a system, and the spaces between.
  std::vector<Cell> Row(std::size_t index) const;

private:
  struct Column {
    const char* heading;
    bool isRightAligned;
    int importance;
    std::vector<Cell> cells;
    std::size_t width;
  };
  static constexpr int kNeverLeftOut = 9;
  static constexpr std::size_t kName = 1; // the column that is cut first
  static constexpr std::size_t kLeastNameWidth = 8;

  template <class CellOf>
  void Add(const char* heading, bool isRightAligned, int importance, CellOf cellOf);
  std::size_t WidthWithoutName() const;

  const std::vector<System>& mSystems;
  std::size_t mGap;
  bool mIsWhole = true;
  std::vector<Column> mColumns;
};

Table::Table(const std::vector<System>& systems, const Cell& ownClock, std::size_t width, bool isWide)
    : mSystems(systems), mGap(isWide ? 2 : 1) {
  Add("  #", false, kNeverLeftOut, [](const System& system) {
    const std::string place = system.order != 0 ? std::to_string(system.order) : "-";
    return Cell{(system.isThis ? "> " : "  ") + place + (system.isInControl ? "*" : "")};
  });
  Add("name", false, kNeverLeftOut, [](const System& system) {
    return Cell{system.name, system.isThis ? Style::strong : Style::plain};
  });
  Add("address", false, 8, [](const System& system) { return Cell{system.address}; });
  Add("role", false, 3,
      [isWide](const System& system) { return Cell{!isWide && system.role == "satellite" ? "sat." : system.role}; });
  Add(isWide ? "transport" : "state", false, 7,
      [](const System& system) { return Cell{system.transport.value_or("-")}; });
  Add("clock", false, kNeverLeftOut, [&ownClock](const System& system) {
    return system.isThis             ? ownClock
           : !system.isLocked        ? Cell{"-"}
           : system.role == "master" ? Cell{"master", Style::good}
           : *system.isLocked        ? Cell{"locked", Style::good}
                                     : Cell{"free", Style::bad};
  });
  Add("online", false, 1, [](const System& system) {
    return Cell{OrDash(system.isOnline, [](bool isOnline) { return isOnline ? "yes" : "no"; })};
  });
  const auto duration = [](const System& system, const std::optional<std::int64_t>& value) {
    return system.isThis ? std::string() : Short(OrDash(value, DurationText));
  };
  Add("heard", true, 6, [](const System& system) {
    // In one unit, so that it is calm.
    return Cell{system.silence  ? Fixed(static_cast<double>(*system.silence) / kMicrosecondsOfSecond, 1) + "s"
                : system.isThis ? ""
                                : "-",
                system.silence.value_or(0) > kLongSilenceOfSystem ? Style::bad : Style::plain};
  });
  Add(isWide ? "rtt 50%" : "rtt", true, 4,
      [duration](const System& system) { return Cell{duration(system, system.roundTripMedian)}; });
  Add(isWide ? "rtt 99%" : "99%", true, 2,
      [duration](const System& system) { return Cell{duration(system, system.roundTrip99)}; });
  Add(isWide ? "last start" : "start", true, 5,
      [](const System& system) { return Cell{Short(OrDash(system.late, Signed))}; });

  const auto leastImportant = [this] {
    return std::min_element(mColumns.begin(), mColumns.end(),
                            [](const Column& one, const Column& other) { return one.importance < other.importance; });
  };
  while (width < WidthWithoutName() + kLeastNameWidth && leastImportant()->importance < kNeverLeftOut) {
    mColumns.erase(leastImportant());
    mIsWhole = false;
  }
  const std::size_t room = width > WidthWithoutName() ? width - WidthWithoutName() : 1;
  mIsWhole = mIsWhole && mColumns[kName].width <= room;
  mColumns[kName].width = std::min(mColumns[kName].width, room);
}

template <class CellOf>
void Table::Add(const char* heading, bool isRightAligned, int importance, CellOf cellOf) {
  Column column{.heading = heading,
                .isRightAligned = isRightAligned,
                .importance = importance,
                .cells = {},
                .width = Watch_Text::Width(heading)};
  for (const System& system : mSystems) {
    column.cells.push_back(cellOf(system));
    column.cells.back().text = Clean(column.cells.back().text);
    column.width = std::max(column.width, Watch_Text::Width(column.cells.back().text));
  }
  mColumns.push_back(std::move(column));
}

std::size_t Table::WidthWithoutName() const {
  std::size_t width = mGap * (mColumns.size() - 1);
  for (const Column& column : mColumns) {
    width += column.width;
  }
  return width - mColumns[kName].width;
}

std::string Table::Heading() const {
  std::string line;
  for (const Column& column : mColumns) {
    line += (line.empty() ? "" : std::string(mGap, ' ')) +
            Watch_Text::Fit(column.heading, column.width, column.isRightAligned);
  }
  return line;
}

std::vector<Cell> Table::Row(std::size_t index) const {
  std::vector<Cell> row;
  for (const Column& column : mColumns) {
    if (!row.empty()) {
      row.push_back({std::string(mGap, ' ')});
    }
    const Cell& cell = column.cells[index];
    row.push_back({Watch_Text::Fit(cell.text, column.width, column.isRightAligned), cell.style});
  }
  return row;
}

/// Makes the parts of the screen; each knows nothing of the height.
class Parts {
public:
  Parts(const Status_Snapshot& snapshot, const Watch_Screen::Layout& layout)
      : mSnapshot(snapshot), mWidth(layout.width), mHasColours(layout.hasColours) {}

  std::string Title() const;
  Lines Verdict() const;
  Lines Details() const;
  /// Heading and rows, so many of them; then a line for those that are left out.
  Lines Systems(std::size_t rows) const;
  Lines Notes() const;
  std::string Legend(const std::string& hint) const;
  std::size_t Members() const;

private:
  std::string Styled(const std::string& text, Style style) const;
  void AddDetail(Lines& lines, const char* label, const std::string& text) const;
  void AddClock(Lines& lines, const Trel_ClockStatus& clock) const;
  std::string NoteOf(const System& system) const;

  const Status_Snapshot& mSnapshot;
  std::size_t mWidth;
  bool mHasColours;
};

std::string Parts::Styled(const std::string& text, Style style) const {
  return mHasColours && style != Style::plain && !text.empty()
             ? std::string("\x1b[") + kStyleCodes.at(static_cast<std::size_t>(style)) + "m" + text + "\x1b[0m"
             : text;
}

std::string Parts::Title() const {
  const std::string who = Clean(mSnapshot.name + ", " + mSnapshot.role + " at " + mSnapshot.address);
  const std::string what = Clean("trel " + mSnapshot.program + ", process " + std::to_string(mSnapshot.process));
  const std::size_t width = Watch_Text::Width(what) + 2;
  if (mWidth < Watch_Text::Width(who) + width) {
    return Styled(Watch_Text::Cut(who, mWidth), Style::strong);
  }
  return Styled(Watch_Text::Fit(who, mWidth - width), Style::strong) + "  " + Styled(what, Style::faint);
}

Lines Parts::Verdict() const {
  const std::string verdict = Clean(mSnapshot.verdict);
  Lines lines = Watch_Text::Wrap(verdict + (mSnapshot.why.empty() ? "" : ": " + Clean(mSnapshot.why)), mWidth);
  if (lines.front().starts_with(verdict)) {
    lines.front() = Styled(verdict, StyleOf(mSnapshot.sync)) + lines.front().substr(verdict.size());
  }
  return lines;
}

void Parts::AddDetail(Lines& lines, const char* label, const std::string& text) const {
  lines.push_back(Styled(Watch_Text::Fit(label, std::min(kLabelWidth, mWidth)), Style::faint) +
                  (mWidth > kLabelWidth ? Watch_Text::Cut(text, mWidth - kLabelWidth) : ""));
}

void Parts::AddClock(Lines& lines, const Trel_ClockStatus& clock) const {
  AddDetail(lines, "clock", std::string(clock.GetStateText()) + ": " + clock.GetReasonText());
  AddDetail(lines, "error bound",
            clock.errorBound != Trel_ClockStatus::kNoErrorBound
                ? DurationText(clock.errorBound) + (clock.smallestRoundTrip != 0
                                                        ? ", and up to " + DurationText(clock.smallestRoundTrip / 2) +
                                                              " more if there and back differ"
                                                        : "")
                : "none: it cannot be told how wrong the clock is");
  AddDetail(lines, "measured",
            clock.measurements != 0
                ? DurationText(clock.age) + " ago; " + std::to_string(clock.measurements) + " over " +
                      DurationText(clock.span) + ", " + Fixed(clock.residualDeviation, 1) + " us around a line"
                : "never");
  if (clock.lastRoundTrip != 0) {
    AddDetail(lines, "round trip",
              "last " + DurationText(clock.lastRoundTrip) +
                  (clock.smallestRoundTrip != 0 ? ", shortest " + DurationText(clock.smallestRoundTrip) : "") +
                  ", limit " + DurationText(clock.roundTripLimit));
  }
  if (clock.isLocked) {
    const double offset = clock.offset / kMicrosecondsOfSecond;
    AddDetail(lines, "offset",
              Fixed(std::abs(offset), 6) + (offset < 0 ? " s behind" : " s ahead of") + " the master, runs " +
                  Fixed(std::abs(clock.rate), 1) + " ppm " + (clock.rate < 0 ? "slower" : "faster"));
  }
  AddDetail(lines, "exchanges",
            std::to_string(clock.accepted) + " taken, " + std::to_string(clock.rejectedNotVouchedFor) +
                " not vouched for, " + std::to_string(clock.rejectedRoundTripTooLong) + " above the limit");
  if (clock.jumps != 0) {
    AddDetail(lines, "jumps",
              std::to_string(clock.jumps) + " of one clock against the other, the last by " + Signed(clock.lastJump));
  }
}

Lines Parts::Details() const {
  Lines lines;
  if (mSnapshot.clock) {
    AddClock(lines, *mSnapshot.clock);
  } else {
    AddDetail(lines, "clock", "this system has the clock that the others follow");
  }
  AddDetail(lines, "running time",
            mSnapshot.runningTime ? Fixed(static_cast<double>(*mSnapshot.runningTime) / kMicrosecondsOfSecond, 1) + " s"
                                  : "not known while the clock is not locked");
  AddDetail(lines, "in control",
            mSnapshot.inControl ? Clean(mSnapshot.NameOf(*mSnapshot.inControl)) : "nobody that this system knows of");
  return lines;
}

std::size_t Parts::Members() const {
  return static_cast<std::size_t>(std::count_if(mSnapshot.systems.begin(), mSnapshot.systems.end(), IsMember));
}

Lines Parts::Systems(std::size_t rows) const {
  std::vector<System> systems;
  std::copy_if(mSnapshot.systems.begin(), mSnapshot.systems.end(), std::back_inserter(systems), IsMember);
  std::size_t leftOut = 0;
  std::size_t inTrouble = 0;
  if (systems.size() > rows) {
    leftOut = systems.size() - rows;
    std::stable_partition(systems.begin(), systems.end(), IsInTrouble);
    const auto end = systems.begin() + static_cast<std::ptrdiff_t>(rows);
    inTrouble = static_cast<std::size_t>(std::count_if(end, systems.end(), IsInTrouble));
    systems.erase(end, systems.end());
  }
  // Its state tells more of this system's own clock than the lock.
  const Cell ownClock = mSnapshot.clock ? Cell{mSnapshot.clock->GetStateText(), StyleOf(mSnapshot.sync)}
                                        : Cell{mSnapshot.role, Style::good};
  const Table wide(systems, ownClock, mWidth, true);
  const Table table = wide.IsWhole() ? wide : Table(systems, ownClock, mWidth, false);
  Lines lines = {Styled(Watch_Text::Cut(table.Heading(), mWidth), Style::faint)};
  for (std::size_t index = 0; index < systems.size(); ++index) {
    std::string plain;
    std::string line;
    for (const auto& [text, style] : table.Row(index)) {
      plain += text;
      line += Styled(text, style);
    }
    lines.push_back(Watch_Text::Width(plain) <= mWidth ? line : Watch_Text::Cut(plain, mWidth));
  }
  if (leftOut != 0) {
    lines.push_back(Watch_Text::Cut(
        "  and " + std::to_string(leftOut) + " more, " +
            (inTrouble == 0 ? "nothing wrong with them" : std::to_string(inTrouble) + " of them not locked or silent"),
        mWidth));
  }
  return lines;
}

std::string Parts::NoteOf(const System& system) const {
  std::string note;
  const auto add = [&note](const std::string& text) { note += (note.empty() ? "" : ", ") + text; };
  if (!IsMember(system)) {
    if (system.HasLeftLately()) {
      add((system.isLost ? system.lastLoss.value_or("lost") : "left the link") + ", " + DurationText(*system.gone) +
          " ago");
    }
    return note;
  }
  if (system.silence.value_or(0) > kLongSilenceOfSystem) {
    add("has not been heard for " + DurationText(*system.silence));
  }
  if (system.losses != 0 && !system.isThis) {
    add("lost " + (system.losses == 1 ? std::string("once") : std::to_string(system.losses) + " times") + " so far" +
        (system.lastLoss ? ", last: " + *system.lastLoss : ""));
  }
  if (system.waitingSenders != 0) {
    add("does not keep up: " + std::to_string(system.sentInFlight) + " commands not finished, " +
        std::to_string(system.waitingSenders) + (system.waitingSenders == 1 ? " sender waits" : " senders wait"));
  }
  if (!system.isTakingPart.value_or(true)) {
    add("does not play along");
  }
  if (system.isRecording.value_or(false)) {
    add("records");
  }
  if (system.isSoloed.value_or(false)) {
    add("has a track soloed");
  }
  return note;
}

Lines Parts::Notes() const {
  Lines lines;
  const auto add = [&](const std::string& text) { lines.push_back(Watch_Text::Cut(Clean(text), mWidth)); };
  for (const System& system : mSnapshot.systems) {
    if (const std::string note = NoteOf(system); !note.empty()) {
      add(mSnapshot.NameOf(system.address) + ": " + note);
    }
  }
  const bool isFarFromSome = std::any_of(mSnapshot.systems.begin(), mSnapshot.systems.end(), [](const System& system) {
    return IsMember(system) && !system.isThis && !system.isConnected;
  });
  if (isFarFromSome) {
    add("-: not told to this system; the master hears it, and trel watch shows it there");
  }
  std::string dropped;
  for (const auto& [reason, count] : mSnapshot.dropped) {
    std::string words = reason;
    std::replace(words.begin(), words.end(), '_', ' ');
    dropped += (dropped.empty() ? "" : ", ") + std::to_string(count) + " " + words;
  }
  if (!dropped.empty()) {
    add("dropped since the start: " + dropped);
  }
  return lines;
}

std::string Parts::Legend(const std::string& hint) const {
  return Styled(Watch_Text::Cut("> this system   * in control   rtt: round trip, median and 99%" +
                                    (hint.empty() ? "" : "   " + hint),
                                mWidth),
                Style::faint);
}

} // namespace

Lines Watch_Screen::Lines(const Status_Snapshot& snapshot, const Layout& layout) {
  const Parts parts(snapshot, layout);
  const std::size_t members = parts.Members();
  const ::Lines verdict = parts.Verdict();
  ::Lines details = parts.Details();
  ::Lines notes = parts.Notes();
  const std::size_t height = layout.height != 0 ? layout.height : static_cast<std::size_t>(-1);

  // Title and legend, verdict, heading, and empty lines between the parts.
  std::size_t gaps = notes.empty() ? 4 : 5;
  std::size_t fixed = 3 + verdict.size();
  const auto total = [&](std::size_t rows) { return fixed + gaps + details.size() + notes.size() + rows; };
  if (total(std::min(members, kFewestRows)) > height) {
    gaps = 0;
  }
  const std::size_t fewest = std::min(members, kFewestRows);
  while (total(fewest) > height && notes.size() > 1) {
    notes.pop_back();
  }
  while (total(fewest) > height && details.size() > 2) {
    details.pop_back();
  }
  std::size_t rows = members;
  if (total(members) > height) {
    const std::size_t others = total(0) + 1; // and the line for those that are left out
    rows = height > others ? height - others : 0;
  }

  ::Lines lines;
  const auto add = [&](const ::Lines& part) {
    if (gaps != 0 && !lines.empty() && !part.empty()) {
      lines.emplace_back();
    }
    lines.insert(lines.end(), part.begin(), part.end());
  };
  add({parts.Title()});
  add(verdict);
  add(details);
  add(parts.Systems(rows));
  add(notes);
  add({parts.Legend(layout.hint)});
  if (lines.size() > height) {
    lines.resize(height);
  }
  return lines;
}
