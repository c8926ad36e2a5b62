#include <trel/Cmn_Assert.h>
#include <trel/TCPE_Command.h>

#include "tcpe/protocol/TCPE_Frame.h"

#include <algorithm>
#include <limits>

TCPE_Command::TCPE_Command(TCPE_System* /*localSystem*/, TCPE_eCmd type, std::uint8_t revision)
    : mCommandType(type), mRevision(revision), mReceivedRevision(revision) {}

TCPE_Command::TCPE_Command(const TCPE_Command& other) = default;

TCPE_Command& TCPE_Command::operator=(const TCPE_Command& other) = default;

TCPE_Command::~TCPE_Command() = default;

const char* TCPE_Command::GetCommandName() const { return "TCPE_Command base class"; }

std::int32_t TCPE_Command::GetMaxNumberCommands() const {
  Cmn_Assert::HandleMagicAssert(false, "mustOverrideGetMaxNumberCommands", __LINE__);
  return 0;
}

bool TCPE_Command::IsSynchronous() const { return false; }

void TCPE_Command::PrepareTransmitCommand(char** /*cursor*/) {}

void TCPE_Command::PrepareReceiveCommand(char** /*cursor*/) {}

void TCPE_Command::PrepareTransmitReply(char** /*cursor*/) {}

void TCPE_Command::PrepareReceiveReply(char** /*cursor*/) {}

void TCPE_Command::SetError(TCPE_CommErr error) { mError = error; }

TCPE_CommErr TCPE_Command::GetError() const { return mError; }

void TCPE_Command::SetIPAddressTo(std::uint32_t address) { mIPAddressTo = address; }

std::uint32_t TCPE_Command::GetIPAddressTo() const { return mIPAddressTo; }

void TCPE_Command::SetIPAddressFrom(std::uint32_t address) { mIPAddressFrom = address; }

std::uint32_t TCPE_Command::GetIPAddressFrom() const { return mIPAddressFrom; }

void TCPE_Command::SetPortTo(std::uint32_t port) { mPortTo = static_cast<std::uint16_t>(port); }

std::uint32_t TCPE_Command::GetPortTo() const { return mPortTo; }

void TCPE_Command::SetPortFrom(std::uint32_t port) { mPortFrom = static_cast<std::uint16_t>(port); }

std::uint32_t TCPE_Command::GetPortFrom() const { return mPortFrom; }

bool TCPE_Command::DontLogCommand() const { return false; }

void TCPE_Command::GetSendDebugInfo(std::ostream& /*out*/) const {}

void TCPE_Command::GetReplyDebugInfo(std::ostream& /*out*/) const {}

void TCPE_Command::WriteHeader(std::uint8_t majorVersion, std::uint8_t minorVersion, char** cursor) {
  SetProtocolVersion(majorVersion, minorVersion);
  TCPE_FrameHeader header;
  header.dataLength = mDataLength;
  header.majorVersion = majorVersion;
  header.minorVersion = minorVersion;
  header.revision = mRevision;
  header.flags = static_cast<std::uint8_t>((mIsReply ? kTCPE_Flag_Reply : 0) |
                                           (mIsReply && mError != eTCPE_CommErr_None ? kTCPE_Flag_ErrorReply : 0) |
                                           (mReplyWanted ? kTCPE_Flag_ReplyWanted : 0));
  header.senderSystemType = mLocalSystemType;
  header.receiverSystemType = mRemoteSystemType;
  header.type = mCommandType;
  header.serial = mSerialNumber;
  header.checksum = mChecksum;
  header.error = mIsReply ? mError : eTCPE_CommErr_None;
  header.Write(reinterpret_cast<std::byte*>(*cursor));
  *cursor += kHeaderSize;
}

void TCPE_Command::SetPayloadEnd(const char* end) {
  mPayloadEnd = end;
  mPayloadFault = false;
}

std::uint32_t TCPE_Command::GetPayloadBytesLeft(const char* cursor) const {
  if (mPayloadEnd == nullptr) {
    return std::numeric_limits<std::uint32_t>::max();
  }
  return static_cast<std::uint32_t>(std::max<std::int64_t>(mPayloadEnd - cursor, 0));
}

void TCPE_Command::WriteFixedLengthString(const char* text, std::uint32_t width, char** cursor) {
  if (width == 0 || !HasRoom(*cursor, width)) {
    return;
  }
  const std::size_t length = std::min<std::size_t>(std::strlen(text), width - 1);
  std::memcpy(*cursor, text, length);
  std::memset(*cursor + length, 0, width - length);
  *cursor += width;
}

void TCPE_Command::ReadFixedLengthString(char* buffer, std::uint32_t width, char** cursor) {
  if (width == 0) {
    return;
  }
  if (!HasRoom(*cursor, width)) {
    buffer[0] = '\0';
    return;
  }
  std::memcpy(buffer, *cursor, width);
  buffer[width - 1] = '\0';
  *cursor += width;
}
