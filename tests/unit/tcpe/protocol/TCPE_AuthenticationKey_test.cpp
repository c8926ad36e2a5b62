#include "tcpe/protocol/TCPE_AuthenticationKey.h"

#include "tests/support/Hex.h"

#include <gtest/gtest.h>

namespace {

std::span<const std::byte> Bytes(std::string_view text) { return std::as_bytes(std::span(text)); }

/// The expected bytes come from another implementation of scrypt and HMAC.
TEST(TCPE_AuthenticationKey, GivesTheBytesThatOthersGive) {
  const auto key = TCPE_AuthenticationKey::FromSecret(Bytes("a secret of the studio"));
  ASSERT_NE(key, nullptr);
  const std::string expected = FromHex("ee3edbe2257f930026f1c5b042c3ffb8b429d73b6067db3299336216e4c01df5");
  const TCPE_AuthenticationKey::Mac mac = key->MakeMac("label", {Bytes("\x01\x02"), Bytes("\x03")});
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(mac.data()), mac.size()), expected);

  const auto derived = key->Derive("use", {Bytes("x")});
  const std::string tag = FromHex("a26b8a0650e61197ae9538f72d1f4749");
  EXPECT_TRUE(derived->Verify("", {Bytes("y")}, Bytes(tag)));
  EXPECT_FALSE(derived->Verify("", {Bytes("z")}, Bytes(tag)));
  EXPECT_FALSE(derived->Verify("", {Bytes("y")}, {}));
}

} // namespace
