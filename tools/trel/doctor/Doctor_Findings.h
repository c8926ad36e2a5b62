#pragma once

#include <string>

/// What the doctor tells: one finding after the other, at once.
class Doctor_Findings {
public:
  explicit Doctor_Findings(bool isJson) : mIsJson(isJson) {}

  /// All is well with it.
  void Well(const std::string& check, const std::string& text);
  /// Worth knowing, and perhaps no fault; `advice` says what to do about it.
  void Notice(const std::string& check, const std::string& text, const std::string& advice);
  void Problem(const std::string& check, const std::string& text, const std::string& advice);

  int Problems() const { return mProblems; }

private:
  void Tell(const char* status, const std::string& check, const std::string& text, const std::string& advice) const;

  bool mIsJson;
  int mProblems = 0;
};
