#include "tcpe/TCPE_CommandCodec.h"

#include <trel/TCPE_CommTask.h>
#include <trel/TCPE_Command.h>

template <class WritePayload>
TCPE_CommErr TCPE_CommandCodec::Encode(TCPE_CommTask& task, TCPE_Command& command, const Stamp& stamp,
                                       WritePayload writePayload) {
  const TCPE_eCmd type = command.GetCommandType();
  command.SetCommandType(stamp.wireType);
  command.SetSerialNumber(stamp.serial);
  command.SetLocalSystemType(stamp.localSystemType);
  command.SetRemoteSystemType(stamp.remoteSystemType);
  command.SetReplyWanted(stamp.replyWanted);
  command.SetDataLength(0);
  command.SetChecksum(0);
  char* const begin = reinterpret_cast<char*>(mBuffer.data());
  char* cursor = begin;
  task.WriteCommandHeader(&command, &cursor);
  command.SetPayloadEnd(begin + mBuffer.size());
  writePayload(&cursor);
  const bool fits = !command.GetPayloadFault();
  command.SetPayloadEnd(nullptr);
  command.SetCommandType(type);
  if (!fits) {
    return eTCPE_CommErr_PayloadTooLong;
  }
  mSize = static_cast<std::size_t>(cursor - begin);
  command.SetChecksum(TCPE_SealFrame(std::span(mBuffer).first(mSize)));
  command.SetDataLength(static_cast<std::uint16_t>(mSize - TCPE_FrameHeader::kSize));
  return eTCPE_CommErr_None;
}

TCPE_CommErr TCPE_CommandCodec::EncodeCommand(TCPE_CommTask& task, TCPE_Command& command, const Stamp& stamp) {
  command.SetIsReply(false);
  command.SetArrivalTime(0);
  return Encode(task, command, stamp, [&command](char** cursor) { command.PrepareTransmitCommand(cursor); });
}

void TCPE_CommandCodec::SetReceiver(std::uint32_t serial, ETCPE_SystemType remoteSystemType) {
  TCPE_FrameHeader header = TCPE_FrameHeader::Read(mBuffer.data());
  header.serial = serial;
  header.receiverSystemType = static_cast<std::uint8_t>(remoteSystemType);
  header.Write(mBuffer.data());
  TCPE_SealFrame(std::span(mBuffer).first(mSize));
}

TCPE_CommErr TCPE_CommandCodec::EncodeReply(TCPE_CommTask& task, TCPE_Command& command, const Stamp& stamp) {
  command.SetIsReply(true);
  return Encode(task, command, stamp, [&command](char** cursor) {
    if (command.GetError() == eTCPE_CommErr_None) {
      command.PrepareTransmitReply(cursor);
    }
  });
}

namespace {

template <class ReadPayload>
bool Decode(TCPE_Command& command, const TCPE_FrameHeader& header, std::span<const std::byte> payload,
            ReadPayload readPayload) {
  command.SetReceivedRevision(header.revision);
  // An empty payload may have no address, but a null end would lift the bound. The hooks take a mutable cursor for both
  // directions; reading changes nothing.
  static constexpr std::byte kNothing{};
  const std::byte* begin = payload.empty() ? &kNothing : payload.data();
  char* cursor = const_cast<char*>(reinterpret_cast<const char*>(begin));
  command.SetPayloadEnd(cursor + payload.size());
  readPayload(&cursor);
  const bool isWhole = !command.GetPayloadFault();
  command.SetPayloadEnd(nullptr);
  return isWhole;
}

} // namespace

bool TCPE_CommandCodec::DecodeCommand(TCPE_Command& command, const TCPE_FrameHeader& header,
                                      std::span<const std::byte> payload) {
  return Decode(command, header, payload, [&command](char** cursor) { command.PrepareReceiveCommand(cursor); });
}

bool TCPE_CommandCodec::DecodeReply(TCPE_Command& command, const TCPE_FrameHeader& header,
                                    std::span<const std::byte> payload) {
  return Decode(command, header, payload, [&command](char** cursor) { command.PrepareReceiveReply(cursor); });
}
