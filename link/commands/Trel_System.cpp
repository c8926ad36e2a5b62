#include <trel/Trel_System.h>

bool Trel_System::operator<(const Trel_System& other) const { return GetIPAddress() < other.GetIPAddress(); }
