#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_Export.h>

#include <cstdint>
#include <set>
#include <string>

class TCPE_Command;
class TCPE_CommManager;
class TCPE_System;

/// The engine's way up into whoever knows the commands: construction, headers, validation, execution.
///
/// A manager has one task from Initialize to Terminate. The engine calls the virtual operations from its network
/// thread, DoCommand from a handler thread, and WriteCommandHeader and PrepareToSend from the thread that sends.
class TREL_EXPORT TCPE_CommTask {
public:
  /// `maxSatellites` is the most connections that the engine admits (never above 128), `maxCommandSize` the size of the
  /// blocks in which received commands are built, `errorCommandID` the type that a synchronous command gets when no
  /// valid reply came.
  TCPE_CommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort, TCPE_System* localSystem,
                std::uint16_t maxSatellites, std::uint32_t maxCommandSize, std::int32_t errorCommandID,
                TCPE_CommManager* manager);
  TCPE_CommTask(const TCPE_CommTask&) = delete;
  TCPE_CommTask& operator=(const TCPE_CommTask&) = delete;

  // The order of the first ten virtual operations is part of the interface.
  virtual ~TCPE_CommTask();
  /// Executes a received command.
  virtual void DoCommand(TCPE_Command* command);
  /// Writes the 20 header bytes of a command that is about to be sent and advances the cursor.
  virtual void WriteCommandHeader(TCPE_Command* command, char** cursor);
  /// Builds an empty command of a link identifier in a block of GetMaxCommandSize() bytes; null when there is none.
  virtual TCPE_Command* ConstructCommand(std::int32_t commandType, void* block);
  /// Translates an engine type that travelled to a link identifier, and back.
  virtual std::int32_t GetCompatibleID(std::int32_t type);
  virtual std::int32_t GetTCPECommandType(std::int32_t identifier);
  virtual bool HandleTimingCommand(TCPE_Command* command);
  /// Replaces a received type that the protocol does not know by 0.
  virtual void ValidateCommand(TCPE_eCmd* commandID);
  virtual std::uint8_t GetCurrentProtocolMajorVersion();
  virtual std::uint8_t GetCurrentProtocolMinorVersion();

  /// Whether DoCommand would do anything with this command; a synchronous one that nobody handles is answered with an
  /// error at once.
  virtual bool HasHandler(const TCPE_Command* command);
  /// Gives a command its identifier that has no type, or the error identifier from a failed send, or says why it cannot
  /// be sent.
  virtual TCPE_CommErr PrepareToSend(TCPE_Command* command);
  /// Puts the local system into a fresh connect command.
  virtual void FillConnectCommand(TCPE_Command* command, const TCPE_System& localSystem);
  /// Name of the system that sent a connect command; empty when the command tells none.
  virtual std::string GetConnectingSystemName(const TCPE_Command* command);

  std::uint32_t GetMaxCommandSize() const { return mMaxCommandSize; }
  std::int32_t GetErrorCommandID() const { return mErrorCommandID; }
  std::uint16_t GetMaxSatellites() const { return mMaxSatellites; }
  std::uint16_t GetCommunicationPort() const { return mCommunicationPort; }
  std::uint16_t GetDiscoveryPort() const { return mDiscoveryPort; }
  TCPE_CommManager* GetCommManager() const { return mCommManager; }
  TCPE_System* GetLocalSystem() const { return mLocalSystem; }
  /// Addresses of all connected systems; the same set as TCPE_CommManager::IsConnected answers for. Thread-safe.
  std::set<std::uint32_t> GetConnectedAddresses() const;

private:
  TCPE_CommManager* mCommManager;
  TCPE_System* mLocalSystem;
  std::uint32_t mMaxCommandSize;
  std::int32_t mErrorCommandID;
  std::uint16_t mMaxSatellites;
  std::uint16_t mCommunicationPort;
  std::uint16_t mDiscoveryPort;
};
