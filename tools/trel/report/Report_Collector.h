#pragma once

#include "tools/trel/report/Report_Data.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <istream>
#include <string>

/// Makes a report's data from a recording: JSON objects, one on each line, each with "event" and "time_us" (raw time).
///
/// | event | other fields |
/// |---|---|
/// | recording | title, subtitle |
/// | system | address, name, role |
/// | ready | the same: of the system that records; what has no address concerns it |
/// | clock | address, those of ClockFields; error_us where the true running time is known |
/// | clock | address, locked or on: where no more is known of a clock |
/// | started | address, running_time, late_us |
/// | together | running_time, late_us: an object with one of each address |
/// | failure, lost, start_failed | text |
///
/// Every event with a "text" is also a note. Other events and fields are passed over, and so is what has another type
/// than it should have.
class Report_Collector {
public:
  using Json = nlohmann::json;

  void Take(const Json& event);
  /// A whole recording. Lines that are no events are counted, as the last one of a program that was killed may be.
  void ReadFrom(std::istream& recording);

  const Report_Data& Data() const { return mData; }
  /// Whether there was anything to report.
  bool IsEmpty() const { return mEvents == 0; }
  std::int64_t LinesPassedOver() const { return mLinesPassedOver; }

private:
  Report_Data::System* SystemOf(const Json& event);
  void TakeSystem(Report_Data::System& system, const Json& event);
  void TakeClock(Report_Data::System& system, const Json& event, std::int64_t time);
  static void TakeRoundTrip(Report_Data::System& system, const Json& event);
  void TakeState(Report_Data::System& system, std::int64_t time, const std::string& state, const std::string& reason);
  void TakeStarts(const Json& event, std::int64_t time);
  void TakeStart(const std::string& address, const Json& event, const Json& late, std::int64_t time);
  void TakeNote(const Json& event, std::int64_t time, bool isFailure);

  Report_Data mData;
  std::string mRecorder; // address; may be empty
  std::int64_t mEvents = 0;
  std::int64_t mLinesPassedOver = 0;
};
