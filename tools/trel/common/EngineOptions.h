#pragma once

#include <trel/TCPE_CommManager.h>

#include <cstdint>
#include <string>

namespace CLI {
class App;
}

/// How a command's engine meets the network: the options that several commands have in common.
struct EngineOptions {
  static constexpr std::uint16_t kDefaultPort = 28282;

  std::uint32_t address = 0; ///< 0: the engine chooses
  std::uint16_t port = kDefaultPort;
  std::uint16_t discoveryPort = 0; ///< 0: not given; then Trel_CommManager knows which it is
  std::string secretFile;
  bool isSecretMadeUp = false;
  bool legacy = false;

  void AddTo(CLI::App& command);
  /// For a command that listens, or connects to systems that do.
  void AddPortTo(CLI::App& command);
  /// Sets the start-up options and prepares the platform, which reads some of them: before anything else.
  void Prepare() const;
  /// Whether there is a shared secret, from the command line or from elsewhere. After Prepare.
  bool HasSecret() const;
  /// For a command that only asks: takes a communication port that nobody has, and no discovery port, so that it runs
  /// beside a host.
  void OnlyAsk();
  /// Starts the engine. After the handlers are set.
  /// @return what went wrong and what to do about it, in words; empty when nothing did
  std::string Start(TCPE_CommManager::NetworkErrorProc onNetworkError) const;
};
