#include "tools/trel/demo/Demo_Log.h"

#include <trel/Sys_Clock.h>

#include <iomanip>
#include <utility>

Demo_Log::Demo_Log(std::ostream& out, bool isReported)
    : mOut(out), mIsReported(isReported), mStart(Sys_Clock::RawMicroseconds()) {}

void Demo_Log::Say(std::int64_t time, const std::string& text) {
  Record("note", time, {{"text", text}});
  Print(time, text);
}

void Demo_Log::Fail(std::int64_t time, const std::string& text) {
  mFailures.push_back(text);
  Record("failure", time, {{"text", text}});
  Print(time, "FAILED: " + text);
}

void Demo_Log::Record(const char* event, std::int64_t time, nlohmann::json fields) {
  if (mIsReported) {
    fields["event"] = event;
    fields["time_us"] = time;
    mReport.Take(fields);
  }
}

double Demo_Log::MillisecondsSinceStart(std::int64_t time) const { return static_cast<double>(time - mStart) / 1000; }

void Demo_Log::Print(std::int64_t time, const std::string& text) {
  mOut << '[' << std::fixed << std::setprecision(3) << std::setw(8) << MillisecondsSinceStart(time) / 1000 << " s] "
       << text << std::endl;
}
