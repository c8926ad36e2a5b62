#pragma once

#include <cstdint>
#include <deque>
#include <string>

/// The words after a command's name. Each operation takes the next one and throws Host_UsageError when it is not as it
/// has to be.
class Host_Arguments {
public:
  explicit Host_Arguments(const std::string& text);

  bool IsEmpty() const { return mWords.empty(); }
  /// Whether the next word is this one; then it is taken.
  bool Skip(const char* word);
  bool IsNext(const char* word) const { return !mWords.empty() && mWords.front() == word; }
  std::string TakeWord(const char* what);
  bool TakeSwitch();
  std::uint32_t TakeAddress();
  std::int64_t TakeNumber(const char* what);
  /// "500ms", "2s", "1.5s", "250us", "0": in microseconds.
  std::int64_t TakeTime(const char* what);
  /// All that is left, with blanks between the words as they were.
  std::string TakeText(const char* what);
  /// Throws when something is left.
  void ExpectEnd() const;

private:
  std::string mText; // from the first word that is left on
  std::deque<std::string> mWords;
};
