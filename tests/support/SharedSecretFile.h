#pragma once

#include <trel/SPSStartupOption.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

/// The file of the shared secret, as the option names it; each system takes the secret that is in it when it starts.
class SharedSecretFile {
public:
  SharedSecretFile() = default;
  ~SharedSecretFile() {
    SPSSetStartupOption("SharedSecretFile", nullptr);
    std::filesystem::remove(mName);
  }
  SharedSecretFile(const SharedSecretFile&) = delete;
  SharedSecretFile& operator=(const SharedSecretFile&) = delete;

  /// What systems share from now on: a secret that consists of one digit.
  void Set(char digit) const {
    std::ofstream(mName) << std::string(64, digit) << '\n';
    std::filesystem::permissions(mName, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    SPSSetStartupOption("SharedSecretFile", mName.c_str());
  }

private:
  const std::string mName = testing::TempDir() + "trel-shared-secret-" + std::to_string(getpid());
};
