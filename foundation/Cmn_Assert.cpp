#include <trel/Cmn_Assert.h>

#include <atomic>
#include <cstdio>

namespace {

// One call writes the whole line, so that lines of several threads do not mix.
void WriteToStandardError(const char* text, std::int32_t line) {
  std::fprintf(stderr, "trel: %s (line %ld)\n", text, static_cast<long>(line));
}

constinit std::atomic<Cmn_Assert::Sink> sSink{&WriteToStandardError};

} // namespace

void Cmn_Assert::HandleMagicAssert(bool condition, const char* text, std::int32_t line) noexcept {
  if (condition) {
    return;
  }
  try {
    sSink.load(std::memory_order_acquire)(text != nullptr ? text : "", line);
  } catch (...) { // there is no other place to report to
  }
}

void Cmn_Assert::SetSink(Sink sink) noexcept {
  sSink.store(sink != nullptr ? sink : &WriteToStandardError, std::memory_order_release);
}
