#pragma once

#include "tcpe/protocol/TCPE_Frame.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <trel/TCPE_Types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

class TCPE_Command;
class TCPE_CommTask;

/// Turns commands into frames and payloads into commands.
class TCPE_CommandCodec {
public:
  /// What the engine stamps into the header of a command that it sends.
  struct Stamp {
    TCPE_eCmd wireType = 0;
    std::uint32_t serial = 0;
    ETCPE_SystemType localSystemType = eTCPE_SystemType_None;
    ETCPE_SystemType remoteSystemType = eTCPE_SystemType_None;
    bool replyWanted = false;
  };

  /// Encodes into a buffer of its own, which the next call overwrites. Leaves the command's type as it was.
  TCPE_CommErr EncodeCommand(TCPE_CommTask& task, TCPE_Command& command, const Stamp& stamp);
  /// Encodes the reply to a received command; without a payload when the command's error is set.
  TCPE_CommErr EncodeReply(TCPE_CommTask& task, TCPE_Command& command, const Stamp& stamp);
  /// Readdresses the frame.
  void SetReceiver(std::uint32_t serial, ETCPE_SystemType remoteSystemType);
  std::span<const std::byte> Frame() const { return std::span(mBuffer).first(mSize); }

  /// Fill a command from a payload; false when the payload was too short or did not make sense.
  static bool DecodeCommand(TCPE_Command& command, const TCPE_FrameHeader& header, std::span<const std::byte> payload);
  static bool DecodeReply(TCPE_Command& command, const TCPE_FrameHeader& header, std::span<const std::byte> payload);

private:
  template <class WritePayload>
  TCPE_CommErr Encode(TCPE_CommTask& task, TCPE_Command& command, const Stamp& stamp, WritePayload writePayload);

  std::array<std::byte, TCPE_FrameHeader::kSize + TCPE_Limits{}.maxPayload> mBuffer; // not cleared: it is large
  std::size_t mSize = 0;
};
