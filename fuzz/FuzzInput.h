#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

/// Takes a fuzzer's input apart; zeros follow its end.
class FuzzInput {
public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : mRest(reinterpret_cast<const char*>(data), size) {}
  bool IsEmpty() const { return mRest.empty(); }
  std::uint8_t U8() {
    const std::string byte = Bytes(1);
    return byte.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(byte[0]);
  }
  std::uint16_t U16() {
    const std::uint16_t high = U8();
    return static_cast<std::uint16_t>(high << 8U | U8());
  }
  std::string Bytes(std::size_t count) {
    const std::string bytes = mRest.substr(0, count);
    mRest.erase(0, count);
    return bytes;
  }

private:
  std::string mRest;
};
