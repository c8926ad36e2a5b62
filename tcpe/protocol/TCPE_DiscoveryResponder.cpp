#include "tcpe/protocol/TCPE_DiscoveryResponder.h"

#include <limits>
#include <utility>

TCPE_DiscoveryResponder::TCPE_DiscoveryResponder(Config config)
    : mConfig(std::move(config)), mCodec(mConfig.datagrams), mRate(mConfig.limits),
      mKnownNonces(mConfig.limits.maxKnownQueries) {}

void TCPE_DiscoveryResponder::Received(std::span<const std::byte> datagram, const Asker& from, bool wasBroadcast,
                                       TCPE_Time now) {
  TCPE_DiscoveryCodec::Query query;
  TCPE_DiscoveryCodec::Verdict verdict = mCodec.ReadQuery(datagram, from.address, &query);
  if (mConfig.datagrams.keys && verdict == TCPE_DiscoveryCodec::Verdict::sound && !mKnownNonces.Add(query.nonce)) {
    verdict = TCPE_DiscoveryCodec::Verdict::notAuthentic; // somebody has recorded it
  }
  mCounters.Count(verdict);
  const bool looksForSatellites = query.kind == TCPE_DiscoveryCodec::Kind::satellites;
  if (verdict != TCPE_DiscoveryCodec::Verdict::sound || from.port == 0 ||
      looksForSatellites != mConfig.describe().isSatellite) {
    return;
  }
  if (mDue.size() >= mConfig.limits.maxDueAnswers || !mRate.Take(from.address, now)) {
    ++mCounters.beyondRate;
    return;
  }
  const auto delays = static_cast<std::uint64_t>(mConfig.limits.answerDelay) + 1;
  const TCPE_Time delay = wasBroadcast ? static_cast<TCPE_Time>(mConfig.random() % delays) : 0;
  mDue.emplace(now + delay, Due{from, query});
}

std::optional<TCPE_DiscoveryResponder::Answer> TCPE_DiscoveryResponder::NextAnswer(std::uint32_t localAddress,
                                                                                   TCPE_Time now) {
  if (mDue.empty() || mDue.begin()->first > now) {
    return std::nullopt;
  }
  const Due due = mDue.extract(mDue.begin()).mapped();
  return Answer{due.to, mCodec.WriteReply(due.query, localAddress, mConfig.describe().reply)};
}

TCPE_Time TCPE_DiscoveryResponder::NextDeadline() const {
  return mDue.empty() ? std::numeric_limits<TCPE_Time>::max() : mDue.begin()->first;
}
