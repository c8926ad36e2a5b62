#include "tcpe/net/TCPE_DiscoveryService.h"

#include "tcpe/net/TCPE_OwnSocket.h"

#include <trel/Sys_Clock.h>

#include <chrono>
#include <limits>
#include <optional>
#include <utility>

#include <asio/buffer.hpp>
#include <asio/ip/address_v4.hpp>

using asio::ip::address_v4;
using asio::ip::udp;

TCPE_DiscoveryService::TCPE_DiscoveryService(asio::io_context& context, TCPE_DiscoveryResponder::Config config,
                                             TCPE_ByteTap& tap)
    : mResponder(std::move(config)), mTap(tap), mOwn(context), mShared(context), mTimer(context) {}

ETCPE_Status TCPE_DiscoveryService::Open(std::uint32_t address, std::uint32_t broadcastAddress, std::uint16_t port) {
  mAddress = address;
  mBroadcastAddress = broadcastAddress;
  mPort = port;
  if (port == 0) {
    return eTCPE_Status_Success;
  }
#if defined(__linux__)
  // Bound to the broadcast address a socket hears broadcasts alone, and only those of its own network.
  const std::uint32_t everybody = broadcastAddress;
  constexpr bool kOwnShares = false;
#else
  const std::uint32_t everybody = 0;
  constexpr bool kOwnShares = true; // it stands beside a socket for all addresses
#endif
  asio::error_code error = Bind(mOwn, address, port, kOwnShares);
  if (!error && broadcastAddress != 0) {
    error = Bind(mShared, everybody, port, true);
  }
  if (!error) {
    return eTCPE_Status_Success;
  }
  Close();
  return error == asio::error::address_in_use ? eTCPE_Status_DiscoveryPortInUse : eTCPE_Status_SystemError;
}

void TCPE_DiscoveryService::Run() {
  for (Ear* ear : {&mOwn, &mShared}) {
    if (ear->socket.is_open()) {
      Listen(*ear);
    }
  }
}

void TCPE_DiscoveryService::Close() {
  ++mGeneration;
  asio::error_code ignored;
  for (Ear* ear : {&mOwn, &mShared}) {
    ear->socket.close(ignored);
    ear->pause.cancel();
  }
  mTimer.cancel();
}

asio::error_code TCPE_DiscoveryService::Bind(Ear& ear, std::uint32_t address, std::uint16_t port, bool shares) {
  asio::error_code error;
  TCPE_Open(ear.socket, udp::v4(), error);
  if (!error && shares) {
    ear.socket.set_option(udp::socket::reuse_address(true), error);
#if defined(SO_REUSEPORT)
    using ReusePort = asio::detail::socket_option::boolean<SOL_SOCKET, SO_REUSEPORT>;
    if (!error) {
      ear.socket.set_option(ReusePort(true), error);
    }
#endif
  }
  if (!error) {
    ear.socket.non_blocking(true, error);
  }
  if (!error) {
    ear.socket.bind({address_v4(address), port}, error);
  }
  return error;
}

void TCPE_DiscoveryService::Listen(Ear& ear) {
  ear.socket.async_receive_from(asio::buffer(ear.buffer), ear.sender,
                                [this, &ear, generation = mGeneration](asio::error_code error, std::size_t size) {
                                  if (generation != mGeneration || error == asio::error::operation_aborted) {
                                    return;
                                  }
                                  if (!error) {
                                    Heard(ear, size);
                                    Listen(ear);
                                    return;
                                  }
                                  constexpr auto kPause = std::chrono::milliseconds(100); // do not spin
                                  ear.pause.expires_after(kPause);
                                  ear.pause.async_wait([this, &ear, generation](asio::error_code) {
                                    if (generation == mGeneration) {
                                      Listen(ear);
                                    }
                                  });
                                });
}

void TCPE_DiscoveryService::Heard(Ear& ear, std::size_t size) {
  const TCPE_DiscoveryResponder::Asker asker{ear.sender.address().to_v4().to_uint(), ear.sender.port()};
  const std::span<const std::byte> datagram = std::span(ear.buffer).first(size);
  if (const TCPE_ByteTap::Turn turn(mTap); turn) {
    turn.TellDatagram(TCPE_TappedBytes::Event::received, {&ear == &mShared ? mBroadcastAddress : mAddress, mPort},
                      {asker.address, asker.port}, datagram);
  }
  mResponder.Received(datagram, asker, &ear == &mShared, Sys_Clock::RawMicroseconds());
  SendDue();
}

void TCPE_DiscoveryService::SendDue() {
  while (const auto answer = mResponder.NextAnswer(mAddress, Sys_Clock::RawMicroseconds())) {
    asio::error_code ignored; // as if the datagram were lost on its way
    const TCPE_ByteTap::Turn turn(mTap);
    mOwn.socket.send_to(asio::buffer(answer->datagram), {address_v4(answer->to.address), answer->to.port}, 0, ignored);
    if (turn && !ignored) {
      turn.TellDatagram(TCPE_TappedBytes::Event::sent, {mAddress, mPort}, {answer->to.address, answer->to.port},
                        answer->datagram);
    }
  }
  const TCPE_Time deadline = mResponder.NextDeadline();
  if (deadline == std::numeric_limits<TCPE_Time>::max()) {
    return;
  }
  mTimer.expires_at(std::chrono::steady_clock::time_point(std::chrono::microseconds(deadline + 1)));
  mTimer.async_wait([this, generation = mGeneration](asio::error_code error) {
    if (!error && generation == mGeneration) {
      SendDue();
    }
  });
}
