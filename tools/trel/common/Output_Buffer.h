#pragma once

#include <array>
#include <functional>
#include <streambuf>
#include <string>
#include <string_view>

/// Writes to a descriptor, for a stream. The first error ends that: nothing after it is written.
class Output_Buffer : public std::streambuf {
public:
  /// Told once why nothing more is written, on the thread that writes.
  using OnFailure = std::function<void(const std::string& reason)>;

  explicit Output_Buffer(int descriptor, OnFailure onFailure = {});
  Output_Buffer(const Output_Buffer&) = delete;
  Output_Buffer& operator=(const Output_Buffer&) = delete;

  bool HasFailed() const { return !mReason.empty(); }
  /// Why, in words; empty while all has been written.
  const std::string& Reason() const { return mReason; }
  /// Takes nothing more, for that reason.
  void Fail(std::string reason);

protected:
  int_type overflow(int_type character) override;
  int sync() override;

private:
  bool Write(std::string_view bytes);

  static constexpr std::size_t kSize = 16384;

  const int mDescriptor;
  const OnFailure mOnFailure;
  std::string mReason;
  std::array<char, kSize> mBytes = {};
};
