#include "tcpe/net/TCPE_Dispatcher.h"

#include <trel/Cmn_NumberToText.h>
#include <trel/Sys_Socket.h>
#include <trel/TCPE_CommTask.h>
#include <trel/TCPE_Command.h>

#include <array>
#include <sstream>
#include <string>

TCPE_ReceivedCommand::~TCPE_ReceivedCommand() {
  if (mCommand != nullptr) {
    mCommand->~TCPE_Command();
  }
}

void TCPE_Dispatcher::OnFrame(const Connection& connection, const TCPE_FrameHeader& header,
                              std::span<const std::byte> payload) {
  connection->SetPeerSystemType(header.senderSystemType);
  if (header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply)) {
    if (!connection->Calls().Complete(header, payload, connection->LastReceived())) {
      ++mLateReplies;
    }
    return;
  }
  Handle(connection, header, payload, false);
}

void TCPE_Dispatcher::OnConnectionFrame(const Connection& connection, TCPE_FrameHeader header,
                                        std::span<const std::byte> payload) {
  connection->SetPeerSystemType(header.senderSystemType);
  header.flags = static_cast<std::uint8_t>(header.flags & ~kTCPE_Flag_ReplyWanted);
  Handle(connection, header, payload, true);
}

bool TCPE_Dispatcher::IsSound(const TCPE_FrameHeader& header, std::span<const std::byte> payload) const {
  TCPE_ReceivedCommand trial(nullptr, header, mTask.GetMaxCommandSize());
  trial.SetCommand(Build(header.type, trial.Block()));
  return trial.Command() != nullptr && TCPE_CommandCodec::DecodeCommand(*trial.Command(), header, payload);
}

void TCPE_Dispatcher::Handle(const Connection& connection, const TCPE_FrameHeader& header,
                             std::span<const std::byte> payload, bool mustNotBeLost) {
  try {
    const ReceivedPointer received = Construct(connection, header, payload);
    if (!received) {
      return;
    }
    Log(LogEvent::received, *received->Command(), connection->GetAddress());
    if (mustNotBeLost) {
      mReceiver.OnConnectionCommand(*received);
    }
    const bool mustBeHandled = received->IsReplyWanted() || !mReceiver.TakesUnhandled();
    if (AnswerInPlace(*received)) {
      Reply(*received);
    } else if (mustBeHandled && !mTask.HasHandler(received->Command())) {
      Drop(*connection, header, eTCPE_CommErr_NoHandler, mUnhandledCommands);
    } else if (!mReceiver.Deliver(received, mustNotBeLost)) {
      Drop(*connection, header, eTCPE_CommErr_QueueFull, mQueueOverflows);
    }
  } catch (...) { // what a host's hook throws must not end the network thread
    Drop(*connection, header, eTCPE_CommErr_HandlerFailed, mUnhandledCommands);
  }
}

void TCPE_Dispatcher::Reply(TCPE_ReceivedCommand& received) {
  if (!received.IsReplyWanted()) {
    return;
  }
  TCPE_CommandCodec codec;
  TCPE_Command& command = *received.Command();
  const TCPE_CommandCodec::Stamp stamp{.wireType = received.Header().type,
                                       .serial = received.Header().serial,
                                       .localSystemType = mManager.GetSystemType(),
                                       .remoteSystemType = received.Origin()->GetPeerSystemType()};
  if (codec.EncodeReply(mTask, command, stamp) != eTCPE_CommErr_None) {
    command.SetError(eTCPE_CommErr_PayloadTooLong);
    codec.EncodeReply(mTask, command, stamp);
  }
  received.Origin()->Send(codec.Frame(), TCPE_Connection::Urgency::now);
  Log(LogEvent::replied, command, received.Origin()->GetAddress());
}

void TCPE_Dispatcher::Log(LogEvent event, const TCPE_Command& command, std::uint32_t peer) const {
  const TCPE_CommManager::CommandLogProc log = mLog;
  if (log == nullptr || command.DontLogCommand()) {
    return;
  }
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
  WriteLog(log, line);
}

void TCPE_Dispatcher::WriteLog(TCPE_CommManager::CommandLogProc log, const std::string& line) const {
  try {
    log(line.c_str());
  } catch (...) { // NOLINT(bugprone-empty-catch): a log that fails must not take the command down
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

TCPE_Dispatcher::ReceivedPointer TCPE_Dispatcher::Construct(const std::shared_ptr<TCPE_Connection>& connection,
                                                            const TCPE_FrameHeader& header,
                                                            std::span<const std::byte> payload) {
  auto received = std::make_shared<TCPE_ReceivedCommand>(connection, header, mTask.GetMaxCommandSize());
  TCPE_Command* command = Build(header.type, received->Block());
  if (command == nullptr) {
    Drop(*connection, header, eTCPE_CommErr_UnknownCommand, mUnknownCommands);
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
  command->SetLocalSystemType(mManager.GetSystemType());
  command->SetIPAddressFrom(connection->GetAddress());
  command->SetPortFrom(static_cast<std::uint32_t>(mTask.GetCommunicationPort()));
  command->SetIPAddressTo(mManager.GetAdaptorIPAddress());
  command->SetPortTo(static_cast<std::uint32_t>(mTask.GetCommunicationPort()));
  if (!TCPE_CommandCodec::DecodeCommand(*command, header, payload)) {
    Drop(*connection, header, eTCPE_CommErr_MalformedPayload, mMalformedPayloads);
    return nullptr;
  }
  return received;
}

bool TCPE_Dispatcher::AnswerInPlace(TCPE_ReceivedCommand& received) {
  TCPE_Command* command = received.Command();
  return command->IsSynchronous() ? mManager.HandleSyncCommand(command) : mManager.HandleAsyncCommand(command);
}

void TCPE_Dispatcher::Drop(TCPE_Connection& connection, const TCPE_FrameHeader& header, TCPE_CommErr error,
                           std::atomic<std::uint64_t>& counter) {
  ++counter;
  if (!header.Has(kTCPE_Flag_ReplyWanted)) {
    return;
  }
  TCPE_FrameHeader answer;
  answer.majorVersion = mTask.GetCurrentProtocolMajorVersion();
  answer.minorVersion = mTask.GetCurrentProtocolMinorVersion();
  answer.flags = kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply;
  answer.senderSystemType = static_cast<std::uint8_t>(mManager.GetSystemType());
  answer.receiverSystemType = header.senderSystemType;
  answer.type = header.type;
  answer.serial = header.serial;
  answer.error = error;
  std::array<std::byte, TCPE_FrameHeader::kSize> frame{};
  answer.Write(frame.data());
  TCPE_SealFrame(frame);
  connection.Send(frame, TCPE_Connection::Urgency::now);
  if (const TCPE_CommManager::CommandLogProc log = mLog) {
    WriteLog(log, "refused a command of type " + Cmn_Int32ToString(header.type) + " from " +
                      Sys_Socket::DecodeIPAddress(connection.GetAddress()) + ": error " + Cmn_Int32ToString(error));
  }
}
