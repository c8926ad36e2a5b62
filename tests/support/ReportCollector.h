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
    sTexts.clear();
    Cmn_Assert::SetSink([](const char* text, std::int32_t /*line*/) {
      const std::lock_guard lock(sMutex);
      sTexts.emplace_back(text);
    });
  }
  ~ReportCollector() { Cmn_Assert::SetSink(nullptr); }
  ReportCollector(const ReportCollector&) = delete;
  ReportCollector& operator=(const ReportCollector&) = delete;

  /// What has been reported since the last call.
  std::vector<std::string> Take() {
    const std::lock_guard lock(sMutex);
    return std::exchange(sTexts, {});
  }

private:
  static inline std::mutex sMutex;
  static inline std::vector<std::string> sTexts;
};
