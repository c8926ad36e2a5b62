#pragma once

#include <trel/TCPE_System.h>
#include <trel/Trel_Export.h>

/// One linked system, as the system lists hold it. Constructed empty.
///
/// A plain value: no operation blocks, takes a lock or allocates. One thread at a time may change an object.
class TREL_EXPORT Trel_System : public TCPE_System {
public:
  /// Ordered by IPv4 address alone: a set or map of systems holds one of each address.
  bool operator<(const Trel_System& other) const;
};
