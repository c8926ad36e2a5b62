#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_Export.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <iosfwd>

class TCPE_System;

/// One message between two systems: the header that the engine owns, and hooks that encode the payload.
///
/// A plain value: no operation here but the debug texts blocks, takes a lock or allocates. One thread at a time may use
/// an object.
class TREL_EXPORT TCPE_Command {
public:
  /// Bytes that WriteHeader writes.
  static constexpr std::uint32_t kHeaderSize = 20;

  /// `localSystem` is accepted for the interface's sake: the engine that sends stamps the header from its own record.
  /// `revision` is the payload revision of the class, carried in every frame that this object is sent in.
  TCPE_Command(TCPE_System* localSystem, TCPE_eCmd type, std::uint8_t revision);
  TCPE_Command(const TCPE_Command& other);
  TCPE_Command& operator=(const TCPE_Command& other);

  // The order of the virtual operations is part of the interface.
  virtual ~TCPE_Command();
  virtual const char* GetCommandName() const;
  /// Must be overridden: reports the assertion "mustOverrideGetMaxNumberCommands" and returns 0.
  virtual std::int32_t GetMaxNumberCommands() const;
  /// True when the sender waits for a reply.
  virtual bool IsSynchronous() const;
  /// The payload hooks write or read the fields at `*cursor` and advance it past them.
  virtual void PrepareTransmitCommand(char** cursor);
  virtual void PrepareReceiveCommand(char** cursor);
  virtual void PrepareTransmitReply(char** cursor);
  virtual void PrepareReceiveReply(char** cursor);
  virtual void SetError(TCPE_CommErr error);
  virtual TCPE_CommErr GetError() const;
  /// IPv4 addresses in host order, ports 0..65535: destination and origin.
  virtual void SetIPAddressTo(std::uint32_t address);
  virtual std::uint32_t GetIPAddressTo() const;
  virtual void SetIPAddressFrom(std::uint32_t address);
  virtual std::uint32_t GetIPAddressFrom() const;
  virtual void SetPortTo(std::uint32_t port);
  virtual std::uint32_t GetPortTo() const;
  virtual void SetPortFrom(std::uint32_t port);
  virtual std::uint32_t GetPortFrom() const;
  /// True for high-rate commands that would drown the command log.
  virtual bool DontLogCommand() const;
  /// One line about the payload of the command, or of its reply.
  virtual void GetSendDebugInfo(std::ostream& out) const;
  virtual void GetReplyDebugInfo(std::ostream& out) const;

  static TCPE_eCmd GetInvalidCommandID() { return 0; }

  TCPE_eCmd GetCommandType() const { return mCommandType; }
  void SetCommandType(TCPE_eCmd type) { mCommandType = type; }
  /// Payload bytes, 0..16384.
  std::uint16_t GetDataLength() const { return mDataLength; }
  void SetDataLength(std::uint16_t length) { mDataLength = length; }
  std::uint8_t GetProtocolMajorVersion() const { return mProtocolMajorVersion; }
  std::uint8_t GetProtocolMinorVersion() const { return mProtocolMinorVersion; }
  void SetProtocolVersion(std::uint8_t majorVersion, std::uint8_t minorVersion) {
    mProtocolMajorVersion = majorVersion;
    mProtocolMinorVersion = minorVersion;
  }
  /// The class's own payload revision.
  std::uint8_t GetRevision() const { return mRevision; }
  /// The revision of the frame that this object is decoded from; the class's own until one has arrived.
  std::uint8_t GetReceivedRevision() const { return mReceivedRevision; }
  void SetReceivedRevision(std::uint8_t revision) { mReceivedRevision = revision; }
  bool GetIsReply() const { return mIsReply; }
  void SetIsReply(bool isReply) { mIsReply = isReply; }
  ETCPE_SystemType GetRemoteSystemType() const { return static_cast<ETCPE_SystemType>(mRemoteSystemType); }
  void SetRemoteSystemType(ETCPE_SystemType type) { mRemoteSystemType = static_cast<std::uint8_t>(type); }
  ETCPE_SystemType GetLocalSystemType() const { return static_cast<ETCPE_SystemType>(mLocalSystemType); }
  void SetLocalSystemType(ETCPE_SystemType type) { mLocalSystemType = static_cast<std::uint8_t>(type); }
  std::uint16_t GetChecksum() const { return mChecksum; }
  void SetChecksum(std::uint16_t checksum) { mChecksum = checksum; }
  std::uint32_t GetSerialNumber() const { return mSerialNumber; }
  void SetSerialNumber(std::uint32_t serial) { mSerialNumber = serial; }
  /// The number of the connection on which a received command came, as in TCPE_CommManager::GetConnection; 0 for
  /// others.
  std::uint64_t GetConnection() const { return mConnection; }
  void SetConnection(std::uint64_t connection) { mConnection = connection; }
  /// Host time at which a received command, or the reply to a sent one, had arrived at this machine, as exactly as the
  /// operating system tells; 0 when none was received.
  std::int64_t GetArrivalTime() const { return mArrivalTime; }
  void SetArrivalTime(std::int64_t hostTime) { mArrivalTime = hostTime; }
  bool GetReplyWanted() const { return mReplyWanted; }
  void SetReplyWanted(bool wanted) { mReplyWanted = wanted; }

  /// Writes the 20 header bytes at the cursor and advances it; the protocol versions are kept in the object. The type
  /// is written as it stands: whoever sends has put the wire type there.
  void WriteHeader(std::uint8_t majorVersion, std::uint8_t minorVersion, char** cursor);

  /// The engine's pointer from the command to itself, for commands built in a block.
  void SetSelf(TCPE_Command* self) { mSelf = self; }
  TCPE_Command* GetSelf() const { return mSelf; }

  /// Sets the first byte that the payload hooks must not touch and clears the fault; null lifts the bound. Beyond it a
  /// read yields zero or the empty text, a write writes nothing, and both set the fault. A fault moves the bound to the
  /// cursor: what follows fails too, and the cursor stays at the first field that did not fit.
  void SetPayloadEnd(const char* end);
  /// Bytes left before the bound; the largest number without a bound.
  std::uint32_t GetPayloadBytesLeft(const char* cursor) const;
  bool GetPayloadFault() const { return mPayloadFault; }
  /// Says that the payload makes no sense at the cursor, or has no room for what follows.
  void SetPayloadFault(const char* cursor) {
    mPayloadFault = true;
    if (mPayloadEnd != nullptr) {
      mPayloadEnd = cursor;
    }
  }

  // Payload primitives. Integers are big-endian; addresses and ports travel least significant byte first.
  void WriteInt64(std::int64_t value, char** cursor) { WriteBigEndian(static_cast<std::uint64_t>(value), cursor); }
  std::int64_t ReadInt64(char** cursor) { return static_cast<std::int64_t>(ReadBigEndian<std::uint64_t>(cursor)); }
  void WriteInt32(std::int32_t value, char** cursor) { WriteBigEndian(static_cast<std::uint32_t>(value), cursor); }
  std::int32_t ReadInt32(char** cursor) { return static_cast<std::int32_t>(ReadBigEndian<std::uint32_t>(cursor)); }
  void WriteUInt32(std::uint32_t value, char** cursor) { WriteBigEndian(value, cursor); }
  std::uint32_t ReadUInt32(char** cursor) { return ReadBigEndian<std::uint32_t>(cursor); }
  void WriteUInt8(std::uint8_t value, char** cursor) { WriteBigEndian(value, cursor); }
  std::uint8_t ReadUInt8(char** cursor) { return ReadBigEndian<std::uint8_t>(cursor); }
  void WriteBool(bool value, char** cursor) { WriteUInt8(value ? 1 : 0, cursor); }
  bool ReadBool(char** cursor) { return ReadUInt8(cursor) != 0; }
  void WriteIPAddress(std::uint32_t address, char** cursor) { WriteBigEndian(Reversed(address), cursor); }
  std::uint32_t ReadIPAddress(char** cursor) { return Reversed(ReadBigEndian<std::uint32_t>(cursor)); }
  void WritePort(std::uint16_t port, char** cursor) { WriteBigEndian(Reversed(port), cursor); }
  std::uint16_t ReadPort(char** cursor) { return Reversed(ReadBigEndian<std::uint16_t>(cursor)); }
  /// Writes exactly `width` bytes: the text, cut so that the last byte is zero, padded with zeros.
  void WriteFixedLengthString(const char* text, std::uint32_t width, char** cursor);
  /// Reads `width` bytes into `buffer`, which holds at least as many; the last one is made zero.
  void ReadFixedLengthString(char* buffer, std::uint32_t width, char** cursor);

private:
  // Spelt so that compilers make one byte-swap instruction of each.
  static constexpr std::uint8_t Reversed(std::uint8_t value) { return value; }
  static constexpr std::uint16_t Reversed(std::uint16_t value) {
    return static_cast<std::uint16_t>(std::uint32_t{value} << 8U | std::uint32_t{value} >> 8U);
  }
  static constexpr std::uint32_t Reversed(std::uint32_t value) {
    return value << 24U | (value & 0xff00U) << 8U | (value >> 8U & 0xff00U) | value >> 24U;
  }
  static constexpr std::uint64_t Reversed(std::uint64_t value) {
    return std::uint64_t{Reversed(static_cast<std::uint32_t>(value))} << 32U |
           Reversed(static_cast<std::uint32_t>(value >> 32U));
  }
  template <class Unsigned>
  static constexpr Unsigned BigEndian(Unsigned value) {
    if constexpr (std::endian::native == std::endian::little) {
      return Reversed(value);
    } else {
      return value;
    }
  }
  template <class Unsigned>
  void WriteBigEndian(Unsigned value, char** cursor) {
    if (HasRoom(*cursor, sizeof(Unsigned))) [[likely]] {
      const Unsigned wire = BigEndian(value);
      std::memcpy(*cursor, &wire, sizeof wire);
      *cursor += sizeof wire;
    }
  }
  template <class Unsigned>
  Unsigned ReadBigEndian(char** cursor) {
    Unsigned wire = 0;
    if (HasRoom(*cursor, sizeof(Unsigned))) [[likely]] {
      std::memcpy(&wire, *cursor, sizeof wire);
      *cursor += sizeof wire;
    }
    return BigEndian(wire);
  }
  bool HasRoom(const char* cursor, std::uint32_t width) {
    // Numbers, because without a bound there is nothing to subtract from; asked for first, because the engine sets one.
    const auto end = reinterpret_cast<std::intptr_t>(static_cast<const char*>(mPayloadEnd));
    if (end - reinterpret_cast<std::intptr_t>(cursor) >= static_cast<std::int64_t>(width)) [[likely]] {
      return true;
    }
    if (end == 0) {
      return true;
    }
    SetPayloadFault(cursor);
    return false;
  }

  /// A pointer that belongs to one object: a copy of the object does not get it, and keeps its own when assigned to.
  template <class T>
  class OwnPointer {
  public:
    OwnPointer() = default;
    OwnPointer(const OwnPointer& /*other*/) {}
    OwnPointer& operator=(const OwnPointer& /*other*/) { return *this; } // NOLINT(bugprone-unhandled-self-assignment)
    OwnPointer& operator=(T* pointer) {
      mPointer = pointer;
      return *this;
    }
    ~OwnPointer() = default;
    operator T*() const { return mPointer; } // NOLINT(google-explicit-constructor)

  private:
    T* mPointer = nullptr;
  };

  // Ordered for size: a received command of any class is built in a block of 616 bytes.
  OwnPointer<TCPE_Command> mSelf;
  OwnPointer<const char> mPayloadEnd;
  std::uint64_t mConnection = 0;
  std::int64_t mArrivalTime = 0;
  TCPE_eCmd mCommandType;
  std::uint32_t mSerialNumber = 0;
  std::uint32_t mIPAddressTo = 0;
  std::uint32_t mIPAddressFrom = 0;
  std::uint16_t mPortTo = 0;
  std::uint16_t mPortFrom = 0;
  TCPE_CommErr mError = eTCPE_CommErr_None;
  std::uint16_t mDataLength = 0;
  std::uint16_t mChecksum = 0;
  std::uint8_t mProtocolMajorVersion = 0;
  std::uint8_t mProtocolMinorVersion = 0;
  std::uint8_t mRevision;
  std::uint8_t mReceivedRevision;
  std::uint8_t mRemoteSystemType = 0;
  std::uint8_t mLocalSystemType = 0;
  bool mIsReply = false;
  bool mReplyWanted = false;
  bool mPayloadFault = false;
};
