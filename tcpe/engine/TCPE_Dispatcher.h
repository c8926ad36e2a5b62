#pragma once

#include "tcpe/TCPE_CommandCodec.h"
#include "tcpe/engine/TCPE_BlockStore.h"
#include "tcpe/engine/TCPE_Job.h"
#include "tcpe/net/TCPE_Connection.h"

#include <trel/TCPE_CommManager.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

class TCPE_Command;
class TCPE_CommTask;

/// A received command in its block, and where its reply goes.
class TCPE_ReceivedCommand final : public TCPE_Job {
public:
  using Pointer = std::unique_ptr<TCPE_ReceivedCommand, Discarder>;

  /// Runs the host's handler for a command.
  class Handler {
  public:
    virtual void Handle(TCPE_ReceivedCommand& received) = 0;

  protected:
    ~Handler() = default;
  };
  /// What commands of one batch have in common.
  struct Batch {
    std::shared_ptr<TCPE_BlockStore> blocks; ///< where those that have an origin are taken from, and where they go
    std::shared_ptr<TCPE_Connection> origin{};
    Handler* handler = nullptr;
  };

  static Pointer Make(std::shared_ptr<const Batch> batch, const TCPE_FrameHeader& header, Kind kind);

  void* Block();
  /// Takes over the command that was built in the block.
  void SetCommand(TCPE_Command* command) { mCommand = command; }
  TCPE_Command* Command() const override { return mCommand; }
  const TCPE_FrameHeader& Header() const { return mHeader; }
  const std::shared_ptr<TCPE_Connection>& Origin() const { return mBatch->origin; }
  bool IsReplyWanted() const { return mHeader.Has(kTCPE_Flag_ReplyWanted); }
  void Run() override { mBatch->handler->Handle(*this); }

private:
  TCPE_ReceivedCommand(std::shared_ptr<const Batch> batch, const TCPE_FrameHeader& header, Kind kind);
  ~TCPE_ReceivedCommand() override;
  void Discard() override;

  std::shared_ptr<const Batch> mBatch;
  TCPE_FrameHeader mHeader;
  TCPE_Command* mCommand = nullptr;
};

/// What happens to a frame that arrived: validate, construct, decode, answer in place or hand on, reply.
class TCPE_Dispatcher {
public:
  using ReceivedPointer = TCPE_ReceivedCommand::Pointer;

  /// Takes commands that are not answered in place.
  class Receiver : public TCPE_ReceivedCommand::Handler {
  public:
    /// Told of a connect or disconnect command before it is delivered.
    virtual void OnConnectionCommand(const TCPE_ReceivedCommand& received) = 0;
    /// Takes the command; false, and it does not, when there is no room.
    virtual bool Deliver(ReceivedPointer& received) = 0;
    /// Told of a command that arrived, and once of its end: it was handled, or dropped.
    virtual void OnArrived(TCPE_Connection& connection, TCPE_ReceivedCommand::Kind kind) = 0;
    virtual void OnFinished(const std::shared_ptr<TCPE_Connection>& connection, TCPE_ReceivedCommand::Kind kind,
                            bool wasHandled) = 0;
    /// Whether asynchronous commands are delivered that nobody has registered for.
    virtual bool TakesUnhandled() const = 0;

  protected:
    ~Receiver() = default;
  };

  TCPE_Dispatcher(TCPE_CommManager& manager, TCPE_CommTask& task, Receiver& receiver);

  // On the network thread.
  void OnFrame(const std::shared_ptr<TCPE_Connection>& connection, const TCPE_FrameHeader& header,
               std::span<const std::byte> payload, const TCPE_Arrival& arrival);
  /// A connect or disconnect command: nobody waits for a reply, and it is delivered also to a full queue.
  void OnConnectionFrame(const std::shared_ptr<TCPE_Connection>& connection, TCPE_FrameHeader header,
                         std::span<const std::byte> payload);
  /// Whether a frame decodes to a command.
  bool IsSound(const TCPE_FrameHeader& header, std::span<const std::byte> payload) const;
  /// A command of its class, as it is before it is filled; null when there is no such class. From any thread.
  ReceivedPointer Fresh(TCPE_eCmd wireType) const;
  /// What comes from now on belongs to another batch: those who end the commands of one do not contend with the one who
  /// makes those of the next.
  void EndBatch() { mBatch.reset(); }
  /// A command has been handled: sends its reply, if one is wanted. From any thread.
  void Finish(TCPE_ReceivedCommand& received);

  /// What is stamped on what leaves and arrives.
  ETCPE_SystemType GetLocalSystemType() const { return mLocalSystemType; }
  void SetLocalSystemType(ETCPE_SystemType type) { mLocalSystemType = type; }

  void SetCommandLog(TCPE_CommManager::CommandLogProc log) { mLog = log; }
  enum class LogEvent : std::uint8_t { sent, received, replied, answered };
  /// One line for the command log, if there is one and the command may be logged.
  void Log(LogEvent event, const TCPE_Command& command, std::uint32_t peer) const;

  void LogLoss(ETCPE_NetworkError error, std::uint32_t peer) const;

  TCPE_Counters GetCounters() const;

private:
  using Connection = std::shared_ptr<TCPE_Connection>;
  using Kind = TCPE_ReceivedCommand::Kind;

  void Handle(const Connection& connection, const TCPE_FrameHeader& header, std::span<const std::byte> payload,
              Kind kind, const TCPE_Arrival& arrival);
  /// The command class of a wire type, built in the block; null when there is none.
  TCPE_Command* Build(TCPE_eCmd wireType, void* block) const;
  /// Null when the command is to be dropped; then it has been counted, and answered if a reply is wanted.
  ReceivedPointer Construct(const std::shared_ptr<TCPE_Connection>& connection, const TCPE_FrameHeader& header,
                            std::span<const std::byte> payload, Kind kind, const TCPE_Arrival& arrival);
  void Reply(TCPE_ReceivedCommand& received);
  bool AnswerInPlace(TCPE_ReceivedCommand& received);
  /// `command`: null when there is none to build of the frame.
  void Drop(const Connection& connection, const TCPE_FrameHeader& header, Kind kind, const TCPE_Command* command,
            TCPE_CommErr error, std::atomic<std::uint64_t>& counter);
  static std::string LineOf(LogEvent event, const TCPE_Command& command, std::uint32_t peer);

  TCPE_CommManager& mManager;
  TCPE_CommTask& mTask;
  Receiver& mReceiver;
  const std::shared_ptr<TCPE_BlockStore> mBlocks; ///< of the network thread
  const std::shared_ptr<const TCPE_ReceivedCommand::Batch> mWithoutOrigin;
  std::shared_ptr<const TCPE_ReceivedCommand::Batch> mBatch;
  std::atomic<ETCPE_SystemType> mLocalSystemType;
  std::atomic<TCPE_CommManager::CommandLogProc> mLog = nullptr;
  std::atomic<std::uint64_t> mUnknownCommands = 0;
  std::atomic<std::uint64_t> mMalformedPayloads = 0;
  std::atomic<std::uint64_t> mUnhandledCommands = 0;
  std::atomic<std::uint64_t> mQueueOverflows = 0;
  std::atomic<std::uint64_t> mLateReplies = 0;
};
