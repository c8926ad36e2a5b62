#include "fuzz/FuzzInput.h"
#include "tcpe/protocol/TCPE_AuthenticationKey.h"
#include "tcpe/protocol/TCPE_DiscoveryResponder.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

// Datagrams at the answering and at the asking side. Input: 1: with a key, 2: legacy numbering, 4: a satellite; then
// steps: an operation, and what it takes.

namespace {

using Codec = TCPE_DiscoveryCodec;

constexpr std::uint32_t kOwnAddress = 10;
constexpr int kMostSteps = 64; // more find nothing that as many do not, and take longer

void Require(bool holds) {
  if (!holds) {
    throw std::logic_error("a datagram was answered or read that must not be, or an answer is too long");
  }
}

std::vector<std::byte> Datagram(FuzzInput& input, bool isSealed) {
  const std::string bytes = input.Bytes(input.U16() % 2048);
  const auto view = std::as_bytes(std::span(bytes));
  std::vector<std::byte> datagram(view.begin(), view.end());
  if (isSealed && datagram.size() >= TCPE_FrameHeader::kSize) {
    TCPE_SealFrame(datagram);
  }
  return datagram;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::uint8_t kind = input.U8();
  Codec::Config config{.majorVersion = static_cast<std::uint8_t>((kind & 2U) != 0 ? 3 : 4),
                       .minorVersion = 1,
                       .types = (kind & 2U) != 0 ? kTCPE_LegacyTypes : kTCPE_CurrentTypes};
  if ((kind & 1U) != 0) {
    config.keys.proved = std::make_shared<const TCPE_AuthenticationKey>(TCPE_AuthenticationKey::Mac{});
  }
  const Codec codec(config);
  TCPE_DiscoveryResponder::Self self;
  self.isSatellite = (kind & 4U) != 0;
  std::uint64_t random = 0;
  TCPE_DiscoveryResponder responder({.limits = {},
                                     .datagrams = config,
                                     .describe = [&self] { return self; },
                                     .random = [&random] { return ++random; }});
  TCPE_Time now = 0;
  std::size_t longestQuery = 0;
  for (int step = 0; step < kMostSteps && !input.IsEmpty(); ++step) {
    const std::uint8_t operation = input.U8();
    const TCPE_DiscoveryResponder::Asker asker{std::uint32_t{operation} >> 4U, 1000};
    const bool wasBroadcast = (operation & 8U) != 0;
    const auto receive = [&](const std::vector<std::byte>& datagram) {
      longestQuery = std::max(longestQuery, datagram.size());
      responder.Received(datagram, asker, wasBroadcast, now);
    };
    switch (operation & 7U) {
    case 0:
    case 1:
      receive(Datagram(input, (operation & 1U) != 0));
      break;
    case 2:
      for (std::uint8_t times = input.U8() % 32; times > 0; --times) {
        Codec::Query query{.kind = self.isSatellite ? Codec::Kind::satellites : Codec::Kind::masters,
                           .asker = asker.address};
        query.nonce[0] = std::byte{times};
        receive(codec.WriteQuery(query));
      }
      break;
    case 3: {
      const std::string name = input.Bytes(input.U8());
      self.reply.system.SetSystemName(name.c_str());
      self.reply.system.SetHostName(name.c_str());
      break;
    }
    case 4:
    case 5: {
      Codec::Reply reply;
      const std::vector<std::byte> datagram = Datagram(input, (operation & 1U) != 0);
      const Codec::Verdict verdict = codec.ReadReply(datagram, {.serial = asker.address}, kOwnAddress, &reply);
      Require(verdict != Codec::Verdict::sound || datagram.size() >= codec.Length());
      break;
    }
    default:
      now += input.U16();
    }
    while (const auto answer = responder.NextAnswer(kOwnAddress, now)) {
      Require(answer->datagram.size() == codec.Length() && codec.Length() <= longestQuery);
    }
  }
  return 0;
}
