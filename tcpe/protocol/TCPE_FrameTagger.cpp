#include "tcpe/protocol/TCPE_FrameTagger.h"

#include "tcpe/protocol/TCPE_Bytes.h"
#include "tcpe/protocol/TCPE_Frame.h"

#include <array>

namespace {

std::array<std::byte, sizeof(std::uint64_t)> BytesOf(std::uint64_t count) {
  std::array<std::byte, sizeof count> bytes{};
  TCPE_ByteWriter(bytes.data()).U64(count);
  return bytes;
}

std::size_t SizeOf(const TCPE_FrameHeader& header) { return TCPE_FrameHeader::kSize + header.dataLength; }

} // namespace

std::size_t TCPE_FrameTagger::TaggedSize(std::span<const std::byte> frames) {
  std::size_t size = 0;
  while (!frames.empty()) {
    const std::size_t next = SizeOf(TCPE_FrameHeader::Read(frames.data()));
    size += next + kTCPE_TagSize;
    frames = frames.subspan(next);
  }
  return size;
}

void TCPE_FrameTagger::AppendTagged(std::span<const std::byte> frames, std::vector<std::byte>& target) {
  while (!frames.empty()) {
    TCPE_FrameHeader header = TCPE_FrameHeader::Read(frames.data());
    const std::size_t size = SizeOf(header);
    const std::size_t begin = target.size();
    target.insert(target.end(), frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(size));
    const std::span<std::byte> frame = std::span(target).subspan(begin);
    header.flags |= kTCPE_Flag_Tag;
    header.Write(frame.data());
    TCPE_SealFrame(frame);
    const TCPE_AuthenticationKey::Mac mac = mKey->MakeMac({}, {BytesOf(mCount++), frame});
    target.insert(target.end(), mac.begin(), mac.begin() + kTCPE_TagSize);
    frames = frames.subspan(size);
  }
}

bool TCPE_FrameTagger::TakeNext(std::span<const std::byte> taggedFrame) {
  const std::span<const std::byte> frame = taggedFrame.first(taggedFrame.size() - kTCPE_TagSize);
  return mKey->Verify({}, {BytesOf(mCount++), frame}, taggedFrame.last(kTCPE_TagSize));
}
