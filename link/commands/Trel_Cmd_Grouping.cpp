#include <trel/Trel_Cmd_Grouping.h>

void Trel_Cmd_UpdateGrouping::SetSystem(std::size_t row, std::size_t column, std::uint32_t system) {
  if (row < kRows && column < kColumns) {
    mSystem[row * kColumns + column] = system;
  }
}

std::uint32_t Trel_Cmd_UpdateGrouping::GetSystem(std::size_t row, std::size_t column) const {
  return row < kRows && column < kColumns ? mSystem[row * kColumns + column] : 0;
}

// eTrel_Group_All wraps to a row far outside.
void Trel_Cmd_UpdateGrouping::SetSystem(ETrel_Group group, std::size_t column, std::uint32_t system) {
  SetSystem(static_cast<std::size_t>(group) - 1, column, system);
}

std::uint32_t Trel_Cmd_UpdateGrouping::GetSystem(ETrel_Group group, std::size_t column) const {
  return GetSystem(static_cast<std::size_t>(group) - 1, column);
}

void Trel_Cmd_UpdateGroupEnable::SetEnable(std::size_t group, bool enable) {
  if (group < kGroups) {
    mEnable[group] = enable;
  }
}

bool Trel_Cmd_UpdateGroupEnable::GetEnable(std::size_t group) const { return group < kGroups && mEnable[group]; }
