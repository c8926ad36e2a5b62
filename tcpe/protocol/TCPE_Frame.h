#pragma once

#include <trel/TCPE_Types.h>

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::uint8_t kTCPE_Flag_Reply = 1;
inline constexpr std::uint8_t kTCPE_Flag_ErrorReply = 2;
inline constexpr std::uint8_t kTCPE_Flag_Tag = 4;
inline constexpr std::uint8_t kTCPE_Flag_ReplyWanted = 8;
inline constexpr std::uint8_t kTCPE_Flags_Known =
    kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply | kTCPE_Flag_Tag | kTCPE_Flag_ReplyWanted;

/// Bytes of a tag, behind the payload.
inline constexpr std::size_t kTCPE_TagSize = 16;

/// The 20 bytes before every payload, big-endian on the wire.
struct TCPE_FrameHeader {
  static constexpr std::size_t kSize = 20;
  static constexpr std::size_t kChecksumOffset = 16;

  std::uint16_t dataLength = 0;
  std::uint8_t majorVersion = 0;
  std::uint8_t minorVersion = 0;
  std::uint8_t revision = 0;
  std::uint8_t flags = 0;
  std::uint8_t senderSystemType = 0;
  std::uint8_t receiverSystemType = 0;
  TCPE_eCmd type = 0;
  std::uint32_t serial = 0;
  std::uint16_t checksum = 0;
  std::uint16_t error = 0;

  void Write(std::byte* target) const;
  static TCPE_FrameHeader Read(const std::byte* source);

  bool Has(std::uint8_t flag) const { return (flags & flag) != 0; }
  /// Of a command, which nobody answers.
  bool IsAsynchronous() const { return !Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply | kTCPE_Flag_ReplyWanted); }
};

/// Gives a complete frame (header and payload) its length and its checksum, in place; the latter is returned.
std::uint16_t TCPE_SealFrame(std::span<std::byte> frame);

/// Internet checksum of a frame, its checksum field taken as 0.
std::uint16_t TCPE_FrameChecksum(std::span<const std::byte> frame);
