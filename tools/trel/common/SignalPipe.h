#pragma once

#include <array>
#include <atomic>
#include <csignal>

/// Signals that ask the program to end, as bytes in a pipe while the object lives. One object at a time.
class SignalPipe {
public:
  SignalPipe();
  ~SignalPipe();
  SignalPipe(const SignalPipe&) = delete;
  SignalPipe& operator=(const SignalPipe&) = delete;

  /// For poll: readable when a signal has come.
  static int Descriptor() { return sEnds[0]; }
  /// The signal that has come, or 0.
  static int Take();
  /// Whether one has come that nobody has taken. Thread-safe.
  static bool IsWaiting();

private:
  // SIGPIPE is ignored: whoever reads what the program writes may have ended.
  static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
  static std::atomic<int> sEnds[2];

  std::array<struct sigaction, kSignals.size()> mBefore = {};
};
