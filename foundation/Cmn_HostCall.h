#pragma once

#include <cstdint>
#include <exception>
#include <utility>

/// The way into code of the host: every handler, callback, hook, log and tap is called through here. What one throws
/// ends here; it is counted and, for a kind that is not called under locks, reported as an assertion: the first time,
/// and then whenever their number has doubled, so that a peer which makes a handler throw does not fill a log.
///
/// Thread-safe. Costs nothing unless something is thrown.
class Cmn_HostCall {
public:
  enum class Kind : std::uint8_t { handler, networkError, hook, session, commandLog, trace, byteTap };

  /// False when the call threw.
  template <class Call>
  static bool Run(Kind kind, Call&& call) noexcept {
    try {
      std::forward<Call>(call)();
      return true;
    } catch (const std::exception& exception) {
      Failed(kind, exception.what());
    } catch (...) {
      Failed(kind, "something that is no std::exception");
    }
    return false;
  }

  /// What the call answers; `otherwise` when it threw.
  template <class Answer, class Call>
  static Answer Ask(Kind kind, Answer otherwise, Call&& call) noexcept {
    Run(kind, [&] { otherwise = std::forward<Call>(call)(); });
    return otherwise;
  }

  /// Of this process, since it began.
  static std::uint64_t CountFailures();

private:
  static void Failed(Kind kind, const char* what) noexcept;
};
