#pragma once

#include "link/host/Trel_LinkRole.h"
#include "link/host/Trel_LinkView.h"
#include "link/host/Trel_LinkWorker.h"

#include <trel/host/Trel_LinkSession.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

class TCPE_Command;

/// What a link session holds, and the way from the engine's handlers to its role.
class Trel_LinkCore {
public:
  explicit Trel_LinkCore(Trel_LinkSession::Settings settings);

  /// Registers the handlers for this core, which must be the only one; false otherwise.
  bool Attach();
  /// Removes them and waits for those that are running.
  void Detach();

  bool Start();
  /// From the session's own thread it reports an assertion and does nothing.
  void Stop();

  Trel_LinkRole& Role() { return *mRole; }
  const Trel_LinkView& View() const { return mView; }
  Trel_LinkView& View() { return mView; }

  static void OnNetworkError(ETCPE_NetworkError error, std::uint32_t address);

private:
  /// While one lives, the attached core stays; none when there is none.
  class Use;

  template <class Command, class Handle>
  static void Register(Handle handle, std::int32_t identifier = Command::GetCommandID());
  static void RegisterAll();
  static void UnregisterAll();

  static std::mutex sMutex; // guards what follows; held for no call
  static std::condition_variable sUnused;
  static Trel_LinkCore* sAttached;
  static std::int32_t sUses;

  const Trel_LinkSession::Settings mSettings;
  Trel_LinkView mView;
  Trel_LinkWorker mWorker;
  std::mutex mStartMutex;
  std::unique_ptr<Trel_LinkRole> mRole;
};
