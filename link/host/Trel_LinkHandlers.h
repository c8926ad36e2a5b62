#pragma once

#include <trel/TCPE_Types.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

class TCPE_Command;
class Trel_LinkShell;

/// Joins a session's shell with the engine's handlers: what they bring goes to the shell that is attached.
class Trel_LinkHandlers {
public:
  /// Registers the handlers for this shell, which must be the only one; false otherwise.
  static bool Attach(Trel_LinkShell& shell);
  /// Removes them and waits for those that are running.
  static void Detach();

  static void OnNetworkError(ETCPE_NetworkError error, std::uint32_t address);

private:
  /// While one lives, the attached shell stays; none when there is none.
  class Use;

  template <class Command, class Handle>
  static void Register(Handle handle, std::int32_t identifier = Command::GetCommandID());
  template <class... Command>
  static void RegisterMessages();
  /// What the session itself knows.
  static void RegisterQueries();
  /// What its host is asked.
  static void RegisterQuestions(const Trel_LinkShell& shell);
  static void RegisterAll(const Trel_LinkShell& shell);
  static void UnregisterAll();

  static std::mutex sMutex; // guards what follows; held for no call
  static std::condition_variable sUnused;
  static Trel_LinkShell* sAttached;
  static std::int32_t sUses;
  static std::vector<std::int32_t> sIdentifiers; ///< registered while a shell is attached
};
