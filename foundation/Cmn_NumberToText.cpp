#include <trel/Cmn_NumberToText.h>

// std::to_string prints integers as "%d" does: no locale takes part.

std::string Cmn_Int32ToString(std::int32_t number) { return std::to_string(number); }

std::string Cmn_UInt32ToString(std::uint32_t number) { return std::to_string(number); }

std::string Cmn_Int64ToString(std::int64_t number) { return std::to_string(number); }
