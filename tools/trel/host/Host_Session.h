#pragma once

#include "tools/trel/host/Host_LinkEvents.h"
#include "tools/trel/host/Host_Starts.h"

#include <trel/host/Trel_LinkSession.h>

#include <cstdint>
#include <optional>
#include <string>

class Host_Events;
struct Host_Options;

/// The link session of this host: set up as the options say, it tells what happens and makes the starts.
class Host_Session {
public:
  /// After the platform is prepared, before the engine starts.
  Host_Session(const Host_Options& options, Host_Events& events);

  Trel_LinkSession* operator->() { return &mSession; }
  const Trel_LinkSession* operator->() const { return &mSession; }

  bool IsMaster() const { return mIsMaster; }
  static std::uint32_t OwnAddress();
  /// "Stage (192.168.1.10)", or the address alone.
  std::string NameOf(std::uint32_t address) const;
  /// Throws Host_Error, with advice, unless it was done.
  void Expect(Trel_LinkRefusal refusal) const;

  /// Master: raw time of running time 0.
  std::int64_t Epoch() const;
  std::string WhyNotLinked() const { return mLinkEvents.WhyNotLinked(); }
  std::optional<std::int64_t> LastPlayed() const { return mLinkEvents.LastPlayed(); }

private:
  Trel_LinkSession::Settings SettingsFor(const Host_Options& options);
  void OnEvent(const Trel_LinkEvent& event);

  const bool mIsMaster;
  const std::int64_t mZeroTime; // master: host time of running time 0
  Host_Events& mEvents;
  Host_LinkEvents mLinkEvents;
  Trel_LinkSession mSession;
  Host_Starts mStarts;
};
