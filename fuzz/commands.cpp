#include "fuzz/FuzzInput.h"
#include "link/commands/Trel_Catalogue.h"
#include "tcpe/TCPE_CommandCodec.h"

#include <trel/TCPE_CommManager.h>
#include <trel/Trel_CommTask.h>

#include <cstdlib>
#include <memory>
#include <sstream>

// A payload, decoded as any command or reply, and encoded again. Input: class, 1: legacy numbering, 2: reply, revision,
// payload.

namespace {

/// Payload of a command that has read the given one; all it can say when it read a cut one.
std::string Recoded(const Trel_CommandClass& commandClass, bool isReply, std::uint8_t revision,
                    const std::string& payload) {
  // Exactly as long, so that the sanitizer sees who reads beyond.
  const auto bytes = std::make_unique<std::byte[]>(payload.size());
  const auto source = std::as_bytes(std::span(payload));
  std::copy(source.begin(), source.end(), bytes.get());
  const auto owner = commandClass.create();
  TCPE_Command& command = *owner;
  const auto decode = isReply ? &TCPE_CommandCodec::DecodeReply : &TCPE_CommandCodec::DecodeCommand;
  decode(command, {.revision = revision}, {bytes.get(), payload.size()});
  std::ostringstream text;
  command.GetSendDebugInfo(text);
  command.GetReplyDebugInfo(text);
  static Trel_CommTask task(0, 0, nullptr, 128, nullptr);
  static TCPE_CommandCodec codec;
  if ((isReply ? codec.EncodeReply(task, command, {}) : codec.EncodeCommand(task, command, {})) != eTCPE_CommErr_None) {
    std::abort(); // what came in one frame fits in one
  }
  const auto encoded = codec.Frame().subspan(TCPE_FrameHeader::kSize);
  return {reinterpret_cast<const char*>(encoded.data()), encoded.size()};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const auto classes = Trel_Catalogue::Classes();
  const Trel_CommandClass& commandClass = classes[input.U8() % classes.size()];
  const std::uint8_t options = input.U8();
  TCPE_CommManager::SetSupportsMarlo11((options & 1U) == 0);
  const bool isReply = (options & 2U) != 0;
  const std::uint8_t revision = input.U8();
  const std::string first = Recoded(commandClass, isReply, revision, input.Bytes(TCPE_Limits().maxPayload));
  // From then on nothing changes; the first time a revision may have left out fields, and names may have been replaced.
  const std::uint8_t own = commandClass.description->traits.revision;
  const std::string second = Recoded(commandClass, isReply, own, first);
  if (Recoded(commandClass, isReply, own, second) != second) {
    std::abort();
  }
  return 0;
}
