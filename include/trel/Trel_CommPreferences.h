#pragma once

#include <trel/TCPE_CommPreferences.h>

/// What the link is told before it starts: interface address 0 and port 28282 unless set otherwise.
class TREL_EXPORT Trel_CommPreferences : public TCPE_CommPreferences {
public:
  static constexpr std::uint16_t kDefaultCommunicationPort = 28282;

  Trel_CommPreferences();

  /// The instance of the process, never null. Thread-safe; setting its fields is not, so set them before
  /// Trel_CommManager::Initialize reads them.
  static Trel_CommPreferences* Inst();
};
