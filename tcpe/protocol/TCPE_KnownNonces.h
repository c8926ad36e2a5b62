#pragma once

#include "tcpe/protocol/TCPE_Hello.h"

#include <cstddef>
#include <deque>
#include <set>

/// The latest nonces, so that what carries one again is recognised.
class TCPE_KnownNonces {
public:
  explicit TCPE_KnownNonces(std::size_t most) : mMost(most) {}

  /// False when it is known already. The oldest is forgotten when there are too many.
  bool Add(const TCPE_Hello::Nonce& nonce) {
    const auto [position, isNew] = mNonces.insert(nonce);
    if (isNew) {
      mOldestFirst.push_back(position);
    }
    if (mOldestFirst.size() > mMost) {
      mNonces.erase(mOldestFirst.front());
      mOldestFirst.pop_front();
    }
    return isNew;
  }

private:
  const std::size_t mMost;
  std::set<TCPE_Hello::Nonce> mNonces;
  std::deque<std::set<TCPE_Hello::Nonce>::iterator> mOldestFirst;
};
