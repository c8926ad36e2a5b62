#include <trel/Trel_CommPreferences.h>

Trel_CommPreferences::Trel_CommPreferences() : TCPE_CommPreferences(0, kDefaultCommunicationPort) {}

Trel_CommPreferences* Trel_CommPreferences::Inst() {
  static Trel_CommPreferences instance;
  return &instance;
}
