#include "foundation/Sys_SecretFile.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(Sys_SecretFile, TakesASecretThatOnlyItsOwnerCanRead) {
  const std::string path = testing::TempDir() + "trel-secret-" + std::to_string(getpid());
  const std::string longest(Sys_SecretFile::kMaxSize, 's');
  const struct {
    std::string content;
    mode_t mode;
    const char* fault;
    std::string secret{};
  } cases[] = {{"sixteen letters.\n", 0600, "", "sixteen letters."},
               {"  sixteen letters\r\n", 0400, "", "  sixteen letters"},
               {longest + "\r\n", 0600, "", longest},
               {longest + "s", 0600, "is too long: a secret has at most 1024 characters"},
               {longest + "\r\n\n", 0600, "is too long: a secret has at most 1024 characters"},
               {"fifteen letters\n", 0600, "is too short: a secret has at least 16 characters"},
               {"\n", 0600, "is empty"},
               {"sixteen letters.", 0640, "is open to other users: only its owner may read and write it (mode 0600)"},
               {"sixteen letters.", 0602, "is open to other users: only its owner may read and write it (mode 0600)"}};
  for (const auto& test : cases) {
    std::filesystem::remove(path);
    std::ofstream(path) << test.content;
    ASSERT_EQ(chmod(path.c_str(), test.mode), 0);
    const Sys_SecretFile file(path);
    EXPECT_EQ(file.Fault(), *test.fault != '\0' ? "the secret file " + path + ' ' + test.fault : "");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(file.Secret().data()), file.Secret().size()), test.secret);
  }
  std::filesystem::remove(path);
  EXPECT_THAT(Sys_SecretFile(path).Fault(), testing::HasSubstr("cannot be opened"));
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_THAT(Sys_SecretFile(path).Fault(), testing::HasSubstr("is not a regular file"));
  std::filesystem::remove(path);
}

} // namespace
