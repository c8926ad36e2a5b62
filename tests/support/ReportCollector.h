#pragma once

#include <trel/Cmn_Assert.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// Collects the reports of Cmn_Assert while it lives; one at a time.
class ReportCollector {
public:
  ReportCollector() {
    Texts().clear();
    Cmn_Assert::SetSink(&Collect);
  }
  ~ReportCollector() { Cmn_Assert::SetSink(nullptr); }
  ReportCollector(const ReportCollector&) = delete;
  ReportCollector& operator=(const ReportCollector&) = delete;

  /// What has been reported since the last call.
  std::vector<std::string> Take() {
    const std::lock_guard lock(Mutex());
    return std::exchange(Texts(), {});
  }

private:
  static std::mutex& Mutex() {
    static std::mutex sMutex;
    return sMutex;
  }

  static std::vector<std::string>& Texts() {
    static std::vector<std::string> sTexts;
    return sTexts;
  }

  static void Collect(const char* text, std::int32_t /*line*/) {
    const std::lock_guard lock(Mutex());
    Texts().emplace_back(text);
  }
};
