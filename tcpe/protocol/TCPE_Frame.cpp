#include "tcpe/protocol/TCPE_Frame.h"

#include "tcpe/protocol/TCPE_Bytes.h"

void TCPE_FrameHeader::Write(std::byte* target) const {
  TCPE_ByteWriter writer(target);
  writer.U16(dataLength);
  writer.U8(majorVersion);
  writer.U8(minorVersion);
  writer.U8(revision);
  writer.U8(flags);
  writer.U8(senderSystemType);
  writer.U8(receiverSystemType);
  writer.U32(static_cast<std::uint32_t>(type));
  writer.U32(serial);
  writer.U16(checksum);
  writer.U16(error);
}

TCPE_FrameHeader TCPE_FrameHeader::Read(const std::byte* source) {
  TCPE_ByteReader reader(source);
  TCPE_FrameHeader header;
  header.dataLength = reader.U16();
  header.majorVersion = reader.U8();
  header.minorVersion = reader.U8();
  header.revision = reader.U8();
  header.flags = reader.U8();
  header.senderSystemType = reader.U8();
  header.receiverSystemType = reader.U8();
  header.type = static_cast<TCPE_eCmd>(reader.U32());
  header.serial = reader.U32();
  header.checksum = reader.U16();
  header.error = reader.U16();
  return header;
}

std::uint16_t TCPE_SealFrame(std::span<std::byte> frame) {
  TCPE_ByteWriter(frame.data()).U16(static_cast<std::uint16_t>(frame.size() - TCPE_FrameHeader::kSize));
  const std::uint16_t checksum = TCPE_FrameChecksum(frame);
  TCPE_ByteWriter(frame.data() + TCPE_FrameHeader::kChecksumOffset).U16(checksum);
  return checksum;
}

std::uint16_t TCPE_FrameChecksum(std::span<const std::byte> frame) {
  std::uint64_t sum = 0;
  const auto add = [&sum](std::span<const std::byte> bytes) {
    TCPE_ByteReader reader(bytes.data());
    std::size_t left = bytes.size();
    for (; left >= 4; left -= 4) {
      sum += reader.U32();
    }
    for (; left >= 2; left -= 2) {
      sum += reader.U16();
    }
    if (left == 1) {
      sum += static_cast<std::uint64_t>(reader.U8()) << 8U;
    }
  };
  add(frame.first(TCPE_FrameHeader::kChecksumOffset));
  add(frame.subspan(TCPE_FrameHeader::kChecksumOffset + 2));
  while ((sum >> 16U) != 0) {
    sum = (sum & 0xffffU) + (sum >> 16U);
  }
  return static_cast<std::uint16_t>(~sum);
}
