#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// What a running host tells of a system of the link, or of one that has left it. Times are microseconds. What the host
/// does not hear is nothing: the satellites of a star hear the master alone.
struct Status_System {
  std::int64_t order = 0;
  std::string name = {};
  std::string address = {};
  std::string role = {};
  bool isThis = false;
  bool isInControl = false;
  bool isConnected = false; ///< with this system
  std::optional<std::string> transport = {};
  std::optional<bool> isLocked = {};
  std::optional<bool> isTakingPart = {};
  std::optional<bool> isOnline = {};
  std::optional<bool> isRecording = {};
  std::optional<bool> isSoloed = {};
  std::optional<std::int64_t> silence = {}; ///< since it was last heard
  std::optional<std::int64_t> gone = {};    ///< since its connection ended
  bool isLost = false;                      ///< it did not end in order, and there is no other yet
  std::int64_t roundTrips = 0;              ///< that were measured
  std::optional<std::int64_t> roundTripMedian = {};
  std::optional<std::int64_t> roundTrip99 = {};
  std::optional<std::int64_t> late = {}; ///< its last actual start, after the agreed one
  std::int64_t losses = 0;
  std::optional<std::string> lastLoss = {}; ///< why
  // Commands to it and from it, as in TCPE_CommandCount.
  std::int64_t sent = 0;
  std::int64_t sentFinished = 0;
  std::int64_t sentRefused = 0;
  std::int64_t sentInFlight = 0;
  std::int64_t sentAbandoned = 0;
  std::int64_t received = 0;
  std::int64_t receivedFinished = 0;
  std::int64_t receivedRefused = 0;
  std::int64_t receivedInFlight = 0;
  std::int64_t waitingSenders = 0; ///< until it has finished others

  /// Is not connected any more, and not for so long that it is history.
  bool HasLeftLately() const {
    constexpr std::int64_t kLongAgo = 600'000'000; // microseconds
    return gone.value_or(kLongAgo) < kLongAgo;
  }
};
