#pragma once

#include <filesystem>

/// A shared library that is loaded while the process runs. It is never unloaded: its functions may be called for as
/// long as the process lives, also after the object has gone and while this library itself is being unloaded.
class Sys_DynamicLibrary {
public:
  using Function = void (*)();

  /// Where the operating system keeps its libraries; empty on platforms that have no such directory to offer.
  static std::filesystem::path SystemDirectory();

  /// Loads a library by its path. Whatever the reason why that fails, there is nothing to resolve then.
  explicit Sys_DynamicLibrary(const std::filesystem::path& file);

  /// The function of this name, to be cast to its type; null if there is none.
  Function Resolve(const char* name) const;

private:
  void* mHandle;
};
