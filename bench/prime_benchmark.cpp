// What it costs to encode and decode the prime command through the virtual interface, as the engine does, beside a
// protobuf message with the same fields.

#include <trel/Trel_Cmd_Transport.h>

#include "prime.pb.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <memory>

namespace {

constexpr std::int64_t kTime = 0x0102030405060708;
constexpr std::int32_t kSpeed = 1000;
constexpr std::size_t kPayload = 44;

using Buffer = std::array<char, 128>;

/// As the base class, so that the calls are virtual ones.
std::unique_ptr<TCPE_Command> MakePrime() {
  return std::make_unique<Trel_Cmd_Prime>(kTime, kTime + 1, kTime + 2, kTime + 3, kTime + 4, kSpeed);
}

bench::Prime MakeMessage() {
  bench::Prime message;
  message.set_pre_roll_start(kTime);
  message.set_in_point(kTime + 1);
  message.set_out_point(kTime + 2);
  message.set_post_roll_end(kTime + 3);
  message.set_actual_start_time(kTime + 4);
  message.set_play_speed(kSpeed);
  return message;
}

void EncodeCommand(benchmark::State& state) {
  Buffer buffer{};
  const std::unique_ptr<TCPE_Command> command = MakePrime();
  command->SetPayloadEnd(buffer.data() + buffer.size());
  for (auto _ : state) {
    TCPE_Command* target = command.get();
    benchmark::DoNotOptimize(target);
    char* cursor = buffer.data();
    target->PrepareTransmitCommand(&cursor);
    benchmark::ClobberMemory();
    if (cursor != buffer.data() + kPayload) {
      state.SkipWithError("wrong length");
    }
  }
}
BENCHMARK(EncodeCommand);

void DecodeCommand(benchmark::State& state) {
  Buffer buffer{};
  char* end = buffer.data();
  MakePrime()->PrepareTransmitCommand(&end);
  const std::unique_ptr<TCPE_Command> command = MakePrime();
  command->SetPayloadEnd(end);
  for (auto _ : state) {
    TCPE_Command* target = command.get();
    benchmark::DoNotOptimize(target);
    char* cursor = buffer.data();
    target->PrepareReceiveCommand(&cursor);
    benchmark::ClobberMemory();
    if (cursor != end) {
      state.SkipWithError("wrong length");
    }
  }
}
BENCHMARK(DecodeCommand);

void EncodeProtobuf(benchmark::State& state) {
  Buffer buffer{};
  bench::Prime message = MakeMessage();
  for (auto _ : state) {
    benchmark::DoNotOptimize(&message);
    if (!message.SerializeToArray(buffer.data(), static_cast<int>(buffer.size()))) {
      state.SkipWithError("too long");
    }
    benchmark::ClobberMemory();
  }
}
BENCHMARK(EncodeProtobuf);

void DecodeProtobuf(benchmark::State& state) {
  const std::string bytes = MakeMessage().SerializeAsString();
  bench::Prime message;
  for (auto _ : state) {
    benchmark::DoNotOptimize(&message);
    if (!message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
      state.SkipWithError("malformed");
    }
    benchmark::ClobberMemory();
  }
}
BENCHMARK(DecodeProtobuf);

} // namespace
