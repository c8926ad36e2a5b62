#include "tcpe/net/TCPE_Network.h"

#include "tcpe/net/TCPE_OwnSocket.h"

#include <trel/Sys_Clock.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include <asio/buffer.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>

using asio::ip::tcp;

namespace {

constexpr auto kAcceptPause = std::chrono::milliseconds(100);
constexpr TCPE_Time kFarewell = 100'000;
constexpr auto kFarewellCheck = std::chrono::milliseconds(1);

TCPE_Time Now() { return Sys_Clock::RawMicroseconds(); }

template <class Clock>
std::int64_t Nanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

void PrepareSocket(tcp::socket& socket) {
  asio::error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  socket.non_blocking(true, ignored);
  socket.native_non_blocking(true, ignored);
  Sys_NativeSocket::WantStamps(socket.native_handle());
}

/// A socket that has waited once until it could be written to, as it does to connect, is told of that again with every
/// wait until it can be read.
void ForgetWaitForWriting(tcp::socket& socket, asio::error_code& error) {
  const Sys_NativeSocket::Handle handle = socket.release(error);
  if (!error) {
    TCPE_TakeOver(socket, tcp::v4(), handle, error);
    PrepareSocket(socket);
  }
}

} // namespace

thread_local const TCPE_Network* TCPE_Network::sRunning = nullptr;

TCPE_Network::TCPE_Network(TCPE_Endpoint::Config config, TCPE_DiscoveryResponder::Config discovery, Place place,
                           TCPE_ByteTap& tap, Listener& listener)
    : mLimits(config.limits), mPlace(place), mTap(tap), mListener(listener), mEndpoint(std::move(config)),
      mDiscovery(mContext, std::move(discovery), tap) {}

TCPE_Network::~TCPE_Network() { Stop(); }

ETCPE_Status TCPE_Network::Start() {
  if (const ETCPE_Status status = OpenListeningSockets(); status != eTCPE_Status_Success) {
    return status;
  }
  try {
    mThread = std::thread([this] { Run(); });
  } catch (const std::system_error&) {
    return eTCPE_Status_SystemError;
  }
  return eTCPE_Status_Success;
}

void TCPE_Network::Stop() {
  if (!mThread.joinable()) {
    return;
  }
  asio::post(mContext, [this] {
    CloseListeningSockets(); // a handler that does not end may keep this object, but not the ports
    mListener.OnStopping();
    for (const auto& [id, connection] : mConnections) {
      connection->CloseWhenSent();
      mClosing.push_back(connection);
    }
    mConnections.clear();
    mConnectAfterEnd.clear();
    CloseAll(Now() + kFarewell);
  });
  mThread.join();
  mConnections.clear();
  mClosing.clear();
}

/// Ends the thread when every connection has sent its farewell, or when that takes too long.
void TCPE_Network::CloseAll(TCPE_Time deadline) {
  mClosing.remove_if([](const ConnectionPointer& connection) { return connection->Socket() == nullptr; });
  if (mClosing.empty() || Now() >= deadline) {
    for (const ConnectionPointer& connection : mClosing) {
      connection->CloseNow();
    }
    mContext.stop();
    return;
  }
  mCloseTimer.expires_after(kFarewellCheck);
  mCloseTimer.async_wait([this, deadline](const asio::error_code&) { CloseAll(deadline); });
}

void TCPE_Network::SetLocalSystemType(std::uint8_t type) {
  asio::post(mContext, [this, type] { mEndpoint.SetLocalSystemType(type); });
}

void TCPE_Network::Connect(std::uint32_t address) {
  asio::post(mContext, [this, address] { BeginConnect(address); });
}

void TCPE_Network::BeginConnect(std::uint32_t address) {
  const bool isEnding = std::any_of(mConnections.begin(), mConnections.end(), [address](const auto& entry) {
    return entry.second->GetAddress() == address && entry.second->HasEnded();
  });
  if (isEnding) { // whoever ended it says the farewell, and then the end comes to this thread
    mConnectAfterEnd.insert(address);
    return;
  }
  const std::optional<TCPE_Endpoint::Id> id = mEndpoint.BeginConnect(address, Now());
  if (id) {
    OpenTransport(*id, address);
  }
  CarryOut(id);
}

void TCPE_Network::End(const ConnectionPointer& connection, ETCPE_NetworkError error) {
  asio::post(mContext, [this, connection, error] {
    mEndpoint.End(connection->GetId(), error, Now());
    CarryOut();
    if (mConnectAfterEnd.erase(connection->GetAddress()) != 0) {
      BeginConnect(connection->GetAddress());
    }
  });
}

void TCPE_Network::Pause(const TCPE_Connection& connection) { mEndpoint.Pause(connection.GetId(), Now()); }

void TCPE_Network::Resume(const ConnectionPointer& connection) {
  asio::post(mContext, [this, connection] { OnReadingDue(connection); });
}

void TCPE_Network::MoveTo(std::uint32_t address, std::uint32_t broadcastAddress) {
  asio::post(mContext, [this, address, broadcastAddress] {
    CloseListeningSockets();
    mEndpoint.MoveTo(address, Now());
    CarryOut();
    mPlace.address = address;
    mPlace.broadcastAddress = broadcastAddress;
    if (address != 0 && OpenListeningSockets() == eTCPE_Status_Success) {
      Accept();
      mDiscovery.Run();
    }
  });
}

ETCPE_Status TCPE_Network::OpenListeningSockets() {
  ETCPE_Status status = Listen();
  if (status == eTCPE_Status_Success) {
    status = mDiscovery.Open(mPlace.address, mPlace.broadcastAddress, mPlace.discoveryPort);
  }
  mIsListening = status == eTCPE_Status_Success;
  if (!mIsListening) {
    CloseListeningSockets();
  }
  return status;
}

void TCPE_Network::CloseListeningSockets() {
  ++mListenings;
  mIsListening = false;
  asio::error_code ignored;
  mAcceptor.close(ignored);
  mAcceptPause.cancel();
  mDiscovery.Close();
}

bool TCPE_Network::HasAuthenticationFailed(std::uint32_t address) const {
  return mEndpoint.HasAuthenticationFailed(address, Now());
}

ETCPE_Status TCPE_Network::Listen() {
  const tcp::endpoint endpoint(asio::ip::address_v4(mPlace.address), mPlace.port);
  asio::error_code error;
  TCPE_Open(mAcceptor, endpoint.protocol(), error);
  if (!error) {
#if !defined(_WIN32) // there it would let two processes listen on one port
    mAcceptor.set_option(tcp::acceptor::reuse_address(true), error);
#endif
  }
  if (!error) {
    mAcceptor.bind(endpoint, error);
  }
  if (!error) {
    mAcceptor.listen(asio::socket_base::max_listen_connections, error);
  }
  if (!error) {
    mAcceptor.non_blocking(true, error);
  }
  if (error == asio::error::address_in_use) {
    return eTCPE_Status_PortInUse;
  }
  return error ? eTCPE_Status_SystemError : eTCPE_Status_Success;
}

void TCPE_Network::Run() {
  sRunning = this;
  Accept();
  mDiscovery.Run();
  const auto stays = asio::make_work_guard(mContext); // also while there is no socket to wait for
  mContext.run();
}

void TCPE_Network::OpenTransport(TCPE_Endpoint::Id id, std::uint32_t address) {
  tcp::socket socket(mContext);
  asio::error_code error;
  if (mPlace.address == 0) {
    error = asio::error::network_down;
  } else {
    TCPE_Open(socket, tcp::v4(), error);
  }
  if (!error) {
    // From this system's address: it is the identity that the peer knows it by.
    socket.bind({asio::ip::address_v4(mPlace.address), 0}, error);
  }
  if (error) {
    mEndpoint.TransportEnded(id, Now());
    return;
  }
  const ConnectionPointer connection = Add(id, address, std::move(socket));
  connection->Socket()->async_connect(
      {asio::ip::address_v4(address), mPlace.port}, [this, connection](asio::error_code failure) {
        if (failure == asio::error::operation_aborted || connection->Socket() == nullptr) {
          return; // closed when this was on its way
        }
        if (!failure) {
          ForgetWaitForWriting(*connection->Socket(), failure);
        }
        if (failure) {
          mEndpoint.TransportEnded(connection->GetId(), Now());
        } else {
          connection->TransportOpened(false);
          mEndpoint.TransportConnected(connection->GetId(), Now());
        }
        CarryOut();
        Read(connection);
      });
}

void TCPE_Network::Accept() {
  if (!mAcceptor.is_open()) {
    return;
  }
  mAcceptor.async_wait(tcp::acceptor::wait_read, [this, listening = mListenings](asio::error_code error) {
    if (error == asio::error::operation_aborted || listening != mListenings) {
      return;
    }
    tcp::socket socket(mContext);
    if (!error) {
      TCPE_TakeOver(socket, tcp::v4(), Sys_NativeSocket::Accept(mAcceptor.native_handle()), error);
    }
    if (error == asio::error::would_block || error == asio::error::connection_aborted) { // it has gone again
      Accept();
      return;
    }
    if (error) { // out of descriptors: wait for better times, and do not spin
      mAcceptPause.expires_after(kAcceptPause);
      mAcceptPause.async_wait([this, listening](const asio::error_code&) {
        if (listening == mListenings) {
          Accept();
        }
      });
      return;
    }
    asio::error_code gone;
    const tcp::endpoint remote = socket.remote_endpoint(gone);
    if (!gone) {
      const std::uint32_t address = remote.address().to_v4().to_uint();
      const TCPE_Endpoint::Id id = mEndpoint.TransportAccepted(address, Now());
      const ConnectionPointer connection = Add(id, address, std::move(socket));
      connection->TransportOpened(true);
      CarryOut(id);
      Read(connection);
    }
    Accept();
  });
}

void TCPE_Network::Read(const ConnectionPointer& connection) {
  if (connection->isReading || mEndpoint.IsPaused(connection->GetId()) || connection->Socket() == nullptr) {
    return;
  }
  connection->isReading = true;
  connection->Socket()->async_wait(tcp::socket::wait_read, [this, connection](const asio::error_code& error) {
    connection->isReading = false;
    if (error != asio::error::operation_aborted && connection->Socket() != nullptr &&
        !mEndpoint.IsPaused(connection->GetId())) {
      ReadNow(connection);
    }
  });
}

void TCPE_Network::ReadNow(const ConnectionPointer& connection) {
  const std::span<std::byte> space = mEndpoint.ReceiveSpace(connection->GetId());
  if (space.empty()) {
    return;
  }
  std::optional<std::int64_t> stamp;
  const std::ptrdiff_t count = Sys_NativeSocket::Receive(connection->Socket()->native_handle(), space, &stamp);
  if (count > 0) {
    TCPE_Arrival arrival =
        mArrivals.ArrivalOf(Nanoseconds<std::chrono::steady_clock>(), Nanoseconds<std::chrono::system_clock>(), stamp);
    arrival.hostTimeOfSource = Sys_Clock::OfSource();
    connection->NoteReceived(space.first(static_cast<std::size_t>(count)), arrival);
    mEndpoint.Received(connection->GetId(), static_cast<std::size_t>(count), arrival.read);
  } else if (count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
    mEndpoint.TransportEnded(connection->GetId(), Now());
  }
  CarryOut(connection->GetId());
  Read(connection);
}

void TCPE_Network::CarryOut(std::optional<TCPE_Endpoint::Id> concerned) {
  TCPE_Time now = Now();
  TCPE_Time nearest = TCPE_Endpoint::kNever;
  const auto look = [&] { nearest = concerned ? std::min(nearest, mEndpoint.DeadlineOf(*concerned)) : nearest; };
  while (const std::optional<TCPE_Endpoint::Event> event = mEndpoint.NextEvent(now)) {
    CarryOut(*event);
    if (event->kind == TCPE_Endpoint::Event::Kind::close) {
      nearest = std::min(nearest, mEndpoint.NextDeadline()); // of a transport that is to take its place, perhaps
    }
    if (event->id != concerned || event->kind != TCPE_Endpoint::Event::Kind::frame) {
      look();
      concerned = event->id;
      now = Now();
    }
  }
  mListener.OnAllTold();
  look();
  // A deadline that has moved away is left to the timer, which then comes too early and looks again.
  if (mTimerArmedFor == 0) {
    ArmTimer(mEndpoint.NextDeadline());
  } else if (nearest < mTimerArmedFor) {
    ArmTimer(nearest);
  }
}

void TCPE_Network::CarryOut(const TCPE_Endpoint::Event& event) {
  using Kind = TCPE_Endpoint::Event::Kind;
  const ConnectionPointer& connection = Find(event.id);
  if (event.kind == Kind::connectEnded) {
    mListener.OnConnectEnded(event.address, event.error);
    return;
  }
  if (event.kind == Kind::open) {
    OpenTransport(event.id, event.address);
    return;
  }
  if (event.kind == Kind::unproved || event.kind == Kind::flooded) {
    mListener.OnStrangers(event.networkError, event.address);
    return;
  }
  if (!connection) {
    return;
  }
  switch (event.kind) {
  case Kind::opened:
    connection->Open(event.session);
    mListener.OnOpened(connection, event);
    break;
  case Kind::frame:
    connection->ToldNothing();
    mListener.OnFrame(connection, event.header, event.payload,
                      event.isReadAlone ? connection->LastArrival() : connection->LastArrival().OfSeveral());
    break;
  case Kind::finished:
    event.finished ? connection->Told(*event.finished) : connection->ToldNothing();
    break;
  case Kind::disconnected:
    mListener.OnDisconnected(connection, event.header, event.payload);
    break;
  case Kind::lost:
    mListener.OnLost(connection, event.networkError);
    break;
  case Kind::send:
    connection->SendOfSession(event.payload);
    break;
  case Kind::close:
    connection->CloseWhenSent();
    mClosing.remove_if([](const ConnectionPointer& closing) { return closing->Socket() == nullptr; });
    if (connection->Socket() != nullptr) {
      mClosing.push_back(connection);
    }
    mConnections.erase(event.id);
    break;
  case Kind::unproved:
  case Kind::flooded:
  case Kind::connectEnded:
  case Kind::open:
    break;
  }
}

void TCPE_Network::ArmTimer(TCPE_Time deadline) {
  if (deadline == TCPE_Endpoint::kNever) {
    return;
  }
  mTimerArmedFor = deadline;
  mTimer.expires_at(std::chrono::steady_clock::time_point(std::chrono::microseconds(deadline + 1)));
  mTimer.async_wait([this](const asio::error_code& error) {
    if (!error) {
      mTimerArmedFor = 0;
      mEndpoint.Tick(Now());
      CarryOut();
    }
  });
}

void TCPE_Network::OnTransportFailed(TCPE_Endpoint::Id id, ETCPE_NetworkError error) {
  mEndpoint.End(id, error, Now());
  CarryOut();
}

void TCPE_Network::OnTellingDue(TCPE_Endpoint::Id id) {
  mEndpoint.Look(id);
  CarryOut(id);
}

void TCPE_Network::OnReadingDue(const ConnectionPointer& connection) {
  mEndpoint.Resume(connection->GetId(), Now());
  CarryOut(connection->GetId());
  Read(connection);
}

TCPE_Network::ConnectionPointer TCPE_Network::Add(TCPE_Endpoint::Id id, std::uint32_t address, tcp::socket socket) {
  PrepareSocket(socket);
  auto connection = std::make_shared<TCPE_Connection>(mContext, std::move(socket), static_cast<Owner&>(*this), mLimits,
                                                      mTap, id, address);
  mConnections[id] = connection;
  return connection;
}

const TCPE_Network::ConnectionPointer& TCPE_Network::Find(TCPE_Endpoint::Id id) const {
  static const ConnectionPointer kNone;
  const auto position = mConnections.find(id);
  return position != mConnections.end() ? position->second : kNone;
}
