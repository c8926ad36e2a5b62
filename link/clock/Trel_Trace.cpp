#include "link/clock/Trel_Trace.h"

Trel_Trace::FacilityOnFunc Trel_Trace::mFacilityOn = nullptr;
Trel_Trace::FormatFunc Trel_Trace::mFormat = nullptr;
std::atomic<bool> Trel_Trace::mUsable{false};
