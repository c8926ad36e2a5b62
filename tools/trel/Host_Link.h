#pragma once

#include "Host_Event.h"

#include <trel/host/Trel_LinkSession.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

class Host_Events;
struct Host_Options;

/// Who is linked with whom, who is in control, and what they are called: the link session in the host's words.
class Host_Link {
public:
  /// Called when a system has been linked, and when it may be linked no longer. On any thread; must not block.
  using OnLinked = std::function<void(std::uint32_t address, bool isLinked)>;

  /// Called when a system has opened a connection, before the first command of that connection. Must not block.
  using OnConnect = std::function<void(std::uint32_t address)>;

  Host_Link(const Host_Options& options, Host_Events& events, OnLinked onLinked, OnConnect onConnect);

  /// After the engine has started.
  bool Start() { return mSession.Start(); }
  void Stop() { mSession.Stop(); }
  Trel_LinkSession& Session() { return mSession; }
  const Trel_LinkSession& Session() const { return mSession; }

  bool IsMaster() const { return mIsMaster; }
  static std::uint32_t OwnAddress();
  /// The systems that this one talks to: on a satellite without a mesh the master alone.
  std::set<std::uint32_t> Linked() const { return mSession.GetLinkedAddresses(); }
  bool HasControl() const { return mSession.HasControl(); }
  /// Whether what a system says about the transport holds here: the system in control's, and on a satellite the
  /// master's, which passes it on.
  bool MayConduct(std::uint32_t address) const;
  /// Throws Host_Error unless this system is in control.
  void ExpectControl() const;
  /// "Stage (192.168.1.10)", or the address alone.
  std::string NameOf(std::uint32_t address) const;
  /// While this system is not linked: why, as far as the link has told.
  std::string WhyNotLinked() const;
  /// The fields that name a system in an event.
  nlohmann::json FieldsOf(std::uint32_t address) const;

private:
  void OnEvent(const Trel_LinkSession::Event& event);

  bool mIsMaster;
  Host_Events& mEvents;
  OnLinked mOnLinked;
  mutable std::mutex mMutex;
  std::string mWhyNotLinked; // guarded by mMutex
  std::string mLastFailure;  // of OnEvent, which runs on one thread
  Trel_LinkSession mSession;
};
