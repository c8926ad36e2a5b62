#pragma once

#include "tcpe/protocol/TCPE_Endpoint.h"
#include "tcpe/protocol/TCPE_Numbering.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <queue>
#include <random>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Endpoints joined by byte streams in virtual time: with delay, chopped into pieces, altered, cut. Systems are
/// numbered from 0; several may share an address, and each has a clock that stands still while its machine sleeps.
/// Strangers are peers without an endpoint, whose bytes the test makes. A program may run on top, told of events and
/// called at times.
///
/// Like the owner of real sockets, a side holds the space for its next bytes while it waits for them, and reports
/// nothing about a transport that it was told to close. What no endpoint may ever do throws std::logic_error: frames
/// that are no unbroken beginning of what the peer sent, anything of a stranger when there is a secret, a connection
/// that only one side believes in for longer than a silence, an attempt without an end, more of anything than
/// TCPE_Limits allow.
class SimulatedNetwork {
public:
  using Event = TCPE_Endpoint::Event;
  static constexpr int kStranger = -1;
  static constexpr int kNobody = -2;

  struct Transport;
  struct System {
    TCPE_Endpoint::Config config;
    std::unique_ptr<TCPE_Endpoint> endpoint{};       ///< none while it does not run
    std::map<std::uint32_t, Event> open{};           ///< opened events, by address
    std::map<std::uint32_t, TCPE_Time> connecting{}; ///< since when, by addresses whose connectEnded is due
    std::string log{};                               ///< every event but send, close and flooded
    std::vector<std::uint32_t> floods{};             ///< addresses of the flooded events
    std::int64_t unproved = 0;                       ///< events
    TCPE_Time started = 0;
    TCPE_Time lastLogged = 0;
    std::map<TCPE_Endpoint::Id, std::pair<Transport*, int>> sides{}; ///< of its open transports
    bool isOff = false;                                              ///< the machine
    bool isFrozen = false;
    bool isCutOff = false;
    TCPE_Time frozenSince = 0;
    TCPE_Time thawed = 0;
    TCPE_Time slept = 0; ///< so much its clock is behind
  };
  struct Side {
    int system = kStranger;
    std::uint32_t address = 0;
    TCPE_Endpoint::Id id = 0;                               ///< 0: not open at this side
    std::string received{};                                 ///< what a stranger got
    bool hasEnded = false;                                  ///< whether the other side has closed it, for a stranger
    bool hasSecret = false;                                 ///< a stranger may prove it
    std::function<void(const std::string& bytes)> answer{}; ///< of a stranger
    std::string toCome{}; ///< frames that the host of the other side has sent, and this one has not been given
    enum class Piece : std::uint8_t { opening, opened, bytes, ended };
    struct Arriving {
      TCPE_Time due;
      Piece piece;
      std::string bytes;
    };
    std::deque<Arriving> arriving{};
    TCPE_Time lastDue = 0;
    TCPE_Time begun = 0;
    TCPE_Time lastReceived = 0;
    std::span<std::byte> space{};
  };
  struct Transport {
    Side sides[2]; ///< who opened it, who accepted it
    bool isCut = false;
    bool isAltered = false;
    std::uint64_t changed = 0; ///< number of the last time that a side opened or ended
  };

  explicit SimulatedNetwork(std::uint32_t seed = 1) : mRandom(seed) {}

  static TCPE_Endpoint::Config Config(std::uint32_t address) {
    TCPE_Endpoint::Config config;
    config.local.hello.majorVersion = 4;
    config.local.minorVersion = 1;
    config.local.systemType = 1;
    config.local.connectType = 5;
    config.local.challengeType = 4;
    config.localAddress = address;
    config.disconnectType = 12;
    config.maxConnections = config.limits.maxConnections;
    config.allowConnect = [](std::uint32_t) { return true; };
    config.makeConnectFrame = [](std::uint32_t) { return ConnectFrame("introduction"); };
    return config;
  }
  static std::vector<std::byte> ConnectFrame(const std::string& payload) {
    const std::string frame = Frame({.flags = kTCPE_Flag_ReplyWanted, .type = 5, .serial = 77}, payload);
    const auto bytes = std::as_bytes(std::span(frame));
    return {bytes.begin(), bytes.end()};
  }
  static std::shared_ptr<const TCPE_AuthenticationKey> Key(char secret) {
    TCPE_AuthenticationKey::Mac bytes{};
    bytes.fill(static_cast<std::byte>(secret));
    return std::make_shared<const TCPE_AuthenticationKey>(bytes);
  }
  static std::string Frame(TCPE_FrameHeader header, const std::string& payload = {}) {
    header.majorVersion = 4;
    std::string frame(TCPE_FrameHeader::kSize, '\0');
    header.Write(std::as_writable_bytes(std::span(frame)).data());
    return Sealed(frame + payload);
  }
  static std::string Sealed(std::string frame) {
    TCPE_SealFrame(std::as_writable_bytes(std::span(frame)));
    return frame;
  }

  int Add(TCPE_Endpoint::Config config) {
    config.random = [this] { return mRandom(); };
    mSystems.push_back({std::move(config)});
    mDeadlines.push_back(TCPE_Endpoint::kNever);
    const int system = static_cast<int>(mSystems.size()) - 1;
    Start(system);
    return system;
  }
  System& At(int system) { return mSystems.at(static_cast<std::size_t>(system)); }
  const TCPE_Endpoint::Counts& Counts(int system) { return At(system).endpoint->GetCounts(); }
  TCPE_Time Now() const { return mNow; }
  /// By the clock of a system.
  TCPE_Time Now(int system) { return mNow - At(system).slept; }
  std::uint32_t Random(std::uint32_t bound) { return static_cast<std::uint32_t>(mRandom() % bound); }
  /// Largest size of a piece, 0 for whole writes; largest delay of a piece beyond the 100 microseconds that it takes.
  void Chop(std::uint32_t size, std::uint32_t delay) {
    mLargestPiece = size;
    mLargestDelay = delay;
  }

  /// Somebody on the way, who may alter all that is sent.
  std::function<void(int toSide, std::string& bytes)> tamper;
  bool trustsChecksums = true; ///< unless they tamper who can calculate one
  /// Takes attempts to reach addresses at which no machine runs.
  std::function<void(Transport& transport)> impostor;
  /// Told of opened, frame, disconnected, lost and awaited connectEnded events instead of the log.
  std::function<void(int system, const Event& event)> program;
  /// Calls it then; in the order given, when several are due.
  void After(TCPE_Time delay, std::function<void()> action) {
    mDue.push({mNow + delay, ++mLastDue});
    mActions.emplace(mLastDue, std::move(action));
  }

  void Connect(int from, int to) { Connect(from, to, At(to).config.localAddress); }
  void ConnectTo(int from, std::uint32_t address) { Connect(from, Find(address), address); }
  /// Who runs, or last ran, at the address.
  int Find(std::uint32_t address) const {
    for (int system = static_cast<int>(mSystems.size()); --system >= 0;) {
      if (mSystems[static_cast<std::size_t>(system)].config.localAddress == address) {
        return system;
      }
    }
    return kNobody;
  }
  /// The transport stands at once; null when the endpoint did not want one.
  Transport* ConnectToStranger(int from, std::uint32_t address) { return Connect(from, kStranger, address); }
  Transport& ConnectStranger(std::uint32_t address, int to) {
    Transport& transport = mTransports.emplace_back();
    transport.sides[0].address = address;
    transport.sides[1] = {to, At(to).config.localAddress};
    Arrive(transport, 1, Side::Piece::opening);
    return transport;
  }
  void Send(Transport& transport, int toSide, std::string bytes) {
    if (tamper) {
      const std::string sent = bytes;
      tamper(toSide, bytes);
      transport.isAltered = transport.isAltered || bytes != sent;
    }
    for (std::size_t begin = 0; begin < bytes.size();) {
      const std::size_t size = mLargestPiece == 0 ? bytes.size() : 1 + Random(mLargestPiece);
      Arrive(transport, toSide, Side::Piece::bytes, bytes.substr(begin, size));
      begin += size;
    }
  }
  /// Sends over the open connection, as a host does.
  void Send(int from, std::uint32_t address, const std::string& bytes) {
    const auto [transport, side] = At(from).sides.at(At(from).open.at(address).id);
    At(from).open.at(address).session->NoteSent(Now(from));
    transport->sides[1 - side].toCome += bytes;
    Send(*transport, 1 - side, Tagged(At(from).open.at(address), bytes));
  }
  void End(int system, std::uint32_t address, ETCPE_NetworkError error = eNetworkError_None) {
    if (At(system).open.contains(address)) {
      Send(system, address, Frame({.type = 12}));
      At(system).endpoint->End(At(system).open.at(address).id, error, Now(system));
      CarryOut(system);
    }
  }
  /// A stranger closes its side.
  void End(Transport& transport, int toSide) { Arrive(transport, toSide, Side::Piece::ended); }
  /// Since the last byte of the peer; nothing when it is not connected.
  std::optional<TCPE_Time> Silence(int system, std::uint32_t address) {
    const auto open = At(system).open.find(address);
    if (open == At(system).open.end()) {
      return std::nullopt;
    }
    const auto [transport, side] = At(system).sides.at(open->second.id);
    return Now(system) - transport->sides[side].lastReceived;
  }

  /// Its present connections are cut: nothing arrives any more, and nobody is told.
  void CutAll(int system) {
    for (Transport& transport : mTransports) {
      if (IsOf(transport, system)) {
        transport.isCut = true;
        transport.sides[0].arriving.clear();
        transport.sides[1].arriving.clear();
      }
    }
  }
  /// The cable is pulled, or in again: what was sent meanwhile is sent once more.
  void CutOff(int system, bool isCutOff) {
    At(system).isCutOff = isCutOff;
    DeliverHeld(system);
  }
  /// It gets no time, and what arrives waits. Its clock goes on, or its whole machine sleeps.
  void Freeze(int system, bool isFrozen, bool isAsleep = false) {
    TCPE_Time& since = isFrozen ? At(system).frozenSince : At(system).thawed;
    since = At(system).isFrozen != isFrozen ? mNow : since;
    At(system).isFrozen = isFrozen;
    At(system).slept += isAsleep ? mNow - At(system).frozenSince : 0;
    SetDeadline(system);
    DeliverHeld(system);
  }
  /// The program ends without a word; its machine closes its connections, unless it loses its power.
  void Kill(int system, bool isOff) {
    At(system).isOff = isOff;
    if (isOff) {
      CutAll(system);
    }
    for (const auto& [id, position] : At(system).sides) {
      Arrive(*position.first, 1 - position.second, Side::Piece::ended);
      position.first->sides[position.second].id = 0;
      Changed(*position.first);
    }
    At(system).endpoint.reset();
    At(system).open.clear();
    At(system).connecting.clear();
    At(system).sides.clear();
    SetDeadline(system);
  }
  /// Another engine starts there.
  void Start(int system) {
    At(system).config.local.hello.instance = ++mLastInstance;
    At(system).endpoint = std::make_unique<TCPE_Endpoint>(At(system).config);
    At(system).isOff = false;
    At(system).started = Now(system);
    At(system).unproved = 0;
    At(system).floods.clear();
  }
  void Restart(int system) {
    Kill(system, true);
    Start(system);
  }
  /// The machine gets another address.
  void Move(int system, std::uint32_t address) {
    CutAll(system);
    At(system).config.localAddress = address;
    At(system).endpoint->MoveTo(address, Now(system));
    CarryOut(system);
  }

  void Run(TCPE_Time duration) {
    const TCPE_Time end = mNow + duration;
    while (true) {
      const auto deadline = std::min_element(mDeadlines.begin(), mDeadlines.end());
      const bool isArrival = !mDue.empty() && (deadline == mDeadlines.end() || mDue.top().time <= *deadline);
      const TCPE_Time next = isArrival                      ? mDue.top().time
                             : deadline != mDeadlines.end() ? *deadline
                                                            : TCPE_Endpoint::kNever;
      if (next > end) {
        break;
      }
      mNow = std::max(mNow, next);
      if (isArrival) {
        const Due due = mDue.top();
        mDue.pop();
        due.transport != nullptr ? DeliverNext(*due.transport, due.side) : mActions.extract(due.number).mapped()();
      } else {
        const int system = static_cast<int>(deadline - mDeadlines.begin());
        At(system).endpoint->Tick(Now(system));
        CarryOut(system);
        Check(*deadline > mNow, "a deadline that was met stands");
        CheckTimes(system);
      }
    }
    mNow = end;
  }

private:
  static void Check(bool condition, const char* failure) {
    if (!condition) {
      throw std::logic_error(failure);
    }
  }
  struct Due {
    TCPE_Time time;
    std::uint64_t number;
    Transport* transport = nullptr; ///< at whose side the next piece arrives; none: an action
    int side = 0;
    bool operator<(const Due& other) const { return time != other.time ? time > other.time : number > other.number; }
  };

  static bool IsOf(const Transport& transport, int system) {
    return transport.sides[0].system == system || transport.sides[1].system == system;
  }
  bool IsHeld(const Transport& transport, int toSide) {
    const auto isCutOff = [this](const Side& side) { return side.system >= 0 && At(side.system).isCutOff; };
    const int to = transport.sides[toSide].system;
    return isCutOff(transport.sides[0]) || isCutOff(transport.sides[1]) || (to >= 0 && At(to).isFrozen);
  }
  void DeliverHeld(int system) {
    for (Transport& transport : mTransports) {
      for (int index = 0; IsOf(transport, system) && index < 2; ++index) {
        for (std::size_t piece = transport.sides[index].arriving.size(); piece > 0; --piece) {
          mDue.push({mNow, ++mLastDue, &transport, index});
        }
      }
    }
  }
  void SetDeadline(int index) {
    const System& system = At(index);
    mDeadlines[static_cast<std::size_t>(index)] =
        system.endpoint && !system.isFrozen && system.endpoint->NextDeadline() != TCPE_Endpoint::kNever
            ? system.endpoint->NextDeadline() + system.slept
            : TCPE_Endpoint::kNever;
  }
  static std::string Tagged(const Event& opened, const std::string& frames) {
    TCPE_FrameTagger* const tagger = opened.session->Tagger();
    if (tagger == nullptr) {
      return frames;
    }
    std::vector<std::byte> tagged;
    tagger->AppendTagged(std::as_bytes(std::span(frames)), tagged);
    return {reinterpret_cast<const char*>(tagged.data()), tagged.size()};
  }
  Transport* Connect(int from, int to, std::uint32_t address) {
    Transport* transport = nullptr;
    At(from).connecting.emplace(address, Now(from));
    if (const auto id = At(from).endpoint->BeginConnect(address, Now(from))) {
      transport = &Open(from, to, address, *id);
    }
    CarryOut(from);
    return transport;
  }
  Transport& Open(int from, int to, std::uint32_t address, TCPE_Endpoint::Id id) {
    Transport& transport = mTransports.emplace_back();
    transport.sides[0] = {from, At(from).config.localAddress, id};
    transport.sides[0].begun = Now(from);
    transport.sides[1] = {to, address};
    At(from).sides[id] = {&transport, 0};
    if (to == kStranger) {
      Arrive(transport, 0, Side::Piece::opened);
    } else if (to != kNobody && !(impostor && At(to).isOff)) {
      Arrive(transport, 1, Side::Piece::opening);
    } else if (impostor) {
      transport.sides[1].system = kStranger;
      Arrive(transport, 0, Side::Piece::opened);
      impostor(transport);
    }
    return transport;
  }
  void Arrive(Transport& transport, int index, Side::Piece piece, std::string bytes = {}) {
    Side& side = transport.sides[index];
    if (!transport.isCut) {
      side.lastDue = std::max(side.lastDue, mNow + 100 + (mLargestDelay != 0 ? Random(mLargestDelay) : 0));
      side.arriving.push_back({side.lastDue, piece, std::move(bytes)});
      mDue.push({side.lastDue, ++mLastDue, &transport, index});
    }
  }
  void DeliverNext(Transport& transport, int index) {
    Side& side = transport.sides[index];
    if (!side.arriving.empty() && side.arriving.front().due <= mNow && !IsHeld(transport, index)) {
      const Side::Arriving arrived = std::move(side.arriving.front());
      side.arriving.pop_front();
      Deliver(transport, index, arrived);
    }
  }
  void Deliver(Transport& transport, int index, const Side::Arriving& arrived) {
    Side& side = transport.sides[index];
    if (side.system < 0) {
      side.received += arrived.bytes;
      side.hasEnded = side.hasEnded || arrived.piece == Side::Piece::ended;
      return side.answer ? side.answer(arrived.bytes) : void();
    }
    System& system = At(side.system);
    TCPE_Endpoint* const endpoint = system.endpoint.get();
    const TCPE_Time now = Now(side.system);
    if (arrived.piece == Side::Piece::opening) {
      const bool isThere = !system.isOff && system.config.localAddress == side.address;
      const bool isStillWanted = transport.sides[0].id != 0 || transport.sides[0].system == kStranger;
      if (!isThere || !isStillWanted) {
        return;
      }
      side.begun = now;
      side.id = endpoint != nullptr ? endpoint->TransportAccepted(transport.sides[0].address, now) : 0;
      if (side.id != 0) {
        system.sides[side.id] = {&transport, index};
      }
      Arrive(transport, 1 - index, side.id != 0 ? Side::Piece::opened : Side::Piece::ended);
    } else if (side.id != 0 && arrived.piece == Side::Piece::opened) {
      endpoint->TransportConnected(side.id, now);
    } else if (side.id != 0 && arrived.piece == Side::Piece::ended) {
      endpoint->TransportEnded(side.id, now);
    }
    CarryOut(side.system);
    HoldSpace(side);
    side.lastReceived = now;
    for (std::string_view rest = arrived.bytes; !rest.empty() && side.id != 0;) {
      const std::size_t count = std::min(rest.size(), side.space.size());
      Check(count != 0, "no space for arriving bytes");
      std::copy_n(std::as_bytes(std::span(rest)).begin(), count, side.space.begin());
      side.space = {};
      rest.remove_prefix(count);
      endpoint->Received(side.id, count, now);
      CarryOut(side.system);
      HoldSpace(side);
    }
  }
  void HoldSpace(Side& side) {
    if (side.id != 0 && side.space.empty()) {
      side.space = At(side.system).endpoint->ReceiveSpace(side.id);
    }
  }
  void CarryOut(int index) {
    System& system = At(index);
    if (!system.endpoint) {
      return;
    }
    int events = 0;
    while (const std::optional<Event> event = system.endpoint->NextEvent(Now(index))) {
      CarryOut(index, *event);
      Check(++events < 10'000, "events without end");
    }
    Check(system.endpoint->OpenConnections() == system.open.size(), "open connections without their events");
    CheckLimits(index);
    SetDeadline(index);
  }
  bool IsOpen(const Transport& transport, int index) {
    const Side& side = transport.sides[index];
    const auto& open = At(side.system).open;
    const auto found = open.find(transport.sides[1 - index].address);
    return found != open.end() && found->second.id == side.id;
  }
  void CheckLimits(int index) {
    const System& system = At(index);
    const TCPE_Limits& limits = system.config.limits;
    std::map<std::uint32_t, std::size_t> halfOpen;
    for (const auto& [id, position] : system.sides) {
      const auto& [transport, side] = position;
      const bool isOpen = IsOpen(*transport, side);
      const std::size_t payload = isOpen ? limits.maxPayload : limits.maxHandshakePayload;
      const std::size_t space = transport->sides[side].space.size();
      Check(space <= TCPE_FrameHeader::kSize + payload + kTCPE_TagSize, "much space for a stranger");
      if (side == 1 && !isOpen) {
        Check(++halfOpen[transport->sides[0].address] <= limits.maxHalfOpenPerAddress, "many strangers of an address");
      }
    }
    Check(system.endpoint->HalfOpenConnections() <= limits.maxHalfOpen, "too many half-open connections");
    Check(system.open.size() <= std::min(system.config.maxConnections, limits.maxConnections), "too many connections");
    const TCPE_Time since = Now(index) - system.started;
    Check(system.unproved <= 1 + limits.failureReports + since / limits.failureReportPause, "says too much of proofs");
    Check(static_cast<TCPE_Time>(system.floods.size()) <= 1 + since / limits.floodPause, "says too much of floods");
  }
  /// After a look at the time.
  void CheckTimes(int index) {
    const System& system = At(index);
    const TCPE_Limits& limits = system.config.limits;
    for (const auto& [address, since] : system.connecting) {
      Check(Now(index) - since <= 2 * (limits.transportConnect + limits.handshake), "an attempt without an end");
    }
    for (const auto& [id, position] : system.sides) {
      const auto& [transport, side] = position;
      const TCPE_Time age = Now(index) - transport->sides[side].begun;
      const TCPE_Time longest = limits.handshake + (side == 0 ? limits.transportConnect : 0);
      Check(age <= longest || IsOpen(*transport, side), "a connection that never opens, and stays");
    }
  }
  /// A side has opened or ended. The other one has to follow, unless more happens.
  void Changed(Transport& transport) {
    transport.changed = ++mLastDue;
    CheckSidesLater(transport, transport.changed);
  }
  void CheckSidesLater(Transport& transport, std::uint64_t change) {
    const TCPE_Time stated = TCPE_Limits().silence + 100'000 + 2 * mLargestDelay;
    After(stated, [=, this, &transport] {
      int open = 0;
      for (int index = 0; index < 2 && transport.changed == change; ++index) {
        const int system = transport.sides[index].system;
        if (system < 0) {
          return;
        }
        if (At(system).isFrozen || mNow - At(system).thawed < stated) {
          return CheckSidesLater(transport, change);
        }
        open += transport.sides[index].id != 0 && IsOpen(transport, index) ? 1 : 0;
      }
      Check(open != 1, "one side believes that it is connected");
    });
  }
  void CheckAdmitted(const Transport& transport, int side, const Event& event) {
    const TCPE_Endpoint::Config& config = At(transport.sides[side].system).config;
    const Side& peer = transport.sides[1 - side];
    Check(!config.keys || peer.system >= 0 || peer.hasSecret, "a stranger is admitted in spite of the secret");
    Check(event.payload.size() <= config.limits.maxHandshakePayload, "a long introduction");
  }
  /// What a host is given is an unbroken beginning of what the peer's has sent on that connection.
  void CheckNext(Transport& transport, int side, const Event& event) {
    const bool isAltered = transport.isAltered && !trustsChecksums && !At(transport.sides[side].system).config.keys;
    if (transport.sides[1 - side].system < 0 || isAltered) {
      return;
    }
    TCPE_FrameHeader header = event.header;
    header.flags &= static_cast<std::uint8_t>(~kTCPE_Flag_Tag);
    std::string frame(TCPE_FrameHeader::kSize, '\0');
    header.Write(std::as_writable_bytes(std::span(frame)).data());
    frame.append(reinterpret_cast<const char*>(event.payload.data()), event.payload.size());
    std::string& toCome = transport.sides[side].toCome;
    while (toCome.size() >= TCPE_FrameHeader::kSize) {
      const auto next = TCPE_FrameHeader::Read(std::as_bytes(std::span(toCome)).data());
      if (next.type != kTCPE_HeartbeatType) {
        break;
      }
      toCome.erase(0, TCPE_FrameHeader::kSize + next.dataLength);
    }
    Check(toCome.starts_with(Sealed(frame)), "a frame that is not the next one of those that were sent");
    toCome.erase(0, frame.size());
  }
  void CarryOut(int index, const Event& event) {
    System& system = At(index);
    const auto position = system.sides.find(event.id);
    const auto [transport, side] = position != system.sides.end() ? position->second : std::pair<Transport*, int>();
    const auto log = [&](const char* text, const std::string& detail = {}) {
      if (program) {
        return;
      }
      system.log += std::string(system.log.empty() ? "" : ", ") + text + std::to_string(event.address) + detail;
      system.lastLogged = mNow;
    };
    const auto open = system.open.find(event.address);
    const bool isOpen = open != system.open.end() && open->second.id == event.id;
    switch (event.kind) {
    case Event::Kind::opened:
      Check(open == system.open.end(), "two open connections of one address");
      CheckAdmitted(*transport, side, event);
      Changed(*transport);
      log("opened ", event.openedByPeer ? " by peer" : "");
      system.open[event.address] = event;
      break;
    case Event::Kind::frame:
      Check(isOpen, "a frame of a connection that is not open");
      Check(event.payload.size() <= system.config.limits.maxPayload, "a long frame");
      CheckNext(*transport, side, event);
      log("frame ", " " + std::to_string(event.header.type) + " (" + std::to_string(event.payload.size()) + ")");
      break;
    case Event::Kind::finished:
      Check(isOpen, "news of commands on a connection that is not open");
      break;
    case Event::Kind::disconnected:
    case Event::Kind::lost:
      Check(isOpen, "the end of a connection that is not open");
      log(event.kind == Event::Kind::lost ? "lost " : "disconnected ",
          event.kind == Event::Kind::lost ? " " + std::to_string(event.networkError) : "");
      if (event.kind == Event::Kind::disconnected) {
        CheckNext(*transport, side, event);
      }
      system.open.erase(open);
      break;
    case Event::Kind::connectEnded:
      Check((event.error == eTCPE_CommErr_None) == (open != system.open.end()), "connected, or not?");
      if (system.connecting.erase(event.address) == 0) {
        return;
      }
      log("ended ", " " + std::to_string(event.error));
      break;
    case Event::Kind::unproved:
      log("unproved ");
      ++system.unproved;
      break;
    case Event::Kind::flooded:
      system.floods.push_back(event.address);
      break;
    case Event::Kind::send:
      if (transport != nullptr) {
        const std::string bytes(reinterpret_cast<const char*>(event.payload.data()), event.payload.size());
        const auto opened = std::find_if(system.open.begin(), system.open.end(),
                                         [&event](const auto& entry) { return entry.second.id == event.id; });
        Send(*transport, 1 - side, opened != system.open.end() ? Tagged(opened->second, bytes) : bytes);
      }
      break;
    case Event::Kind::close:
      std::erase_if(system.open, [&event](const auto& entry) { return entry.second.id == event.id; });
      if (transport != nullptr) {
        Changed(*transport);
        transport->sides[side].id = 0;
        transport->sides[side].space = {};
        Arrive(*transport, 1 - side, Side::Piece::ended);
        system.sides.erase(position);
      }
      break;
    case Event::Kind::open:
      Open(index, Find(event.address), event.address, event.id);
      break;
    }
    if (program && event.kind < Event::Kind::send && event.kind != Event::Kind::unproved &&
        event.kind != Event::Kind::flooded) {
      program(index, event);
    }
  }

  std::mt19937 mRandom;
  TCPE_Time mNow = 1'000'000'000;
  std::uint32_t mLargestPiece = 0;
  std::uint32_t mLargestDelay = 0;
  std::uint64_t mLastInstance = 0x0102030405060700;
  std::deque<System> mSystems;
  std::vector<TCPE_Time> mDeadlines; // of the endpoints
  std::deque<Transport> mTransports;
  std::priority_queue<Due> mDue;
  std::map<std::uint64_t, std::function<void()>> mActions; // by their numbers
  std::uint64_t mLastDue = 0;
};
