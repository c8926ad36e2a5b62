#include "fuzz/FuzzInput.h"
#include "tests/support/SimulatedNetwork.h"

#include <vector>

// Two endpoints and strangers in the simulated network, which throws when an endpoint does what none may do. The input
// is a list of steps: an operation, and what it takes.

namespace {

constexpr std::uint32_t kAddresses[] = {10, 20, 30, 5};
constexpr std::size_t kMaxStrangers = 24;
constexpr int kMostSteps = 100; // more find nothing that as many do not, and take longer

std::string Hello(std::uint8_t instance, std::uint8_t kind, bool haveSecret) {
  TCPE_Hello hello{.majorVersion = static_cast<std::uint8_t>(kind == 1 ? 3 : 4),
                   .authenticationRequired = (kind == 2) != haveSecret};
  hello.instance = instance;
  std::string bytes(TCPE_Hello::kSize, '\0');
  hello.Write(std::as_writable_bytes(std::span(bytes)).data());
  return bytes;
}

std::string Frame(FuzzInput& input) {
  TCPE_FrameHeader header;
  header.flags = input.U8();
  header.type = input.U8() - 6; // from the lowest type of the engine's own
  header.serial = input.U8();
  header.error = input.U8();
  const std::uint16_t length = input.U16() % 320;
  return SimulatedNetwork::Frame(header, std::string(length, 'x'));
}

bool HasSettled(SimulatedNetwork& network) {
  const auto hasSettled = [&network](int system) {
    const bool isPeerOpen = network.At(1 - system).open.contains(kAddresses[system]);
    return network.At(system).connecting.empty() && network.At(system).endpoint->HalfOpenConnections() == 0 &&
           network.At(system).open.size() == (isPeerOpen ? 1U : 0U);
  };
  return hasSettled(0) && hasSettled(1);
}

struct Stranger {
  SimulatedNetwork::Transport* transport;
  int otherSide;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::uint8_t seed = input.U8();
  const bool haveSecret = seed >= 128;
  SimulatedNetwork network(seed);
  network.trustsChecksums = false;
  for (const std::uint32_t maxConnections : {1U, 2U}) {
    TCPE_Endpoint::Config config = SimulatedNetwork::Config(10 * maxConnections);
    config.limits.maxPayload = 256; // small bounds are reached, and everything goes faster
    config.limits.maxHandshakePayload = 64;
    config.limits.maxHalfOpen = 6;
    config.limits.maxFailedAddresses = 3;
    config.maxConnections = maxConnections;
    config.allowConnect = [](std::uint32_t peer) { return peer != 30; };
    config.keys.proved = haveSecret ? SimulatedNetwork::Key('x') : nullptr;
    network.Add(config);
  }
  std::vector<Stranger> strangers;
  for (int step = 0; step < kMostSteps && !input.IsEmpty(); ++step) {
    const std::uint8_t operation = input.U8();
    const int system = (operation & 16U) != 0 ? 1 : 0;
    const std::uint32_t address = kAddresses[operation >> 5U & 3U];
    Stranger* stranger = strangers.empty() ? nullptr : &strangers[(operation >> 4U) % strangers.size()];
    const auto send = [&network, stranger](const std::string& bytes) {
      if (stranger != nullptr) {
        network.Send(*stranger->transport, stranger->otherSide, bytes);
      }
    };
    switch (operation & 15U) {
    case 0:
      network.Connect(system, 1 - system);
      break;
    case 1:
      network.End(system, address, static_cast<ETCPE_NetworkError>(operation >> 7U));
      break;
    case 2:
      network.Restart(system);
      break;
    case 3:
      network.CutAll(system);
      break;
    case 4:
      network.Chop(input.U8(), input.U16());
      break;
    case 5:
      if (strangers.size() < kMaxStrangers) {
        strangers.push_back({&network.ConnectStranger(address, system), 1});
      }
      break;
    case 6:
      if (strangers.size() < kMaxStrangers) {
        if (auto* transport = network.ConnectToStranger(system, address)) {
          strangers.push_back({transport, 0});
        }
      }
      break;
    case 7:
      send(Hello(input.U8(), operation >> 6U, haveSecret));
      break;
    case 8:
      send(Frame(input));
      break;
    case 9: {
      std::string frame = input.Bytes(TCPE_FrameHeader::kSize + input.U8());
      frame.resize(std::max(frame.size(), TCPE_FrameHeader::kSize));
      send(SimulatedNetwork::Sealed(frame));
      break;
    }
    case 10:
      send(input.Bytes(input.U8()));
      break;
    case 11:
      if (stranger != nullptr) {
        network.End(*stranger->transport, stranger->otherSide);
      }
      break;
    case 12: // a bit flips in all that is sent from now on, or none
      network.tamper = [place = input.U16()](int, std::string& bytes) {
        if (place / 8U < bytes.size()) {
          bytes[place / 8U] = static_cast<char>(bytes[place / 8U] ^ 1 << place % 8U);
        }
      };
      break;
    default:
      network.Run(TCPE_Time{input.U16()} * (operation >> 4U));
    }
  }
  network.tamper = nullptr;
  network.Run(4'000'000); // a silence and a probe: until then both sides may believe in a connection that is none
  for (int second = 0; !HasSettled(network); ++second) {
    if (second == 20) {
      throw std::logic_error("strangers stay, a caller was not told, or the sides do not agree");
    }
    network.Run(1'000'000);
  }
  return 0;
}
