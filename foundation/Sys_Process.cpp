#include "foundation/Sys_Process.h"

#include <utility>
#include <vector>

#if defined(_WIN32)

#include <windows.h>

std::int64_t Sys_Process::Identifier() { return GetCurrentProcessId(); }

bool Sys_Process::CanJoinWhenUnloaded() { return false; }

void Sys_Process::ThreadsHaveStarted() {
  static const char sPlace = 0;
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<LPCWSTR>(&sPlace), &module);
}

#else

#include <unistd.h>

std::int64_t Sys_Process::Identifier() { return getpid(); }

bool Sys_Process::CanJoinWhenUnloaded() { return true; }

void Sys_Process::ThreadsHaveStarted() {}

#endif

void Sys_Process::Abandon(std::shared_ptr<const void> inherited) {
  static auto* const abandoned = new std::vector<std::shared_ptr<const void>>;
  abandoned->push_back(std::move(inherited)); // without a lock: a child has one thread
}
