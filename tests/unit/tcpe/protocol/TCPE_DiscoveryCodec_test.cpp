#include "tcpe/protocol/TCPE_DiscoveryCodec.h"

#include "tcpe/protocol/TCPE_AuthenticationKey.h"
#include "tests/support/Hex.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

using Codec = TCPE_DiscoveryCodec;
using Verdict = Codec::Verdict;

constexpr std::uint32_t kAnswerer = 0x0a000005;

std::shared_ptr<const TCPE_AuthenticationKey> Key(std::byte fill) {
  TCPE_AuthenticationKey::Mac bytes;
  bytes.fill(fill);
  return std::make_shared<const TCPE_AuthenticationKey>(bytes);
}

Codec Make(bool isCurrent, std::shared_ptr<const TCPE_AuthenticationKey> key = nullptr) {
  return Codec({.majorVersion = static_cast<std::uint8_t>(isCurrent ? 4 : 3),
                .minorVersion = 1,
                .types = isCurrent ? kTCPE_CurrentTypes : kTCPE_LegacyTypes,
                .keys = {std::move(key)}});
}

Codec::Query Question(Codec::Kind kind = Codec::Kind::satellites) {
  Codec::Query query{.kind = kind, .serial = 0x01020304, .senderSystemType = 1};
  query.nonce.fill(std::byte{0xee});
  return query;
}

Codec::Reply Answer() {
  Codec::Reply reply;
  reply.isAvailable = true;
  reply.system.SetSystemName("stage");
  reply.system.SetHostName("mac-7");
  reply.system.SetSystemType(eTCPE_SystemType_Satellite);
  reply.system.SetMajorVersion(4);
  reply.system.SetMinorVersion(1);
  return reply;
}

TEST(TCPE_DiscoveryCodec, WritesTheseBytes) {
  const std::string question = "ee*16 00*277";
  const std::string answer = "7374616765 00*25 6d61632d37 00*251 00000002 04 01 01";
  const struct {
    bool isCurrent;
    Codec::Kind kind;
    const char* start;
    const char* type;
  } cases[] = {{true, Codec::Kind::satellites, "01250401 00", "00000002"},
               {true, Codec::Kind::masters, "01250401 00", "00000003"},
               {false, Codec::Kind::satellites, "01250301 00", "fffffffe"},
               {false, Codec::Kind::masters, "01250301 00", "fffffffd"}};
  for (const auto& test : cases) {
    const Codec codec = Make(test.isCurrent);
    const auto expected = [&test](const std::string& flagsAndSystemTypes, const std::string& payload) {
      std::ostringstream text;
      text << test.start << ' ' << flagsAndSystemTypes << ' ' << test.type << " 01020304 00000000 " << payload;
      const std::string bytes = FromHex(text.str().c_str());
      const auto frame = std::as_bytes(std::span(bytes));
      std::vector<std::byte> sealed(frame.begin(), frame.end());
      TCPE_SealFrame(sealed);
      return sealed;
    };
    EXPECT_EQ(codec.WriteQuery(Question(test.kind)), expected("08 01 00", question));
    EXPECT_EQ(codec.WriteReply(Question(test.kind), kAnswerer, Answer()), expected("01 02 01", answer));
  }
}

/// While the secret is being changed: with the old, the old and the new, the new and the old, the new.
TEST(TCPE_DiscoveryCodec, WhoAsksByEitherSecretIsAnsweredByTheSame) {
  const auto old = Key(std::byte{1}), changed = Key(std::byte{2});
  const TCPE_SharedKeys steps[] = {{old}, {old, changed}, {changed, old}, {changed}};
  for (int asking = 0; asking < 4; ++asking) {
    for (int answering = 0; answering < 4; ++answering) {
      const Codec asker({.majorVersion = 4, .keys = steps[asking]});
      const Codec answerer({.majorVersion = 4, .keys = steps[answering]});
      Codec::Query query = Question();
      Codec::Reply reply;
      const bool isKnown = answerer.ReadQuery(asker.WriteQuery(query), 0, &query) == Verdict::sound;
      EXPECT_EQ(isKnown, (asking < 2 && answering < 3) || (asking >= 2 && answering > 0)) << asking << answering;
      const std::vector<std::byte> answer = answerer.WriteReply(query, kAnswerer, Answer());
      EXPECT_EQ(isKnown ? asker.ReadReply(answer, Question(), kAnswerer, &reply) : Verdict::sound, Verdict::sound);
    }
  }
}

TEST(TCPE_DiscoveryCodec, TellsWhyItTakesNoDatagram) {
  const Codec open = Make(true);
  const Codec locked = Make(true, Key(std::byte{1}));
  const Codec otherLock = Make(true, Key(std::byte{2}));
  const Codec legacy = Make(false);
  Codec::Query query;
  EXPECT_EQ(legacy.ReadQuery(open.WriteQuery(Question()), 0, &query), Verdict::otherNumbering);
  EXPECT_EQ(locked.ReadQuery(open.WriteQuery(Question()), 0, &query), Verdict::notAuthentic);
  EXPECT_EQ(open.ReadQuery(locked.WriteQuery(Question()), 0, &query), Verdict::notAuthentic);
  EXPECT_EQ(otherLock.ReadQuery(locked.WriteQuery(Question()), 0, &query), Verdict::notAuthentic);
  EXPECT_EQ(open.ReadQuery(open.WriteReply(Question(), kAnswerer, Answer()), 0, &query), Verdict::malformed);

  Codec::Reply reply;
  const auto read = [&reply](const Codec& codec, const std::vector<std::byte>& datagram, const Codec::Query& asked,
                             std::uint32_t source = kAnswerer) {
    return codec.ReadReply(datagram, asked, source, &reply);
  };
  const std::vector<std::byte> answer = open.WriteReply(Question(), kAnswerer, Answer());
  const std::vector<std::byte> tagged = locked.WriteReply(Question(), kAnswerer, Answer());
  EXPECT_EQ(read(legacy, answer, Question()), Verdict::otherNumbering);
  EXPECT_EQ(read(open, answer, Question(Codec::Kind::masters)), Verdict::malformed);
  EXPECT_EQ(read(open, open.WriteQuery(Question()), Question()), Verdict::malformed);
  EXPECT_EQ(read(locked, answer, Question()), Verdict::notAuthentic);
  EXPECT_EQ(read(open, tagged, Question()), Verdict::notAuthentic);
  EXPECT_EQ(read(locked, tagged, Question()), Verdict::sound);
  EXPECT_EQ(read(locked, tagged, Question(), kAnswerer + 1), Verdict::notAuthentic);
  Codec::Query other = Question();
  other.nonce[0] = std::byte{0};
  EXPECT_EQ(read(locked, tagged, other), Verdict::notAuthentic);
  other = Question();
  ++other.serial;
  EXPECT_EQ(read(open, answer, other), Verdict::malformed);
  for (std::size_t i = 0; i < tagged.size(); ++i) {
    std::vector<std::byte> changed = tagged;
    changed[i] ^= std::byte{4};
    EXPECT_NE(read(locked, changed, Question()), Verdict::sound) << i;
  }
}

} // namespace
