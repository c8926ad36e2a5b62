#include "tcpe/protocol/TCPE_Hello.h"

#include "tcpe/protocol/TCPE_Bytes.h"

#include <algorithm>

namespace {

constexpr std::uint32_t kMagic = 0x5452454c; // "TREL"
constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kAuthenticationRequired = 1;
constexpr std::size_t kNonceOffset = 16;

} // namespace

void TCPE_Hello::Write(std::byte* target) const {
  TCPE_ByteWriter writer(target);
  writer.U32(kMagic);
  writer.U8(kVersion);
  writer.U8(majorVersion);
  writer.U8(authenticationRequired ? kAuthenticationRequired : 0);
  writer.U8(0);
  writer.U64(instance);
  std::copy(nonce.begin(), nonce.end(), target + kNonceOffset);
}

std::optional<TCPE_Hello> TCPE_Hello::Read(std::span<const std::byte, kSize> source) {
  TCPE_ByteReader reader(source.data());
  if (reader.U32() != kMagic || reader.U8() != kVersion) {
    return std::nullopt;
  }
  TCPE_Hello hello;
  hello.majorVersion = reader.U8();
  const std::uint8_t flags = reader.U8();
  if (flags > kAuthenticationRequired || reader.U8() != 0) {
    return std::nullopt;
  }
  hello.authenticationRequired = flags == kAuthenticationRequired;
  hello.instance = reader.U64();
  std::copy_n(source.begin() + kNonceOffset, hello.nonce.size(), hello.nonce.begin());
  return hello;
}
