#include "tcpe/protocol/TCPE_DiscoveryCodec.h"

#include "tcpe/protocol/TCPE_Bytes.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kQueryLabel = "discovery query";
constexpr std::string_view kReplyLabel = "discovery reply";

constexpr std::size_t kHostNameOffset = TCPE_System::kSystemNameSize;
constexpr std::size_t kNumbersOffset = kHostNameOffset + TCPE_System::kHostNameSize;

using Bytes = std::span<const std::byte>;
using AddressBytes = std::array<std::byte, sizeof(std::uint32_t)>;

AddressBytes BytesOf(std::uint32_t address) {
  AddressBytes bytes{};
  TCPE_ByteWriter(bytes.data()).U32(address);
  return bytes;
}

void AppendTag(std::vector<std::byte>& datagram, const TCPE_AuthenticationKey::Mac& mac) {
  datagram.insert(datagram.end(), mac.begin(), mac.begin() + kTCPE_TagSize);
}

template <std::size_t Size>
std::array<char, Size> ReadText(Bytes source) {
  std::array<char, Size> text{};
  std::memcpy(text.data(), source.data(), Size - 1); // the last byte is zero, whatever came
  return text;
}

} // namespace

std::vector<std::byte> TCPE_DiscoveryCodec::WriteQuery(const Query& query) const {
  std::vector<std::byte> datagram = MakeFrame(query, kTCPE_Flag_ReplyWanted);
  std::copy(query.nonce.begin(), query.nonce.end(), datagram.begin() + TCPE_FrameHeader::kSize);
  TCPE_SealFrame(datagram);
  if (mConfig.keys) {
    AppendTag(datagram, mConfig.keys.proved->MakeMac(kQueryLabel, {BytesOf(query.asker), datagram}));
  }
  return datagram;
}

TCPE_DiscoveryCodec::Verdict TCPE_DiscoveryCodec::ReadQuery(Bytes datagram, std::uint32_t source, Query* query) const {
  Parts parts;
  if (const Verdict verdict = TakeApart(datagram, &parts); verdict != Verdict::sound) {
    return verdict;
  }
  const bool asksForMasters = parts.header.type == mConfig.types.discoverMasterSystems;
  if ((!asksForMasters && parts.header.type != mConfig.types.discoveryRequest) ||
      parts.header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply)) {
    return Verdict::malformed;
  }
  if (mConfig.keys) {
    query->key = mConfig.keys.Find(kQueryLabel, {BytesOf(source), parts.frame}, parts.tag);
    if (query->key == nullptr) {
      return Verdict::notAuthentic;
    }
  }
  query->kind = asksForMasters ? Kind::masters : Kind::satellites;
  query->serial = parts.header.serial;
  query->senderSystemType = parts.header.senderSystemType;
  query->asker = source;
  std::copy_n(parts.payload.begin(), query->nonce.size(), query->nonce.begin());
  return Verdict::sound;
}

std::vector<std::byte> TCPE_DiscoveryCodec::WriteReply(const Query& query, std::uint32_t address,
                                                       const Reply& reply) const {
  Query mirrored = query;
  mirrored.senderSystemType = static_cast<std::uint8_t>(reply.system.GetSystemType());
  std::vector<std::byte> datagram = MakeFrame(mirrored, kTCPE_Flag_Reply);
  constexpr std::size_t kReceiverSystemTypeOffset = 7;
  datagram[kReceiverSystemTypeOffset] = std::byte{query.senderSystemType};
  std::byte* payload = datagram.data() + TCPE_FrameHeader::kSize;
  std::memcpy(payload, reply.system.GetSystemName(), std::strlen(reply.system.GetSystemName()));
  std::memcpy(payload + kHostNameOffset, reply.system.GetHostName(), std::strlen(reply.system.GetHostName()));
  TCPE_ByteWriter numbers(payload + kNumbersOffset);
  numbers.U32(static_cast<std::uint32_t>(reply.system.GetSystemType()));
  numbers.U8(reply.system.GetMajorVersion());
  numbers.U8(reply.system.GetMinorVersion());
  numbers.U8(reply.isAvailable ? 1 : 0);
  TCPE_SealFrame(datagram);
  if (mConfig.keys) {
    const TCPE_SharedKeys::Key& key = query.key != nullptr ? query.key : mConfig.keys.proved;
    AppendTag(datagram, key->MakeMac(kReplyLabel, {query.nonce, BytesOf(address), datagram}));
  }
  return datagram;
}

TCPE_DiscoveryCodec::Verdict TCPE_DiscoveryCodec::ReadReply(Bytes datagram, const Query& query, std::uint32_t source,
                                                            Reply* reply) const {
  Parts parts;
  if (const Verdict verdict = TakeApart(datagram, &parts); verdict != Verdict::sound) {
    return verdict;
  }
  if (parts.header.type != TypeOf(query.kind) || parts.header.serial != query.serial ||
      !parts.header.Has(kTCPE_Flag_Reply) || parts.header.Has(kTCPE_Flag_ErrorReply | kTCPE_Flag_ReplyWanted)) {
    return Verdict::malformed;
  }
  if (mConfig.keys &&
      !mConfig.keys.proved->Verify(kReplyLabel, {query.nonce, BytesOf(source), parts.frame}, parts.tag)) {
    return Verdict::notAuthentic;
  }
  reply->system.SetSystemName(ReadText<TCPE_System::kSystemNameSize>(parts.payload).data());
  reply->system.SetHostName(ReadText<TCPE_System::kHostNameSize>(parts.payload.subspan(kHostNameOffset)).data());
  TCPE_ByteReader numbers(parts.payload.data() + kNumbersOffset);
  reply->system.SetSystemType(static_cast<ETCPE_SystemType>(numbers.U32()));
  reply->system.SetMajorVersion(numbers.U8());
  reply->system.SetMinorVersion(numbers.U8());
  reply->isAvailable = numbers.U8() == 1;
  reply->system.SetIPAddress(source);
  return Verdict::sound;
}

TCPE_eCmd TCPE_DiscoveryCodec::TypeOf(Kind kind) const {
  return kind == Kind::masters ? mConfig.types.discoverMasterSystems : mConfig.types.discoveryRequest;
}

std::vector<std::byte> TCPE_DiscoveryCodec::MakeFrame(const Query& query, std::uint8_t flags) const {
  const TCPE_FrameHeader header{.majorVersion = mConfig.majorVersion,
                                .minorVersion = mConfig.minorVersion,
                                .flags = static_cast<std::uint8_t>(flags | (mConfig.keys ? kTCPE_Flag_Tag : 0)),
                                .senderSystemType = query.senderSystemType,
                                .type = TypeOf(query.kind),
                                .serial = query.serial};
  std::vector<std::byte> frame;
  frame.reserve(Length());
  frame.resize(TCPE_FrameHeader::kSize + kPayloadSize);
  header.Write(frame.data());
  return frame;
}

/// What queries and replies have in common: a well-formed frame of this numbering with a whole payload, tagged exactly
/// when there is a key.
TCPE_DiscoveryCodec::Verdict TCPE_DiscoveryCodec::TakeApart(Bytes datagram, Parts* parts) const {
  if (datagram.size() < TCPE_FrameHeader::kSize) {
    return Verdict::malformed;
  }
  const TCPE_FrameHeader header = TCPE_FrameHeader::Read(datagram.data());
  const std::size_t frameSize = TCPE_FrameHeader::kSize + header.dataLength;
  const bool isTagged = header.Has(kTCPE_Flag_Tag);
  if ((header.flags & ~kTCPE_Flags_Known) != 0 || datagram.size() != frameSize + (isTagged ? kTCPE_TagSize : 0)) {
    return Verdict::malformed;
  }
  const Bytes frame = datagram.first(frameSize);
  if (TCPE_FrameChecksum(frame) != header.checksum) {
    return Verdict::malformed;
  }
  if (header.majorVersion != mConfig.majorVersion) {
    return Verdict::otherNumbering;
  }
  if (header.dataLength < kPayloadSize) {
    return Verdict::malformed;
  }
  if (isTagged != static_cast<bool>(mConfig.keys)) {
    return Verdict::notAuthentic;
  }
  *parts = {header, frame, frame.subspan(TCPE_FrameHeader::kSize), datagram.subspan(frameSize)};
  return Verdict::sound;
}
