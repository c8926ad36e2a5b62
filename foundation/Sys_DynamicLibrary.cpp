#include "foundation/Sys_DynamicLibrary.h"

#if defined(_WIN32)

#include <windows.h>

std::filesystem::path Sys_DynamicLibrary::SystemDirectory() {
  wchar_t directory[MAX_PATH];
  const UINT length = GetSystemDirectoryW(directory, MAX_PATH);
  return length > 0 && length < MAX_PATH ? std::filesystem::path(directory) : std::filesystem::path();
}

Sys_DynamicLibrary::Sys_DynamicLibrary(const std::filesystem::path& file) : mHandle(LoadLibraryW(file.c_str())) {}

Sys_DynamicLibrary::Function Sys_DynamicLibrary::Resolve(const char* name) const {
  return mHandle == nullptr ? nullptr : reinterpret_cast<Function>(GetProcAddress(static_cast<HMODULE>(mHandle), name));
}

#else

#include <dlfcn.h>

std::filesystem::path Sys_DynamicLibrary::SystemDirectory() { return {}; }

// Bound at once, so that a library that lacks something is refused here and does not end the process later.
Sys_DynamicLibrary::Sys_DynamicLibrary(const std::filesystem::path& file)
    : mHandle(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL)) {}

Sys_DynamicLibrary::Function Sys_DynamicLibrary::Resolve(const char* name) const {
  return mHandle == nullptr ? nullptr : reinterpret_cast<Function>(dlsym(mHandle, name));
}

#endif
