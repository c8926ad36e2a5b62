#pragma once

#include <cstddef>
#include <cstdint>

/// Big-endian writing and reading of buffers whose size the caller has checked.
class TCPE_ByteWriter {
public:
  explicit TCPE_ByteWriter(std::byte* target) : mTarget(target) {}
  void U8(std::uint8_t value) { *mTarget++ = static_cast<std::byte>(value); }
  void U16(std::uint16_t value) {
    U8(static_cast<std::uint8_t>(value >> 8U));
    U8(static_cast<std::uint8_t>(value));
  }
  void U32(std::uint32_t value) {
    U16(static_cast<std::uint16_t>(value >> 16U));
    U16(static_cast<std::uint16_t>(value));
  }
  void U64(std::uint64_t value) {
    U32(static_cast<std::uint32_t>(value >> 32U));
    U32(static_cast<std::uint32_t>(value));
  }

private:
  std::byte* mTarget;
};

class TCPE_ByteReader {
public:
  explicit TCPE_ByteReader(const std::byte* source) : mSource(source) {}
  std::uint8_t U8() { return std::to_integer<std::uint8_t>(*mSource++); }
  std::uint16_t U16() {
    const std::uint16_t high = U8();
    return static_cast<std::uint16_t>(high << 8U | U8());
  }
  std::uint32_t U32() {
    const std::uint32_t high = U16();
    return high << 16U | U16();
  }
  std::uint64_t U64() {
    const std::uint64_t high = U32();
    return high << 32U | U32();
  }

private:
  const std::byte* mSource;
};
