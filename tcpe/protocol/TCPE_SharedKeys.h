#pragma once

#include "tcpe/protocol/TCPE_AuthenticationKey.h"

#include <memory>
#include <span>
#include <string_view>

/// The keys of the secrets that this system shares: the one that it proves, and while the secret is being changed the
/// other one, which it accepts too. So a link goes on whose systems are restarted one after the other: with the old
/// secret and the new, then with the new and the old, then with the new alone.
struct TCPE_SharedKeys {
  using Key = std::shared_ptr<const TCPE_AuthenticationKey>;

  Key proved{};   ///< null: no secret is shared
  Key accepted{}; ///< null: no other one

  explicit operator bool() const { return proved != nullptr; }

  /// The key of which `mac` is the code of the label and the parts, or the beginning of it; null when it is of none.
  Key Find(std::string_view label, TCPE_AuthenticationKey::Parts parts, std::span<const std::byte> mac) const {
    for (const Key& key : {proved, accepted}) {
      if (key != nullptr && key->Verify(label, parts, mac)) {
        return key;
      }
    }
    return nullptr;
  }
};
