#include "tcpe/protocol/TCPE_AuthenticationKey.h"

#include "foundation/Sys_Wipe.h"

#include <algorithm>

#include <gcrypt.h>

namespace {

// All systems of a link derive the same key without having talked: the salt is the application's.
constexpr std::string_view kSalt = "Trel shared secret";
constexpr int kScryptCost = 16384; // N; the library's block size r is 8
constexpr unsigned long kScryptParallelization = 1;

/// The host may use the library too, and then has set it up as it likes.
bool PrepareLibrary() {
  static const bool isReady = [] {
    if (gcry_check_version("1.8.0") == nullptr) {
      return false;
    }
    return gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) != 0 ||
           (gcry_control(GCRYCTL_DISABLE_SECMEM, 0) == 0 && gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0) == 0);
  }();
  return isReady;
}

/// One calculation of the library.
class Hmac {
public:
  Hmac(std::span<const std::byte> key, std::string_view label, TCPE_AuthenticationKey::Parts parts) {
    mIsSound = PrepareLibrary() && gcry_mac_open(&mHandle, GCRY_MAC_HMAC_SHA256, 0, nullptr) == 0 &&
               gcry_mac_setkey(mHandle, key.data(), key.size()) == 0;
    if (!label.empty()) {
      Add(std::as_bytes(std::span(label)));
      Add(std::as_bytes(std::span("", 1)));
    }
    for (const std::span<const std::byte> part : parts) {
      Add(part);
    }
  }
  ~Hmac() { gcry_mac_close(mHandle); }
  Hmac(const Hmac&) = delete;
  Hmac& operator=(const Hmac&) = delete;

  bool Read(std::span<std::byte> mac) {
    std::size_t size = mac.size();
    return mIsSound && gcry_mac_read(mHandle, mac.data(), &size) == 0;
  }
  bool Verify(std::span<const std::byte> mac) {
    return mIsSound && gcry_mac_verify(mHandle, mac.data(), mac.size()) == 0;
  }

private:
  void Add(std::span<const std::byte> part) {
    mIsSound = mIsSound && (part.empty() || gcry_mac_write(mHandle, part.data(), part.size()) == 0);
  }

  gcry_mac_hd_t mHandle = nullptr;
  bool mIsSound = false;
};

} // namespace

TCPE_AuthenticationKey::TCPE_AuthenticationKey(const Mac& bytes) : mBytes(bytes.size()) {
  std::copy(bytes.begin(), bytes.end(), mBytes.Bytes().begin());
}

std::shared_ptr<const TCPE_AuthenticationKey> TCPE_AuthenticationKey::FromSecret(std::span<const std::byte> secret) {
  Mac bytes{};
  const bool isDerived =
      PrepareLibrary() && gcry_kdf_derive(secret.data(), secret.size(), GCRY_KDF_SCRYPT, kScryptCost, kSalt.data(),
                                          kSalt.size(), kScryptParallelization, bytes.size(), bytes.data()) == 0;
  auto key = isDerived ? std::make_shared<const TCPE_AuthenticationKey>(bytes) : nullptr;
  Sys_Wipe(bytes);
  return key;
}

std::unique_ptr<const TCPE_AuthenticationKey> TCPE_AuthenticationKey::Derive(std::string_view label,
                                                                             Parts parts) const {
  Mac bytes = MakeMac(label, parts);
  auto key = std::make_unique<const TCPE_AuthenticationKey>(bytes);
  Sys_Wipe(bytes);
  return key;
}

TCPE_AuthenticationKey::Mac TCPE_AuthenticationKey::MakeMac(std::string_view label, Parts parts) const {
  Mac mac{};
  if (!Hmac(mBytes.Bytes(), label, parts).Read(mac)) {
    gcry_randomize(mac.data(), mac.size(), GCRY_STRONG_RANDOM);
  }
  return mac;
}

bool TCPE_AuthenticationKey::Verify(std::string_view label, Parts parts, std::span<const std::byte> mac) const {
  return !mac.empty() && mac.size() <= kSize && Hmac(mBytes.Bytes(), label, parts).Verify(mac);
}

TCPE_Hello::Nonce TCPE_AuthenticationKey::MakeNonce() {
  TCPE_Hello::Nonce nonce;
  PrepareLibrary();
  gcry_randomize(nonce.data(), nonce.size(), GCRY_STRONG_RANDOM);
  return nonce;
}
