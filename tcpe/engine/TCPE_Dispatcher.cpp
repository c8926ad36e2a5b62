#include "tcpe/engine/TCPE_Dispatcher.h"

#include "foundation/Cmn_HostCall.h"

#include <trel/Cmn_NumberToText.h>
#include <trel/Sys_Socket.h>
#include <trel/TCPE_CommTask.h>
#include <trel/TCPE_Command.h>

#include <array>
#include <sstream>
#include <string>

namespace {

/// Where a block begins behind its received command.
constexpr std::size_t kBlockOffset = (sizeof(TCPE_ReceivedCommand) + alignof(std::max_align_t) - 1) /
                                     alignof(std::max_align_t) * alignof(std::max_align_t);

/// What a command takes: its block, and the payload, which may have become objects of several times its size.
std::size_t MemoryOf(const TCPE_BlockStore& blocks, const TCPE_FrameHeader& header) {
  constexpr std::size_t kGrowth = 8;
  return blocks.Size() - kBlockOffset + kGrowth * header.dataLength;
}

} // namespace

TCPE_ReceivedCommand::Pointer TCPE_ReceivedCommand::Make(std::shared_ptr<const Batch> batch,
                                                         const TCPE_FrameHeader& header, Kind kind) {
  void* const memory = batch->origin ? batch->blocks->Take() : batch->blocks->TakeNew();
  return Pointer(new (memory) TCPE_ReceivedCommand(std::move(batch), header, kind));
}

TCPE_ReceivedCommand::TCPE_ReceivedCommand(std::shared_ptr<const Batch> batch, const TCPE_FrameHeader& header,
                                           Kind kind)
    : TCPE_Job(kind, MemoryOf(*batch->blocks, header)), mBatch(std::move(batch)), mHeader(header) {}

TCPE_ReceivedCommand::~TCPE_ReceivedCommand() {
  if (mCommand != nullptr) {
    mCommand->~TCPE_Command();
  }
}

void* TCPE_ReceivedCommand::Block() { return reinterpret_cast<std::byte*>(this) + kBlockOffset; }

void TCPE_ReceivedCommand::Discard() {
  const std::shared_ptr<const Batch> batch = std::move(mBatch);
  this->~TCPE_ReceivedCommand();
  if (batch->origin) {
    batch->blocks->Give(this);
  } else {
    TCPE_BlockStore::Release(this);
  }
}

TCPE_Dispatcher::TCPE_Dispatcher(TCPE_CommManager& manager, TCPE_CommTask& task, Receiver& receiver)
    : mManager(manager), mTask(task), mReceiver(receiver),
      mBlocks(std::make_shared<TCPE_BlockStore>(kBlockOffset + task.GetMaxCommandSize())),
      mWithoutOrigin(std::make_shared<TCPE_ReceivedCommand::Batch>(TCPE_ReceivedCommand::Batch{.blocks = mBlocks})),
      mLocalSystemType(manager.GetSystemType()) {}

void TCPE_Dispatcher::OnFrame(const Connection& connection, const TCPE_FrameHeader& header,
                              std::span<const std::byte> payload, const TCPE_Arrival& arrival) {
  connection->SetPeerSystemType(header.senderSystemType);
  if (header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply)) {
    if (!connection->Calls().Complete(header, payload, arrival)) {
      ++mLateReplies;
    }
    return;
  }
  Handle(connection, header, payload, header.Has(kTCPE_Flag_ReplyWanted) ? Kind::query : Kind::command, arrival);
}

void TCPE_Dispatcher::OnConnectionFrame(const Connection& connection, TCPE_FrameHeader header,
                                        std::span<const std::byte> payload) {
  connection->SetPeerSystemType(header.senderSystemType);
  header.flags = static_cast<std::uint8_t>(header.flags & ~kTCPE_Flag_ReplyWanted);
  Handle(connection, header, payload, Kind::notice, connection->LastArrival().OfSeveral());
}

bool TCPE_Dispatcher::IsSound(const TCPE_FrameHeader& header, std::span<const std::byte> payload) const {
  const ReceivedPointer trial = TCPE_ReceivedCommand::Make(mWithoutOrigin, header, Kind::notice);
  trial->SetCommand(Build(header.type, trial->Block()));
  return trial->Command() != nullptr && TCPE_CommandCodec::DecodeCommand(*trial->Command(), header, payload);
}

void TCPE_Dispatcher::Handle(const Connection& connection, const TCPE_FrameHeader& header,
                             std::span<const std::byte> payload, Kind kind, const TCPE_Arrival& arrival) {
  mReceiver.OnArrived(*connection, kind);
  ReceivedPointer received;
  const bool isDone = Cmn_HostCall::Run(Cmn_HostCall::Kind::hook, [&] {
    received = Construct(connection, header, payload, kind, arrival);
    if (!received) {
      return;
    }
    Log(LogEvent::received, *received->Command(), connection->GetAddress());
    if (kind == Kind::notice) {
      mReceiver.OnConnectionCommand(*received);
    }
    const bool mustBeHandled = received->IsReplyWanted() || !mReceiver.TakesUnhandled();
    if (AnswerInPlace(*received)) {
      Finish(*received);
    } else if (mustBeHandled && !mTask.HasHandler(received->Command())) {
      Drop(connection, header, kind, received->Command(), eTCPE_CommErr_NoHandler, mUnhandledCommands);
    } else if (!mReceiver.Deliver(received)) {
      Drop(connection, header, kind, received->Command(), eTCPE_CommErr_QueueFull, mQueueOverflows);
    }
  });
  if (!isDone) {
    Cmn_HostCall::Run(Cmn_HostCall::Kind::hook, [&] {
      Drop(connection, header, kind, received ? received->Command() : nullptr, eTCPE_CommErr_HandlerFailed,
           mUnhandledCommands);
    });
  }
}

void TCPE_Dispatcher::Finish(TCPE_ReceivedCommand& received) {
  if (received.IsReplyWanted()) {
    Reply(received);
  }
  mReceiver.OnFinished(received.Origin(), received.GetKind(), true);
}

void TCPE_Dispatcher::Reply(TCPE_ReceivedCommand& received) {
  TCPE_CommandCodec codec;
  TCPE_Command& command = *received.Command();
  const TCPE_CommandCodec::Stamp stamp{.wireType = received.Header().type,
                                       .serial = received.Header().serial,
                                       .localSystemType = GetLocalSystemType(),
                                       .remoteSystemType = received.Origin()->GetPeerSystemType()};
  const auto encode = [&] { return codec.EncodeReply(mTask, command, stamp); };
  TCPE_CommErr error = Cmn_HostCall::Ask(Cmn_HostCall::Kind::hook, eTCPE_CommErr_HandlerFailed, encode);
  if (error != eTCPE_CommErr_None) {
    command.SetError(error);
    error = Cmn_HostCall::Ask(Cmn_HostCall::Kind::hook, eTCPE_CommErr_HandlerFailed, encode);
  }
  if (error == eTCPE_CommErr_None) {
    received.Origin()->Send(codec.Frame(), TCPE_Connection::Kind::reply);
    Log(LogEvent::replied, command, received.Origin()->GetAddress());
  }
}

void TCPE_Dispatcher::Log(LogEvent event, const TCPE_Command& command, std::uint32_t peer) const {
  if (const TCPE_CommManager::CommandLogProc log = mLog) {
    Cmn_HostCall::Run(Cmn_HostCall::Kind::commandLog, [&] {
      if (!command.DontLogCommand()) {
        log(LineOf(event, command, peer).c_str());
      }
    });
  }
}

std::string TCPE_Dispatcher::LineOf(LogEvent event, const TCPE_Command& command, std::uint32_t peer) {
  struct Words {
    const char* verb;
    const char* preposition;
  };
  static constexpr std::array<Words, 4> kWords{
      Words{"sent ", " to "}, {"received ", " from "}, {"replied to ", " of "}, {"got the reply to ", " from "}};
  const Words& words = kWords.at(static_cast<std::size_t>(event));
  const bool isReply = event == LogEvent::replied || event == LogEvent::answered;
  std::ostringstream info;
  if (isReply) {
    command.GetReplyDebugInfo(info);
  } else {
    command.GetSendDebugInfo(info);
  }
  std::string line = words.verb;
  line += command.GetCommandName();
  line += words.preposition;
  line += Sys_Socket::DecodeIPAddress(peer);
  if (const std::string text = info.str(); !text.empty()) {
    line += ": " + text;
  }
  return line;
}

void TCPE_Dispatcher::LogLoss(ETCPE_NetworkError error, std::uint32_t peer) const {
  if (const TCPE_CommManager::CommandLogProc log = mLog) {
    const std::string line =
        "lost " + Sys_Socket::DecodeIPAddress(peer) + ": network error " + Cmn_Int32ToString(error);
    Cmn_HostCall::Run(Cmn_HostCall::Kind::commandLog, [&] { log(line.c_str()); });
  }
}

TCPE_Command* TCPE_Dispatcher::Build(TCPE_eCmd wireType, void* block) const {
  TCPE_eCmd type = wireType;
  mTask.ValidateCommand(&type);
  const std::int32_t identifier = mTask.GetCompatibleID(type);
  // An engine command's link identifier never travels: in the legacy numbering it would be a second name for it.
  const bool travels = type != TCPE_Command::GetInvalidCommandID() && mTask.GetTCPECommandType(identifier) == type;
  return travels ? mTask.ConstructCommand(identifier, block) : nullptr;
}

TCPE_Counters TCPE_Dispatcher::GetCounters() const {
  return {.unknownCommands = mUnknownCommands,
          .malformedPayloads = mMalformedPayloads,
          .unhandledCommands = mUnhandledCommands,
          .queueOverflows = mQueueOverflows,
          .lateReplies = mLateReplies};
}

TCPE_ReceivedCommand::Pointer TCPE_Dispatcher::Fresh(TCPE_eCmd wireType) const {
  ReceivedPointer fresh = TCPE_ReceivedCommand::Make(mWithoutOrigin, TCPE_FrameHeader(), Kind::notice);
  fresh->SetCommand(mTask.ConstructCommand(mTask.GetCompatibleID(wireType), fresh->Block()));
  return fresh->Command() != nullptr ? std::move(fresh) : nullptr;
}

TCPE_Dispatcher::ReceivedPointer TCPE_Dispatcher::Construct(const std::shared_ptr<TCPE_Connection>& connection,
                                                            const TCPE_FrameHeader& header,
                                                            std::span<const std::byte> payload, Kind kind,
                                                            const TCPE_Arrival& arrival) {
  if (!mBatch || mBatch->origin != connection) {
    mBatch = std::make_shared<TCPE_ReceivedCommand::Batch>(
        TCPE_ReceivedCommand::Batch{.blocks = mBlocks, .origin = connection, .handler = &mReceiver});
  }
  ReceivedPointer received = TCPE_ReceivedCommand::Make(mBatch, header, kind);
  TCPE_Command* command = Build(header.type, received->Block());
  if (command == nullptr) {
    Drop(connection, header, kind, nullptr, eTCPE_CommErr_UnknownCommand, mUnknownCommands);
    return nullptr;
  }
  received->SetCommand(command);
  command->SetCommandType(header.type);
  command->SetDataLength(header.dataLength);
  command->SetProtocolVersion(header.majorVersion, header.minorVersion);
  command->SetChecksum(header.checksum);
  command->SetSerialNumber(header.serial);
  command->SetReplyWanted(header.Has(kTCPE_Flag_ReplyWanted));
  command->SetRemoteSystemType(connection->GetPeerSystemType());
  command->SetLocalSystemType(GetLocalSystemType());
  command->SetConnection(connection->GetId());
  command->SetArrivalTime(arrival.HostTime());
  command->SetIPAddressFrom(connection->GetAddress());
  command->SetPortFrom(static_cast<std::uint32_t>(mTask.GetCommunicationPort()));
  command->SetIPAddressTo(mManager.GetAdaptorIPAddress());
  command->SetPortTo(static_cast<std::uint32_t>(mTask.GetCommunicationPort()));
  if (!TCPE_CommandCodec::DecodeCommand(*command, header, payload)) {
    Drop(connection, header, kind, command, eTCPE_CommErr_MalformedPayload, mMalformedPayloads);
    return nullptr;
  }
  return received;
}

bool TCPE_Dispatcher::AnswerInPlace(TCPE_ReceivedCommand& received) {
  TCPE_Command* command = received.Command();
  return command->IsSynchronous() ? mManager.HandleSyncCommand(command) : mManager.HandleAsyncCommand(command);
}

void TCPE_Dispatcher::Drop(const Connection& connection, const TCPE_FrameHeader& header, Kind kind,
                           const TCPE_Command* command, TCPE_CommErr error, std::atomic<std::uint64_t>& counter) {
  ++counter;
  mReceiver.OnFinished(connection, kind, false);
  if (!header.Has(kTCPE_Flag_ReplyWanted)) {
    return;
  }
  TCPE_FrameHeader answer;
  answer.majorVersion = mTask.GetCurrentProtocolMajorVersion();
  answer.minorVersion = mTask.GetCurrentProtocolMinorVersion();
  answer.flags = kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply;
  answer.senderSystemType = static_cast<std::uint8_t>(GetLocalSystemType());
  answer.receiverSystemType = header.senderSystemType;
  answer.type = header.type;
  answer.serial = header.serial;
  answer.error = error;
  std::array<std::byte, TCPE_FrameHeader::kSize> frame{};
  answer.Write(frame.data());
  TCPE_SealFrame(frame);
  connection->Send(frame, TCPE_Connection::Kind::reply);
  if (const TCPE_CommManager::CommandLogProc log = mLog;
      log != nullptr && (command == nullptr || !command->DontLogCommand())) {
    const std::string line = "refused a command of type " + Cmn_Int32ToString(header.type) + " from " +
                             Sys_Socket::DecodeIPAddress(connection->GetAddress()) + ": error " +
                             Cmn_Int32ToString(error);
    Cmn_HostCall::Run(Cmn_HostCall::Kind::commandLog, [&] { log(line.c_str()); });
  }
}
