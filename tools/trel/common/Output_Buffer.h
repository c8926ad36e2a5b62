#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <iosfwd>
#include <streambuf>
#include <string>
#include <string_view>

/// Writes to a descriptor, for a stream. The first error ends that: nothing after it is written. So does a reader that
/// does not read, as soon as it is given up.
class Output_Buffer : public std::streambuf {
public:
  /// Told once why nothing more is written, on the thread that writes.
  using OnFailure = std::function<void(const std::string& reason)>;

  static constexpr std::chrono::milliseconds kForever = std::chrono::milliseconds::max();

  /// @param patience how long a reader may take nothing
  explicit Output_Buffer(int descriptor, OnFailure onFailure = {}, std::chrono::milliseconds patience = kForever);
  ~Output_Buffer() override;
  Output_Buffer(const Output_Buffer&) = delete;
  Output_Buffer& operator=(const Output_Buffer&) = delete;

  bool HasFailed() const { return !mReason.empty(); }
  /// Why, in words; empty while all has been written.
  const std::string& Reason() const { return mReason; }
  /// Takes nothing more, for that reason.
  void Fail(std::string reason);
  /// Ends the waiting for a reader soon, now and later; what then is not taken at once is not written. Thread-safe.
  void GiveUp() { mIsGivenUp = true; }
  /// ... for a stream, if it writes to such a buffer.
  static void GiveUp(const std::ostream& stream);

protected:
  int_type overflow(int_type character) override;
  int sync() override;

private:
  bool Write(std::string_view bytes);
  /// False when the reader is given up.
  bool AwaitReader();

  static constexpr std::size_t kSize = 16384;

  const int mGiven;
  const int mDescriptor; // the given one, or another way to the same pipe or terminal, on which no write blocks
  const bool mIsSocket;
  const OnFailure mOnFailure;
  const std::chrono::milliseconds mPatience;
  std::atomic<bool> mIsGivenUp = false;
  std::string mReason;
  std::array<char, kSize> mBytes = {};
};
