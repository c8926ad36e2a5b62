#pragma once

#include <cstdint>

/// Input that the engine dropped, by reason.
struct TCPE_Counters {
  std::uint64_t unknownCommands = 0;    ///< types without a class
  std::uint64_t malformedPayloads = 0;  ///< payloads too short, or without sense
  std::uint64_t unhandledCommands = 0;  ///< commands without a handler
  std::uint64_t queueOverflows = 0;     ///< commands that found the peer's queue full
  std::uint64_t lateReplies = 0;        ///< replies that nobody waited for any more
  std::uint64_t refusedConnections = 0; ///< connections turned away, and strangers without a valid handshake
  std::uint64_t malformedFrames = 0;    ///< connections ended by bytes that are no frame, or by one out of place
  std::uint64_t unfinishedFrames = 0;   ///< connections ended by a frame that was not complete in time
  std::uint64_t unprovedSecrets = 0;    ///< systems that did not prove the shared secret, on either side's connection
  std::uint64_t turnedAway = 0;         ///< ... at addresses where that had happened a short while before
  std::uint64_t untoldFailures = 0;     ///< ... of which the host was not told, because there were too many
  std::uint64_t wrongTags = 0;          ///< authenticated connections ended by a frame that was not the peer's next one
  // Datagrams of discovery.
  std::uint64_t malformedDatagrams = 0;      ///< no queries, and no replies to what was asked
  std::uint64_t otherNumberingDatagrams = 0; ///< of systems that use the other command numbering
  std::uint64_t unauthenticDatagrams = 0;    ///< tagged without a shared secret; with one not tagged, wrongly, or again
  std::uint64_t datagramsBeyondRate = 0;     ///< queries and replies that were more than is answered or taken
};
