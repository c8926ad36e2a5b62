#include "tools/trel/common/EngineOptions.h"

#include "tools/trel/common/CommonOptions.h"
#include "tools/trel/demo/FreePort.h"

#include <trel/SPSStartupOption.h>
#include <trel/TCPE_ErrorText.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CommPreferences.h>
#include <trel/Trel_Init.h>

#include <CLI/CLI.hpp>

#include <system_error>

namespace {

/// What somebody who gets a status can do about it.
std::string AdviceFor(std::int32_t status) {
  switch (status) {
  case eTCPE_Status_AddressNotLocal:
    return "Give one of these addresses with --address, or plug in the cable of the adaptor that is meant.";
  case eTCPE_Status_NoAdaptor:
    return "Plug in a network cable, or turn an adaptor on, and try again.";
  case eTCPE_Status_PortInUse:
    return "A host runs here already, or another program has the port: end it, or have all systems use another port "
           "(--port).";
  case eTCPE_Status_DiscoveryPortInUse:
    return "End the other program, or have all systems use another discovery port (--discovery-port).";
  case eTCPE_Status_SharedSecret:
    return "Make a secret with trel secret and give its file to all systems; there: chmod 600 FILE.";
  case eTCPE_Status_SystemError:
    return "Too many programs or open files may be the reason; end some and try again.";
  default:
    return {};
  }
}

} // namespace

void EngineOptions::AddTo(CLI::App& command) {
  AddAddressOption(command, "--address", address,
                   "Address of this machine to use [that of the first adaptor that is up]");
  AddPortOption(command, "--discovery-port", discoveryPort,
                "Port at which systems find each other, the same on all systems [28283]");
  command.add_option("--secret-file", secretFile, "File with the secret that all systems share; see trel secret")
      ->type_name("FILE");
  command.add_flag("--made-up-secret", isSecretMadeUp,
                   "Accept a secret in it that people made up and others can guess");
}

void EngineOptions::AddPortTo(CLI::App& command) {
  AddPortOption(command, "--port", port,
                "Port of all connections, the same on all systems [" + std::to_string(kDefaultPort) + "]");
}

void EngineOptions::Prepare() const {
  // Options that are not given stay with the environment and the options file.
  if (discoveryPort != 0) {
    SPSSetStartupOption("DiscoveryPort", std::to_string(discoveryPort).c_str());
  }
  if (!secretFile.empty()) {
    SPSSetStartupOption("SharedSecretFile", secretFile.c_str());
  }
  if (isSecretMadeUp) {
    SPSSetStartupOption("SharedSecretIsMadeUp", "1");
  }
  if (legacy) {
    SPSSetStartupOption("SupportsMarlo11", "0");
  }
  Trel_Init::Init();
}

bool EngineOptions::HasSecret() const { return !SPSStartupOptionText("SharedSecretFile", "").empty(); }

void EngineOptions::OnlyAsk() {
  SPSSetStartupOption("AnswersDiscovery", "0");
  try {
    port = FreePort({address}, 0);
  } catch (const std::system_error&) {
    // The address is none of this machine, which Start says better.
  }
}

std::string EngineOptions::Start(TCPE_CommManager::NetworkErrorProc onNetworkError) const {
  Trel_CommPreferences* const preferences = Trel_CommPreferences::Inst();
  preferences->SetLocalInterfaceAddress(address);
  preferences->SetCommunicationPort(port);
  const std::int32_t status = Trel_CommManager::Initialize(preferences, onNetworkError);
  if (status == eTCPE_Status_Success) {
    return {};
  }
  std::string text = Trel_CommManager::GetInitializationReport();
  if (text.empty()) {
    text = TCPE_ErrorText(static_cast<ETCPE_Status>(status));
  }
  const std::string advice = AdviceFor(status);
  return "cannot start: " + text + (advice.empty() ? "" : ". " + advice);
}
