#pragma once

#include "Capture_Writer.h"
#include "Demo_Event.h"
#include "Demo_NodeOptions.h"

#include <trel/TCPE_CommManager.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

/// What master and satellite of the demonstration have in common: the engine, the idle loop, the handlers, the pipes
/// to the coordinator. One object a process.
class Demo_Node {
public:
  Demo_Node(const Demo_Node&) = delete;
  Demo_Node& operator=(const Demo_Node&) = delete;

protected:
  using SteadyClock = std::chrono::steady_clock;

  /// From here on the end of the coordinator ends this process.
  explicit Demo_Node(const Demo_NodeOptions& options);
  virtual ~Demo_Node();

  /// Runs on a handler thread of the engine.
  virtual void OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t address) = 0;

  /// The first step, before the handlers: platform, options and role.
  void Prepare();
  /// After the handlers are set. A failure has been told.
  bool StartEngine();
  /// No handler is called afterwards.
  void StopEngine();

  /// Idles until the predicate, which is evaluated under mMutex, holds or the time is over. Changes of what it depends
  /// on are told through mChanged.
  template <class Predicate>
  bool IdleUntil(SteadyClock::time_point deadline, Predicate predicate) {
    do {
      Idle();
      std::unique_lock lock(mMutex);
      if (mChanged.wait_for(lock, kIdlePeriod, predicate)) {
        return true;
      }
    } while (SteadyClock::now() < deadline);
    return false;
  }

  /// A copy of something that mMutex guards.
  template <class Value>
  Value Locked(const Value& value) {
    const std::lock_guard lock(mMutex);
    return value;
  }

  /// Tells the coordinator; fills in the time and, if it is 0, this node's address.
  void Emit(Demo_Event event);
  void EmitFailure(const std::string& text);

  const Demo_NodeOptions mOptions;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::optional<Demo_Finish> mFinish; ///< what the coordinator has said; guarded by mMutex

private:
  static constexpr std::chrono::milliseconds kIdlePeriod{20};

  static void Idle();

  static Demo_Node* sNode;
  Demo_EventWriter mEvents;
  std::optional<Capture_Writer> mCapture;
};
