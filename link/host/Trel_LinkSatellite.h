#pragma once

#include "link/host/Trel_LinkMesh.h"
#include "link/host/Trel_LinkRole.h"
#include "link/host/Trel_RetryPause.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// A satellite's side of the link: finds a master, connects, goes through the sequence, and begins again after a
/// failure.
class Trel_LinkSatellite final : public Trel_LinkRole {
public:
  Trel_LinkSatellite(const Settings& settings, Trel_LinkView& view, Trel_LinkWorker& worker);

  void Begin() override;
  std::int64_t Tick(std::int64_t now) override;
  void End() override;

  void OnConnect(const Trel_Cmd_Connect& command) override;
  void OnDisconnect(std::uint32_t from) override;
  void OnNetworkError(ETCPE_NetworkError error, std::uint32_t address) override;
  void OnConnectTo(const Trel_Cmd_ConnectTo& command) override;
  void OnDoConnectTo(const Trel_Cmd_DoConnectTo& command) override;
  void OnDoConnectToComplete(const Trel_Cmd_DoConnectToComplete& command) override;
  void OnAllConnectionsComplete(const Trel_Cmd_AllConnectionsComplete& command) override;
  void OnDisconnectFrom(const Trel_Cmd_DisconnectFrom& command) override;
  void OnListSystems(const Trel_Cmd_ListSystems& command) override;
  void OnSetMasterSystem(const Trel_Cmd_SetMasterSystem& command) override;
  void OnSetOrderNumber(const Trel_Cmd_SetOrderNumber& command) override;
  void OnSetSystemName(const Trel_Cmd_SetSystemName& command) override;
  void OnSystemInControl(const Trel_Cmd_SystemInControl& command) override;
  bool OnRequestControl(std::uint32_t asker) override;

  Trel_LinkSession::ControlAnswer RequestControl() override;
  bool DisconnectSystem(std::uint32_t address) override;
  void Resume() override;
  void Renamed() override;

private:
  enum class Phase : std::uint8_t {
    away,       ///< does nothing until Resume
    searching,  ///< for a master
    connecting, ///< to mMaster
    failed,     ///< to connect; the reason may still come
    joining,    ///< connected, in the sequence
    linked,
    ending,  ///< the connection is gone; the news of it is on its way
    waiting, ///< before the next attempt
  };

  /// What the master has told on this connection; handlers write it.
  struct Told {
    std::optional<std::vector<Trel_System>> mList;
    bool mIsListNew = false;
    bool mAllConnectionsComplete = false;
    std::int64_t mLastOfSequence = 0;                   ///< raw time of the last list or ConnectTo
    std::map<std::uint32_t, Trel_System> mConnectTo;    ///< not taken up yet
    std::map<std::uint32_t, std::int32_t> mIdentifiers; ///< of the others, by address, as far as told
  };

  bool IsFromMaster(const Trel_Command& command) const { return command.GetIPAddressFrom() == mMaster; }

  void Search();
  void Connect();
  /// When the sequence can be ended, or has failed.
  std::int64_t WhenJoined();
  void Complete();
  void TakeUpWhatWasTold();
  /// The connection to the master is gone, or was not granted.
  void MasterGone(Kind kind, const std::string& text);
  void TellRefusal();
  void EndLink();
  void Wait(std::int64_t pause);
  void Publish();

  void LoseControl();
  std::vector<Trel_System> GetListed();
  /// 0 when it is not known.
  std::uint32_t AddressOf(std::int32_t uniqueID);
  std::string NameOf(std::uint32_t address);
  std::string MasterName() { return NameOf(mMaster); }

  std::atomic<std::uint32_t> mMaster = 0;
  std::atomic<bool> mIsLinked = false;
  std::mutex mMutex; // guards what was told; held for no call that sends or tells
  Told mTold;

  // The worker's own.
  Phase mPhase = Phase::away;
  std::int64_t mDue = 0;
  Trel_RetryPause mPause;
  Trel_LinkMesh mMesh;
  bool mHasToldNoMaster = false;
};
