#pragma once

#include "tcpe/protocol/TCPE_Frame.h"
#include "tcpe/protocol/TCPE_Hello.h"
#include "tcpe/protocol/TCPE_Numbering.h"
#include "tcpe/protocol/TCPE_SharedKeys.h"

#include <trel/TCPE_System.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

/// Writes and reads the datagrams by which systems find each other.
///
/// A query is as long as its reply, so that nobody can use a system to multiply traffic. With a key both carry a tag:
/// the query's shows that a system of this link asks from its address, the reply's that one with this address answers
/// this very query.
/// Thread-safe.
class TCPE_DiscoveryCodec {
public:
  enum class Kind : std::uint8_t { masters, satellites };

  /// What is asked, and what the asker must know to recognise the replies.
  struct Query {
    Kind kind = Kind::masters;
    std::uint32_t serial = 0;
    TCPE_Hello::Nonce nonce{};
    std::uint8_t senderSystemType = 0;
    std::uint32_t asker = 0;       ///< the address that the datagram comes from
    TCPE_SharedKeys::Key key = {}; ///< by which its tag is right, and that of the reply has to be; null: the first
  };
  struct Reply {
    TCPE_System system; ///< its address is the datagram's source
    bool isAvailable = false;
  };
  enum class Verdict : std::uint8_t {
    sound,
    malformed, ///< does not parse, or does not belong to the query
    otherNumbering,
    notAuthentic, ///< without a key: tagged; with one: not tagged, or wrongly
  };
  struct Config {
    std::uint8_t majorVersion = 0;
    std::uint8_t minorVersion = 0;
    TCPE_EngineTypes types = kTCPE_CurrentTypes;
    TCPE_SharedKeys keys{};
  };

  static constexpr std::size_t kPayloadSize = TCPE_System::kSystemNameSize + TCPE_System::kHostNameSize + 7;

  explicit TCPE_DiscoveryCodec(Config config) : mConfig(std::move(config)) {}

  /// Bytes of every datagram that this one writes.
  std::size_t Length() const { return TCPE_FrameHeader::kSize + kPayloadSize + (mConfig.keys ? kTCPE_TagSize : 0); }

  std::vector<std::byte> WriteQuery(const Query& query) const;
  Verdict ReadQuery(std::span<const std::byte> datagram, std::uint32_t source, Query* query) const;
  /// `address` is the answering system's, from which the datagram is sent.
  std::vector<std::byte> WriteReply(const Query& query, std::uint32_t address, const Reply& reply) const;
  Verdict ReadReply(std::span<const std::byte> datagram, const Query& query, std::uint32_t source, Reply* reply) const;

private:
  struct Parts {
    TCPE_FrameHeader header;
    std::span<const std::byte> frame, payload, tag;
  };

  TCPE_eCmd TypeOf(Kind kind) const;
  std::vector<std::byte> MakeFrame(const Query& query, std::uint8_t flags) const;
  Verdict TakeApart(std::span<const std::byte> datagram, Parts* parts) const;

  const Config mConfig;
};
