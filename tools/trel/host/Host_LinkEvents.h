#pragma once

#include "tools/trel/host/Host_Event.h"

#include <trel/host/Trel_LinkEvent.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

/// What the link tells, as this program tells it: by the names and fields that programs know, in the words of the link,
/// with what there is to add of the options of this program.
class Host_LinkEvents {
public:
  explicit Host_LinkEvents(bool isMaster) : mIsMaster(isMaster) {}

  /// In the order in which they come, on one thread.
  Host_Event Translate(const Trel_LinkEvent& event);

  // These are thread-safe.
  /// While this system is not linked: why, as far as the link has told.
  std::string WhyNotLinked() const;
  /// Running time of the last start that is over: at the master, when all is known of it, elsewhere, when this system
  /// has begun.
  std::optional<std::int64_t> LastPlayed() const;

private:
  void Note(const Trel_LinkEvent& event, const std::string& text);

  const bool mIsMaster;
  std::string mLastFailure;
  mutable std::mutex mMutex; // guards what follows
  std::string mWhyNotLinked;
  std::optional<std::int64_t> mLastPlayed;
};
