#pragma once

#include "Demo_Statistics.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

/// What a system of the demonstration tells the coordinator: one JSON object on a line of its standard output.
struct Demo_Event {
  enum class Kind {
    unknown,
    listening, ///< master: the engine runs; value: raw time of running time 0
    linked,    ///< satellite: connected to the master
    locked,    ///< satellite: its clock is locked for the first time
    unlocked,  ///< master: the satellite `address` reports that its clock is locked no longer
    settling,  ///< master: all clocks are locked; value: microseconds until the first round
    primed,    ///< master: everybody has been told to prime; value: number of the round, from 1
    ready,     ///< master: `address` has completed priming
    start,     ///< master: everybody has been told to start; value: the running time agreed on
    started,   ///< all: rawTime is the actual start; value: the running time agreed on
    roundOver, ///< master: all reports of the round are there, or will not come
    lost,      ///< the connection with `address` has ended; text: why
    failure,   ///< text: what did not happen
    clock, ///< satellite: a sample of its clock; its fields as Report_ClockFields has them, but error_us: plus raw time
    clockError, ///< satellite: clockError and errorBound hold the figures
    done,       ///< master: all rounds are over
  };

  Kind kind = Kind::unknown;
  std::int64_t rawTime = 0; ///< when it happened, microseconds of Sys_Clock::RawMicroseconds
  std::uint32_t address = 0;
  std::int64_t value = 0;
  std::string text = {};
  Demo_Percentiles clockError = {};
  Demo_Percentiles errorBound = {};
  nlohmann::json clock = {};

  std::string ToLine() const;
  /// Nothing for a line that is no event.
  static std::optional<Demo_Event> FromLine(const std::string& line);
};

/// What the coordinator tells a system, one JSON object on a line of its standard input: finish in good order.
struct Demo_Finish {
  std::int64_t epoch = 0; ///< raw time of running time 0

  std::string ToLine() const;
  static std::optional<Demo_Finish> FromLine(const std::string& line);
};

/// Writes lines to standard output, each as a whole. Thread-safe. Errors are ignored: when nobody reads any more, the
/// end of standard input ends the process.
class Demo_EventWriter {
public:
  void Write(const Demo_Event& event);

private:
  std::mutex mMutex;
};
