#pragma once

#include <cstddef>
#include <cstdint>

/// Microseconds on the raw clock of the machine.
using TCPE_Time = std::int64_t;

/// What bounds the engine's memory, sockets, threads and patience.
struct TCPE_Limits {
  /// Largest payload; the header's 16-bit length could say more, but no command needs it.
  std::size_t maxPayload = 16384;
  /// Largest payload before a peer is admitted: the connect command needs 294 bytes.
  std::size_t maxHandshakePayload = 512;
  /// Connections that are not admitted yet: more than a full link that comes back at once.
  std::size_t maxHalfOpen = 160;
  /// ... from one address: simultaneous connections, and one that comes back before the old one is known to be dead.
  std::size_t maxHalfOpenPerAddress = 4;
  /// That the places of one address are taken is a flood when it lasts so long; a busy moment does not ...
  TCPE_Time floodBegins = 100'000;
  /// ... and when nobody wanted one for so long, it is over.
  TCPE_Time floodEnds = 1'000'000;
  /// A host is told of floods this often at the most.
  TCPE_Time floodPause = 10'000'000;
  /// Systems beside this one, whatever the task allows.
  std::size_t maxConnections = 128;
  /// Systems that have left and are still known with their totals: a whole link.
  std::size_t maxDepartedPeers = 128;
  /// Bytes queued for one peer: seconds of heavy traffic, and little enough for 128 peers at once ...
  std::size_t maxOutboundBytes = std::size_t{512} * 1024;
  /// ... of which asynchronous commands leave so much to what must not wait: replies, queries, heartbeats, farewell.
  std::size_t outboundReserve = std::size_t{128} * 1024;
  /// Asynchronous commands that a sender has out and the receiver has not finished: enough to keep a handler busy while
  /// the news that it goes on travels. The same number in every release.
  std::size_t maxCommandsOut = 1024;
  /// A receiver tells what it has finished when it is so much, a quarter of that;
  std::uint64_t finishedStep = 256;
  /// Commands, and their bytes, that are kept for one peer because their senders cannot wait ...
  std::size_t maxKeptCommands = 1024;
  std::size_t maxKeptBytes = std::size_t{128} * 1024;
  /// ... of which handlers, which can, take so many together, and so many each: enough for those that answer every
  /// command of the peer with one of their own to come to their ends while the peer's do the same.
  std::size_t maxKeptOfHandlers = 256;
  std::size_t maxKeptOfHandler = 4;
  /// Received asynchronous commands that wait for their handlers, per peer, ...
  std::size_t maxQueuedCommands = 1024;
  /// ... and the memory that they hold: enough for all of them unless they are system lists.
  std::size_t maxQueuedBytes = std::size_t{1024} * 1024;
  /// ... but so many times as much while a sender of this side waits for a reply, or for credit, that may stand behind
  /// them.
  std::size_t queuedBeforeReply = 8;
  /// The same for synchronous ones, which need no credit: as many as one peer may wait for.
  std::size_t maxQueuedQueries = 256;
  std::size_t maxQueuedQueryBytes = std::size_t{256} * 1024;
  /// Addresses with something waiting or running, beyond which no newcomer is admitted and no failed proof told: a full
  /// link, and as many strangers as are remembered.
  std::size_t maxQueues = 384;
  /// Handlers of one peer that wait for another system at the same time: a peer that never answers takes no more
  /// threads. As many more may, when they answer queries.
  std::size_t maxWaitingHandlers = 16;
  /// Handlers that start while two or more of their peer wait, of all peers together; half of it for commands, for
  /// queries may be what is waited for.
  std::size_t maxExtraHandlers = 128;
  /// Senders that wait for a reply, per peer.
  std::size_t maxPendingCalls = 256;
  /// Two threads for each peer, of whose handlers one may wait, and those for the handlers beyond these.
  std::size_t maxHandlerThreads = 384;
  /// Addresses that are remembered for not having proved the shared secret: more than any link has, and quickly
  /// searched.
  std::size_t maxFailedAddresses = 256;

  /// Failed proofs of strangers that a host is told of at once, whatever their addresses: a small link that has the
  /// wrong secret ...
  int failureReports = 32;
  /// ... and one more each time so long has passed.
  TCPE_Time failureReportPause = 1'000'000;

  /// Answers to one asking address: a host that searches all the time asks once a second.
  int answersPerSecond = 20;
  /// Asking addresses whose rate is known: four full links on one network.
  std::size_t maxAskers = 512;
  /// Queries with a right tag that are known again: of four full links that search all the time those of 16 s.
  std::size_t maxKnownQueries = 8192;
  /// Answers that wait for their moment: everybody on such a network asks at once.
  std::size_t maxDueAnswers = 512;
  /// Systems whose replies to one query are taken: all of such a network, twice.
  std::size_t maxAnsweringSystems = 1024;
  /// A query that went to everybody is answered within this time: a fraction of the second for which the asker waits.
  TCPE_Time answerDelay = 100'000;

  TCPE_Time transportConnect = 5'000'000;
  /// From the transport connection to the verdict.
  TCPE_Time handshake = 3'000'000;
  /// A peer that gives the place of an attempt to another newcomer is asked for one again so much later, for as long as
  /// the handshake may take: as often as somebody does who keeps others out.
  TCPE_Time reopenPause = 25'000;
  /// From the first byte of a frame to its last.
  TCPE_Time frame = 5'000'000;
  /// An idle connection sends a heartbeat this often ...
  TCPE_Time heartbeat = 1'000'000;
  /// ... or so much earlier, together with that of another connection: a thread that is awake sends a second for less;
  TCPE_Time heartbeatEarly = 125'000;
  /// so a peer that says nothing for this long is gone.
  TCPE_Time silence = 3'000'000;
  /// While the sender must be waiting a receiver tells this often what it has finished.
  TCPE_Time finishedPause = 1'000;
  /// How long a peer may make no progress while somebody waits to send to it.
  TCPE_Time tooSlow = 3'000'000;
  /// How long a connection may leave a probe unanswered when its system connects anew.
  TCPE_Time probe = 1'000'000;
  /// How long a connection that is being closed may take to send what is queued.
  TCPE_Time linger = 1'000'000;
  /// How long the address of a system that did not prove the shared secret is marked ...
  TCPE_Time authenticationFailure = 10'000'000;
  /// ... and longer than that, when so many wrong proofs came from its address within so long.
  static constexpr std::size_t kWrongProofs = 5;
  static constexpr TCPE_Time kWrongProofsTime = 10'000'000;
  /// After a wrong proof no other from its address is examined for so long, and none from others while as many
  /// addresses as are remembered wait for that: too few for guessing, and enough for a system that shares its address
  /// with somebody who guesses.
  TCPE_Time proofPause = 100'000;
  /// How long a synchronous sender waits for its reply.
  TCPE_Time reply = 2'000'000;
  /// How long a handler that need not wait any more lets the one end that has started meanwhile.
  TCPE_Time turn = 1'000'000;
  /// A thread without a handler to run ends after so long, if another one is there.
  TCPE_Time idleThread = 10'000'000;
  /// How long Terminate waits for handlers that are running.
  TCPE_Time handlersAtEnd = 700'000;
};
