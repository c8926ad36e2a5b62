#pragma once
#include <trel/TCPE_CommManager.h>
class Trel_CommManager {
public:
  static TCPE_System* GetLocalSystem();
};
