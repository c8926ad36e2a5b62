#pragma once

#include "tcpe/engine/TCPE_Dispatcher.h"
#include "tcpe/engine/TCPE_Job.h"
#include "tcpe/engine/TCPE_QueueLoad.h"

#include <trel/TCPE_EngineSnapshot.h>
#include <trel/TCPE_Types.h>

#include <cstdint>
#include <memory>

/// How what arrives comes to the host: commands, and the ends of connections, of each peer in their order.
/// Thread-safe.
class TCPE_Delivery {
public:
  TCPE_Delivery() = default;
  virtual ~TCPE_Delivery() = default;
  TCPE_Delivery(const TCPE_Delivery&) = delete;
  TCPE_Delivery& operator=(const TCPE_Delivery&) = delete;

  /// Throws std::system_error when there are no threads to be had.
  /// @param engine kept by whatever still runs
  virtual void Start(std::shared_ptr<void> engine) = 0;
  /// Drops what waits, and gives what the host has begun with `timeout` microseconds to end.
  virtual void Stop(std::int64_t timeout) = 0;

  /// Takes what came from a peer; what waits of that peer now. Whether there is room has been asked before.
  virtual TCPE_QueueLoad Deliver(std::uint32_t address, TCPE_JobList received) = 0;
  /// Has the callback called.
  virtual void DeliverError(ETCPE_NetworkError error, std::uint32_t address) = 0;
  /// Whether a peer has as much waiting as it may, or has nothing waiting and too many others have.
  virtual bool IsFull(std::uint32_t address) const = 0;
  virtual TCPE_QueueLoad GetQueueLoad(std::uint32_t address) const = 0;
  virtual TCPE_HandlerLoad GetLoad(std::uint32_t address) const = 0;

  /// Whether asynchronous commands are delivered that nobody has registered for.
  virtual bool TakesUnhandled() const = 0;
  /// Whether this thread may wait until there is room for what it sends.
  virtual bool MayWaitHere() const = 0;
  /// Whether this thread is inside what Stop waits for.
  virtual bool IsOnOwnThread() const = 0;

  /// The next command for the host to handle; null when there is none.
  virtual TCPE_Command* Take() = 0;
  /// Takes a command back from the host; null when it has no such command in hand.
  virtual TCPE_ReceivedCommand::Pointer Return(TCPE_Command* command) = 0;
};
