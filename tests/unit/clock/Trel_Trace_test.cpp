#include "link/clock/Trel_Trace.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

int sAnswer = 0;
int IsActive() { return sAnswer; }
void Unused() { ADD_FAILURE() << "called"; }

/// Binds a trace library that lacks one name; returns the names that it was asked for.
std::vector<std::string> Bind(int answer, const std::string& missing = "") {
  sAnswer = answer;
  std::vector<std::string> asked;
  Trel_Trace::Bind([&](const std::string& name) {
    asked.push_back(name);
    return name == missing                   ? nullptr
           : name == "VornTraceIsActiveFunc" ? reinterpret_cast<Sys_DynamicLibrary::Function>(&IsActive)
                                             : &Unused;
  });
  return asked;
}

TEST(Trel_Trace, BindsEveryEntryPointOrNone) {
  const std::vector<std::string> names = Bind(1);
  EXPECT_EQ(names.size(), 16U);
  for (const std::string& name : names) {
    Bind(1, name);
    EXPECT_FALSE(Trel_Trace::IsUsable()) << name;
  }
  for (const int answer : {0, 0x100, 0x101, 0x80, -1}) {
    Bind(answer);
    EXPECT_EQ(Trel_Trace::IsUsable(), (answer & 0xff) != 0) << answer;
  }
  Trel_Trace::Bind([](const char*) { return nullptr; });
}

} // namespace
