#include "tools/trel/host/Host_Starts.h"

#include <trel/Sys_Clock.h>
#include <trel/host/Trel_LinkSession.h>
#include <trel/host/Trel_StartHelper.h>

namespace {

std::string Milliseconds(std::int64_t microseconds) { return std::to_string(microseconds / 1000) + " ms"; }

} // namespace

Host_Starts::Host_Starts(Trel_LinkSession& session, bool isMaster, std::int64_t maxLate)
    : mSession(session), mIsMaster(isMaster), mMaxLate(maxLate),
      mPlayer([this](std::int64_t runningTime) { return mSession.GetHostTime(runningTime); },
              [this](std::int64_t runningTime) { return WaitFor(runningTime); },
              [this](std::int64_t runningTime, std::int64_t rawTime) { Report(runningTime, rawTime); }) {}

bool Host_Starts::Begin(const Trel_AgreedStart& start) {
  if (IsTooLate(start.runningTime, start.late)) {
    return false;
  }
  mPlayer.Start(start.runningTime);
  return true;
}

bool Host_Starts::WaitFor(std::int64_t runningTime) {
  const auto hostTime = mSession.GetHostTime(runningTime);
  bool isTime = hostTime.has_value();
  if (mIsMaster && isTime) {
    Trel_StartHelper::WaitUntilHostTime(*hostTime);
  } else if (isTime) {
    isTime = Trel_StartHelper::WaitUntilRunningTime(runningTime);
  }
  if (!isTime) {
    mSession.ReportNoStart(runningTime, "the clock is not locked to the master's any more");
  }
  return isTime;
}

void Host_Starts::Report(std::int64_t runningTime, std::int64_t rawTime) {
  const std::int64_t hostTime = Sys_Clock::FromRaw(rawTime);
  const auto begun = mSession.GetRunningTime(hostTime);
  {
    const std::lock_guard lock(mMutex);
    mBegun = {runningTime, rawTime};
  }
  if (!begun) {
    mSession.ReportNoStart(runningTime, "the clock has lost the master's in that moment");
  } else if (IsTooLate(runningTime, *begun - runningTime)) {
    mSession.ReportNoStart(runningTime, "this machine was held up until the start was " +
                                            Milliseconds(*begun - runningTime) + " late" + LimitText());
  } else {
    mSession.ReportStart(runningTime, hostTime);
  }
}

bool Host_Starts::IsTooLate(std::int64_t runningTime, std::int64_t late) {
  if (late <= mMaxLate) {
    return false;
  }
  const std::lock_guard lock(mMutex);
  mTooLate = {runningTime, late};
  return true;
}

std::optional<std::int64_t> Host_Starts::TooLate(std::int64_t runningTime) const {
  const std::lock_guard lock(mMutex);
  return mTooLate && mTooLate->first == runningTime ? std::optional(mTooLate->second) : std::nullopt;
}

std::optional<std::int64_t> Host_Starts::BegunAt(std::int64_t runningTime) const {
  const std::lock_guard lock(mMutex);
  return mBegun && mBegun->first == runningTime ? std::optional(mBegun->second) : std::nullopt;
}

std::string Host_Starts::LimitText() const {
  return ", and this system makes none that is more than " + Milliseconds(mMaxLate) + " late (--max-late)";
}
