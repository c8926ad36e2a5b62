#include "tools/trel/Commands.h"
#include "tools/trel/common/ExitStatus.h"

#include <CLI/CLI.hpp>

#include <array>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

namespace {

constexpr std::size_t kSecretSize = 32; // bytes; as many as the key that is derived from it has
constexpr mode_t kOwnerOnly = 0600;

constexpr const char* kSecretFooter =
    "Systems that share a secret accept each other and nobody else. Make one secret, once, and give the\n"
    "same file to all systems of the link. A file may hold two secrets, each on a line, while one takes\n"
    "the place of the other: the first is proved, both are accepted (docs/host.md, \"Another secret\").\n"
    "\n"
    "Examples:\n"
    "  trel secret studio.secret                             make a secret in a new file\n"
    "  trel host --master --secret-file studio.secret        use it\n"
    "  trel secret | ssh user@other 'umask 077; cat > studio.secret'\n"
    "                                                        make it on another system";

[[noreturn]] void Fail(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

/// Random, from the operating system, as hexadecimal digits: they survive every editor, mail and USB stick.
std::string MakeSecret() {
  std::array<unsigned char, kSecretSize> bytes = {};
  if (getentropy(bytes.data(), bytes.size()) != 0) {
    Fail("the operating system gives no random numbers");
  }
  std::string text;
  for (const unsigned char byte : bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xfU];
  }
  return text;
}

/// Throws, and leaves no file behind that it has made, when the secret cannot be written whole.
void WriteNewFile(const std::string& name, const std::string& text) {
  const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly);
  if (file < 0 && errno == EEXIST) {
    throw std::runtime_error(name + " exists already and is left as it is; give the name of a new file");
  }
  if (file < 0) {
    Fail("cannot make " + name);
  }
  const bool isWritten = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(file) == 0;
  const int error = errno;
  if (close(file) != 0 || !isWritten) {
    unlink(name.c_str());
    throw std::system_error(error, std::generic_category(), "cannot write " + name);
  }
}

int RunSecret(const std::string& file) {
  const std::string secret = MakeSecret();
  if (file.empty()) {
    std::cout << secret << '\n';
    return kExitSuccess;
  }
  WriteNewFile(file, secret + '\n');
  std::cout << "The secret is in " << file << "; only you can read it.\n"
            << "\n"
            << "Copy this file to every system of the link by a safe way (scp, a USB stick), and there:\n"
            << "  chmod 600 " << file << "                    nobody else may read it\n"
            << "  trel host ... --secret-file " << file << "  trel uses it\n"
            << "  SharedSecretFile = " << std::filesystem::absolute(file).string()
            << "  so does a host that uses the library, with this line in\n"
            << "                                              its options file\n"
            << "A system without the secret, or with another one, is refused.\n";
  return kExitSuccess;
}

} // namespace

void AddSecretCommand(CLI::App& program, int& exitStatus) {
  const auto file = std::make_shared<std::string>();
  CLI::App* const secret = program.add_subcommand("secret", "Makes a secret that the systems of a link share");
  secret->add_option("FILE", *file,
                     "New file for the secret, which only you can read; without it the secret is printed");
  secret->footer(kSecretFooter);
  secret->callback([file, &exitStatus] { exitStatus = RunSecret(*file); });
}
