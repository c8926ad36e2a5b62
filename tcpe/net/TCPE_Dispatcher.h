#pragma once

#include "tcpe/TCPE_CommandCodec.h"
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
class TCPE_ReceivedCommand {
public:
  TCPE_ReceivedCommand(std::shared_ptr<TCPE_Connection> origin, const TCPE_FrameHeader& header, std::size_t blockSize)
      : mBlock(std::make_unique<std::max_align_t[]>((blockSize + sizeof(std::max_align_t) - 1) /
                                                    sizeof(std::max_align_t))),
        mOrigin(std::move(origin)), mHeader(header) {}
  ~TCPE_ReceivedCommand();
  TCPE_ReceivedCommand(const TCPE_ReceivedCommand&) = delete;
  TCPE_ReceivedCommand& operator=(const TCPE_ReceivedCommand&) = delete;

  void* Block() { return mBlock.get(); }
  /// Takes over the command that was built in the block.
  void SetCommand(TCPE_Command* command) { mCommand = command; }
  TCPE_Command* Command() const { return mCommand; }
  const TCPE_FrameHeader& Header() const { return mHeader; }
  const std::shared_ptr<TCPE_Connection>& Origin() const { return mOrigin; }
  bool IsReplyWanted() const { return mHeader.Has(kTCPE_Flag_ReplyWanted); }

private:
  std::unique_ptr<std::max_align_t[]> mBlock;
  std::shared_ptr<TCPE_Connection> mOrigin;
  TCPE_FrameHeader mHeader;
  TCPE_Command* mCommand = nullptr;
};

/// What happens to a frame that arrived: validate, construct, decode, answer in place or hand on, reply.
class TCPE_Dispatcher {
public:
  using ReceivedPointer = std::shared_ptr<TCPE_ReceivedCommand>;

  /// Takes commands that are not answered in place.
  class Receiver {
  public:
    /// Told of a connect or disconnect command before it is delivered.
    virtual void OnConnectionCommand(const TCPE_ReceivedCommand& received) = 0;
    /// False when there is no room.
    /// @param mustNotBeLost connect and disconnect, without which the host's picture of the link would be wrong
    virtual bool Deliver(const ReceivedPointer& received, bool mustNotBeLost) = 0;
    /// Whether asynchronous commands are delivered that nobody has registered for.
    virtual bool TakesUnhandled() const = 0;

  protected:
    ~Receiver() = default;
  };

  TCPE_Dispatcher(TCPE_CommManager& manager, TCPE_CommTask& task, Receiver& receiver)
      : mManager(manager), mTask(task), mReceiver(receiver) {}

  // On the network thread.
  void OnFrame(const std::shared_ptr<TCPE_Connection>& connection, const TCPE_FrameHeader& header,
               std::span<const std::byte> payload);
  /// A connect or disconnect command: nobody waits for a reply, and it is delivered also to a full queue.
  void OnConnectionFrame(const std::shared_ptr<TCPE_Connection>& connection, TCPE_FrameHeader header,
                         std::span<const std::byte> payload);
  /// Whether a frame decodes to a command.
  bool IsSound(const TCPE_FrameHeader& header, std::span<const std::byte> payload) const;
  /// Sends the reply that a received command has, if one is wanted. From any thread.
  void Reply(TCPE_ReceivedCommand& received);

  void SetCommandLog(TCPE_CommManager::CommandLogProc log) { mLog = log; }
  enum class LogEvent : std::uint8_t { sent, received, replied, answered };
  /// One line for the command log, if there is one and the command may be logged.
  void Log(LogEvent event, const TCPE_Command& command, std::uint32_t peer) const;

  TCPE_Counters GetCounters() const;

private:
  using Connection = std::shared_ptr<TCPE_Connection>;

  void Handle(const Connection& connection, const TCPE_FrameHeader& header, std::span<const std::byte> payload,
              bool mustNotBeLost);
  /// The command class of a wire type, built in the block; null when there is none.
  TCPE_Command* Build(TCPE_eCmd wireType, void* block) const;
  /// Null when the command is to be dropped; then it has been counted, and answered if a reply is wanted.
  ReceivedPointer Construct(const std::shared_ptr<TCPE_Connection>& connection, const TCPE_FrameHeader& header,
                            std::span<const std::byte> payload);
  bool AnswerInPlace(TCPE_ReceivedCommand& received);
  void Drop(TCPE_Connection& connection, const TCPE_FrameHeader& header, TCPE_CommErr error,
            std::atomic<std::uint64_t>& counter);
  void WriteLog(TCPE_CommManager::CommandLogProc log, const std::string& line) const;

  TCPE_CommManager& mManager;
  TCPE_CommTask& mTask;
  Receiver& mReceiver;
  std::atomic<TCPE_CommManager::CommandLogProc> mLog = nullptr;
  std::atomic<std::uint64_t> mUnknownCommands = 0;
  std::atomic<std::uint64_t> mMalformedPayloads = 0;
  std::atomic<std::uint64_t> mUnhandledCommands = 0;
  std::atomic<std::uint64_t> mQueueOverflows = 0;
  std::atomic<std::uint64_t> mLateReplies = 0;
};
