#pragma once

#include "tools/trel/report/Report_Collector.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

/// Says what happens in the demonstration, with the time since its start, and keeps it for a report.
class Demo_Log {
public:
  /// @param isReported whether there is to be a report
  Demo_Log(std::ostream& out, bool isReported);

  /// Several values as one text.
  template <class... Parts>
  static std::string Text(const Parts&... parts) {
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
  }

  // Times are raw times.
  void Say(std::int64_t time, const std::string& text);
  void Fail(std::int64_t time, const std::string& text);
  /// For the report alone; needs no more than the fields that are particular to the event.
  void Record(const char* event, std::int64_t time, nlohmann::json fields);

  double MillisecondsSinceStart(std::int64_t time) const;
  std::int64_t Start() const { return mStart; }
  const std::vector<std::string>& Failures() const { return mFailures; }
  const Report_Data& Report() const { return mReport.Data(); }

private:
  void Print(std::int64_t time, const std::string& text);

  std::ostream& mOut;
  const bool mIsReported;
  const std::int64_t mStart; // raw time
  std::vector<std::string> mFailures;
  Report_Collector mReport;
};
