#include "tcpe/net/TCPE_DiscoveryClient.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_UDPSocket.h>

#include <algorithm>
#include <any>
#include <array>
#include <set>

namespace {

constexpr TCPE_Time kMicrosecondsPerMillisecond = 1000;
constexpr TCPE_Time kLookWhetherStopping = 50'000;

} // namespace

/// What a socket asked, and what came of it.
struct TCPE_DiscoveryClient::Question {
  TCPE_DiscoveryCodec::Query query;
  TCPE_Time waited = 0;                ///< less than a millisecond: what the caller's remaining time does not tell yet
  std::set<std::uint32_t> answering{}; ///< one that repeats itself must not use up the room of the others
};

bool TCPE_DiscoveryClient::Ask(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Query query, std::uint32_t localAddress,
                               std::uint32_t address, std::uint16_t port) {
  query.asker = localAddress;
  socket.Bind(localAddress, 0); // from any other address the tag would be wrong; fails when the socket is bound
  socket.Attachment() = Question{query};
  const auto datagram = mCodec.WriteQuery(query);
  const TCPE_ByteTap::Turn turn(mTap);
  const bool isSent = socket.Send(datagram, address, port);
  if (turn && isSent) {
    turn.TellDatagram(TCPE_TappedBytes::Event::sent, {localAddress, socket.GetPort()}, {address, port}, datagram);
  }
  return isSent;
}

bool TCPE_DiscoveryClient::Receive(Sys_UDPSocket& socket, Kind kind, std::uint32_t localAddress,
                                   std::int32_t* remainingMilliseconds, TCPE_DiscoveryCodec::Reply* reply) {
  auto* question = std::any_cast<Question>(&socket.Attachment());
  if (question == nullptr || question->query.kind != kind || *remainingMilliseconds <= 0) {
    *remainingMilliseconds = 0;
    return false;
  }
  const TCPE_Time begin = Sys_Clock::RawMicroseconds() - question->waited;
  const TCPE_Time end = begin + *remainingMilliseconds * kMicrosecondsPerMillisecond;
  const bool hasReply = ReceiveUntil(end, socket, *question, localAddress, reply);
  const TCPE_Time waited = hasReply ? std::min(end, Sys_Clock::RawMicroseconds()) - begin : end - begin;
  *remainingMilliseconds -= static_cast<std::int32_t>(waited / kMicrosecondsPerMillisecond);
  question->waited = waited % kMicrosecondsPerMillisecond;
  return hasReply;
}

bool TCPE_DiscoveryClient::ReceiveUntil(TCPE_Time end, Sys_UDPSocket& socket, Question& question,
                                        std::uint32_t localAddress, TCPE_DiscoveryCodec::Reply* reply) {
  std::array<std::byte, 2048> buffer{}; // more than any datagram of ours; longer ones are cut and do not parse
  for (TCPE_Time now = Sys_Clock::RawMicroseconds(); now < end && !mIsStopping; now = Sys_Clock::RawMicroseconds()) {
    std::size_t size = 0;
    switch (socket.Receive(buffer, std::min(end - now, kLookWhetherStopping), &size)) {
    case Sys_UDPSocket::Result::failed:
      return false;
    case Sys_UDPSocket::Result::timedOut:
      continue;
    case Sys_UDPSocket::Result::received:
      break;
    }
    const std::uint32_t source = socket.GetReplyAddress();
    if (const TCPE_ByteTap::Turn turn(mTap); turn) {
      turn.TellDatagram(TCPE_TappedBytes::Event::received, {localAddress, socket.GetPort()},
                        {source, socket.GetReplyPort()}, std::span(buffer).first(size));
    }
    const TCPE_DiscoveryCodec::Verdict verdict =
        mCodec.ReadReply(std::span(buffer).first(size), question.query, source, reply);
    mCounters.Count(verdict);
    if (verdict != TCPE_DiscoveryCodec::Verdict::sound || source == localAddress) {
      continue;
    }
    if (question.answering.size() < mMaxAnswering) {
      question.answering.insert(source);
    }
    if (question.answering.contains(source)) {
      return true;
    }
    ++mCounters.beyondRate;
  }
  return false;
}
