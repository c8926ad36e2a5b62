#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

/// Sends what has to be acknowledged, in order, on a thread of its own: a system that does not answer then holds up
/// neither the user nor the handlers of the engine.
class Host_Sender {
public:
  Host_Sender();
  /// What has not been sent yet is not sent any more.
  ~Host_Sender();
  Host_Sender(const Host_Sender&) = delete;
  Host_Sender& operator=(const Host_Sender&) = delete;

  /// Thread-safe, does not wait. False when too much waits already; then the job is dropped.
  bool Send(std::function<void()> job);

private:
  void Run();

  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<std::function<void()>> mJobs;
  bool mEnding = false;
  std::thread mThread;
};
