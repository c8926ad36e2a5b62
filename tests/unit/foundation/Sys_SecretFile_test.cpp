#include "foundation/Sys_SecretFile.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(Sys_SecretFile, TakesSecretsThatOnlyTheirOwnerCanRead) {
  const std::string path = testing::TempDir() + "trel-secret-" + std::to_string(getpid());
  const std::string longest(Sys_SecretFile::kMaxSize, 's');
  const std::string random = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
  const std::string capitals = "0123456789ABCDEF0123456789abcdef0123456789abcdef0123456789abcdef";
  const char* const tooLong = "is too long: a secret has at most 1024 characters";
  const char* const tooMany = "has more than two lines: it holds one secret, or two, each on its line";
  const char* const isOpen = "is open to other users: only its owner may read and write it (mode 0600)";
  const struct {
    std::string content;
    mode_t mode;
    const char* fault;
    std::vector<std::string> secrets{};
    bool isMadeUp = true;
  } cases[] = {{"sixteen letters.\n", 0600, "", {"sixteen letters."}},
               {"  sixteen letters\r\n", 0400, "", {"  sixteen letters"}},
               {longest + "\r\n" + longest + "\r\n", 0600, "", {longest, longest}},
               {random, 0600, "", {random}, false},
               {"\n" + random + "\n\n" + random + "\n", 0600, "", {random, random}, false},
               {random + "\n" + random.substr(1) + "g", 0600, "", {random, random.substr(1) + "g"}},
               {capitals, 0600, "", {capitals}},
               {random + "a", 0600, "", {random + "a"}},
               {longest + "s", 0600, tooLong},
               {random + "\n" + random + "\n" + random, 0600, tooMany},
               {longest + "\r\n" + longest + "\r\n\n", 0600, tooMany},
               {random + "\nfifteen letters\n", 0600, "is too short: a secret has at least 16 characters"},
               {"\n", 0600, "is empty"},
               {random, 0640, isOpen},
               {random, 0602, isOpen}};
  for (const auto& test : cases) {
    std::filesystem::remove(path);
    std::ofstream(path) << test.content;
    ASSERT_EQ(chmod(path.c_str(), test.mode), 0);
    const Sys_SecretFile file(path);
    EXPECT_EQ(file.Fault(), *test.fault != '\0' ? "the secret file " + path + ' ' + test.fault : "");
    std::vector<std::string> secrets;
    for (const std::span<const std::byte> secret : file.Secrets()) {
      secrets.emplace_back(reinterpret_cast<const char*>(secret.data()), secret.size());
    }
    EXPECT_EQ(secrets, test.secrets);
    EXPECT_EQ(file.IsMadeUp(), !secrets.empty() && test.isMadeUp);
  }
  std::filesystem::remove(path);
  EXPECT_THAT(Sys_SecretFile(path).Fault(), testing::HasSubstr("cannot be opened"));
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_THAT(Sys_SecretFile(path).Fault(), testing::HasSubstr("is not a regular file"));
  std::filesystem::remove(path);
}

} // namespace
