#include <trel/Cmn_Printable.h>

#include <gtest/gtest.h>

namespace {

TEST(Cmn_PrintableTest, LeavesOnlyCharactersThatPrint) {
  const struct {
    std::string_view text;
    std::string_view printable;
  } cases[] = {{"Stage \xc3\x9c\xe6\x9d\xb1\xf0\x9f\x8e\xb5", "Stage \xc3\x9c\xe6\x9d\xb1\xf0\x9f\x8e\xb5"},
               {"a\nb\x1b[2J\x7f", "a?b?[2J?"},
               {std::string_view("\0x", 2), "?x"},
               {"\xc2\x9b\xc2\xa0", "?\xc2\xa0"},                   // C1
               {"a\xe2\x80\xaez\xe2\x80\xa8", "a?z?"},              // turned, and a line
               {"\xe2\x81\xa6\xef\xbb\xbf\xf3\xa0\x81\x81", "???"}, // isolated, a mark, a tag
               {"\xe0\xb8\x81\xe2\x80\x8d", "\xe0\xb8\x81\xe2\x80\x8d"},
               {"\xc0\x8a\x80\xff", "????"},
               {"\xe0\x80\x8a\xed\xa0\x80\xf4\x90\x80\x80", "??????????"}, // too long, half a pair, beyond the last
               {"\xe6\x9d", "??"}};
  for (const auto& test : cases) {
    EXPECT_EQ(Cmn_Printable(test.text), test.printable);
  }
}

} // namespace
