#include "Demo_Event.h"

#include <nlohmann/json.hpp>

#include <cerrno>

#include <unistd.h>

using Json = nlohmann::json;

// The names are found by the serialisation.
NLOHMANN_JSON_SERIALIZE_ENUM(Demo_Event::Kind, {
                                                   {Demo_Event::Kind::unknown, "unknown"},
                                                   {Demo_Event::Kind::listening, "listening"},
                                                   {Demo_Event::Kind::linked, "linked"},
                                                   {Demo_Event::Kind::locked, "locked"},
                                                   {Demo_Event::Kind::unlocked, "unlocked"},
                                                   {Demo_Event::Kind::settling, "settling"},
                                                   {Demo_Event::Kind::primed, "primed"},
                                                   {Demo_Event::Kind::ready, "ready"},
                                                   {Demo_Event::Kind::start, "start"},
                                                   {Demo_Event::Kind::started, "started"},
                                                   {Demo_Event::Kind::roundOver, "round_over"},
                                                   {Demo_Event::Kind::lost, "lost"},
                                                   {Demo_Event::Kind::failure, "failure"},
                                                   {Demo_Event::Kind::clock, "clock"},
                                                   {Demo_Event::Kind::clockError, "clock_error"},
                                                   {Demo_Event::Kind::done, "done"},
                                               })
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Demo_Percentiles, p50, p99, max)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Demo_Event, kind, rawTime, address, value, text, clockError, errorBound, clock)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Demo_Finish, epoch)

namespace {

template <class Message>
std::optional<Message> Parse(const std::string& line) {
  try {
    return Json::parse(line).get<Message>();
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

std::string Line(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n'; }

} // namespace

std::string Demo_Event::ToLine() const { return Line(*this); }

std::optional<Demo_Event> Demo_Event::FromLine(const std::string& line) {
  auto event = Parse<Demo_Event>(line);
  return event && event->kind != Kind::unknown ? event : std::nullopt;
}

std::string Demo_Finish::ToLine() const { return Line(*this); }

std::optional<Demo_Finish> Demo_Finish::FromLine(const std::string& line) { return Parse<Demo_Finish>(line); }

void Demo_EventWriter::Write(const Demo_Event& event) {
  const std::string line = event.ToLine();
  const std::lock_guard lock(mMutex);
  for (std::size_t written = 0; written < line.size();) {
    const ssize_t count = write(STDOUT_FILENO, line.data() + written, line.size() - written);
    if (count < 0 && errno != EINTR) {
      return;
    }
    written += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
}
