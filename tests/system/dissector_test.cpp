#include <trel/Sys_Socket.h>
#include <trel/Trel_Command.h>
#include <trel/host/Trel_CommandCatalogue.h>

#include "tests/support/Capture.h"
#include "tests/support/FieldValues.h"
#include "tests/support/NumberingTest.h"
#include "tests/support/RawPeer.h"
#include "tests/support/Shell.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

/// Values by the name of the field, without "trel.".
using Packet = std::map<std::string, std::string>;

const Capture::End kMasterEnd{0x7f000002, 28282};
const Capture::End kDiscovery{0x7fffffff, 28283};
const Capture::End kSatellite{0x7f000003, 40000};

class DissectorTest : public NumberingTest {
protected:
  void SetUp() override {
    NumberingTest::SetUp();
    if (std::system("tshark --version >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "there is no tshark; scripts/bootstrap installs it";
    }
  }
  void TearDown() override {
    std::filesystem::remove(mFile);
    NumberingTest::TearDown();
  }

  /// What the dissector makes of the capture: for each packet "field=value field=value", of the fields asked for and
  /// the notes.
  std::vector<std::string> Dissect(Capture& capture, std::set<std::string> fields) const {
    capture.Close();
    // Without the user's own preferences and plugins. Twice, as commands are shown with their replies then.
    std::string command = "HOME=/nonexistent tshark -2 -X lua_script:" TREL_DISSECTOR " -T fields -r " + mFile;
    fields.insert({"left_over", "payload"});
    for (const std::string& field : fields) {
      command += " -e trel." + field;
    }
    const auto [status, output] = RunShell(command + " -e _ws.expert.message");
    EXPECT_EQ(status, 0);
    std::vector<std::string> packets;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
      Packet packet;
      std::istringstream values(line);
      std::string value;
      for (const std::string& field : fields) {
        std::getline(values, value, '\t');
        packet[field] = value == "True" ? "1" : value; // later versions write flags so
      }
      std::getline(values, value);
      packets.push_back(Text(packet) + (value.empty() ? "" : " note=" + value));
    }
    return packets;
  }
  static std::string Text(const Packet& packet) {
    std::string text;
    for (const auto& [field, value] : packet) {
      text += value.empty() ? "" : (text.empty() ? "" : " ") + field + '=' + value;
    }
    return text;
  }

  static std::uint8_t Major() { return Trel_Command::GetCurrentProtocolMajorVersion(); }
  static const TCPE_EngineTypes& EngineTypes() { return IsCurrent() ? kTCPE_CurrentTypes : kTCPE_LegacyTypes; }
  static TCPE_eCmd TypeOf(const Trel_CommandDescription& command) {
    return Trel_Command::GetTCPECommandType(IsCurrent() ? command.identifiers.current : command.identifiers.legacy);
  }
  static TCPE_eCmd TypeOf(const char* name) { return TypeOf(*Trel_CommandCatalogue::Find(name)); }
  static Bytes Frame(TCPE_FrameHeader header, const Bytes& payload = {}) {
    header.majorVersion = Major();
    header.minorVersion = 1;
    return RawFrame(header, payload);
  }

  const std::string mFile = TREL_DISSECTOR "." + std::to_string(getpid()) + ".pcap";
};

INSTANTIATE_NUMBERING_TESTS(DissectorTest);

/// Adds to a packet how a value is shown.
void Show(const std::string& name, const Trel_FieldDescription& field, const Trel_FieldValue& value, Packet* packet) {
  std::string& text = (*packet)[name];
  text += text.empty() ? "" : ",";
  if (const auto* const number = std::get_if<std::int64_t>(&value.value)) {
    text += field.kind == Trel_FieldKind::ipv4 ? Sys_Socket::DecodeIPAddress(static_cast<std::uint32_t>(*number))
                                               : std::to_string(*number);
  } else if (const auto* const flag = std::get_if<bool>(&value.value)) {
    text += *flag ? "1" : "0";
  } else if (const auto* const characters = std::get_if<std::string>(&value.value)) {
    text += *characters;
  } else {
    const auto& list = std::get<Trel_FieldValue::List>(value.value);
    text += std::to_string(list.size());
    for (const Trel_FieldValue::Record& entry : list) {
      for (std::size_t part = 0; part < entry.size(); ++part) {
        Show(name + '.' + field.entry[part].name, field.entry[part], entry[part], packet);
      }
    }
  }
}

TEST_P(DissectorTest, NamesEveryFieldOfEveryCommand) {
  const auto numbering = IsCurrent() ? Trel_Numbering::current : Trel_Numbering::legacy;
  // On another port it is found by what it looks like.
  const Capture::End host{kMasterEnd.address, IsCurrent() ? kMasterEnd.port : std::uint16_t{40001}};
  Capture capture(mFile);
  std::set<std::string> fields = {"command", "header.type", "response_in", "response_to", "response_time"};
  std::vector<std::string> expected;
  for (const Trel_CommandDescription* const description : Trel_CommandCatalogue::Commands()) {
    const auto command = Trel_CommandCatalogue::Construct(*description);
    const std::string commandName = description->identifiers.name;
    for (const bool isReply : {false, true}) {
      const std::size_t number = expected.size() + 1;
      Packet packet = {{"command", commandName}, {"header.type", std::to_string(TypeOf(*description))}};
      if (isReply) {
        packet["response_to"] = std::to_string(number - 1);
        packet["response_time"] = "0.001000000";
      } else {
        packet["response_in"] = std::to_string(number + 1);
      }
      // It answers in a revision that does not carry all that it writes.
      const bool isLong = isReply && commandName == "GetCurrentSelection";
      packet["left_over"] = isLong ? "0101" : "";
      const auto layout = Trel_CommandCatalogue::Layout(isReply ? description->reply : description->command, numbering);
      for (const auto& [field, offset] : layout) {
        EXPECT_TRUE(Trel_CommandCatalogue::SetField(*command, *field, ValueFor(*field)));
      }
      Bytes bytes(16384);
      char* const begin = reinterpret_cast<char*>(bytes.data());
      char* end = begin;
      isReply ? command->PrepareTransmitReply(&end) : command->PrepareTransmitCommand(&end);
      bytes.resize(static_cast<std::size_t>(end - begin));
      // Some fields travel as something else than what they were set to.
      const auto arrived = Trel_CommandCatalogue::Construct(*description);
      arrived->SetReceivedRevision(255);
      end = begin;
      isReply ? arrived->PrepareReceiveReply(&end) : arrived->PrepareReceiveCommand(&end);
      for (const auto& [field, offset] : layout) {
        if (field->since <= description->traits.revision) {
          Show(commandName + '.' + field->name, *field, Trel_CommandCatalogue::GetField(*arrived, *field).value(),
               &packet);
        }
      }
      for (const auto& [field, value] : packet) {
        fields.insert(field);
      }
      expected.push_back(Text(packet) + (isLong ? " note=Bytes left over" : ""));
      capture.AddTcp(isReply ? kSatellite : host, isReply ? host : kSatellite,
                     Frame({.revision = description->traits.revision,
                            .flags = isReply ? kTCPE_Flag_Reply : kTCPE_Flag_ReplyWanted,
                            .type = TypeOf(*description),
                            .serial = static_cast<std::uint32_t>(number + 1) / 2},
                           bytes));
    }
  }
  EXPECT_EQ(Dissect(capture, fields), expected);
}

Bytes With(Bytes bytes, std::size_t offset, std::uint8_t byte) {
  bytes[offset] = std::byte{byte};
  return bytes;
}

TEST_P(DissectorTest, ShowsWhatElseTravelsAndWhatIsWrong) {
  Bytes hello(TCPE_Hello::kSize);
  TCPE_Hello{.majorVersion = Major(), .authenticationRequired = true, .instance = 0x2a}.Write(hello.data());
  const std::string helloText =
      "hello.flags.authentication=1 hello.instance=0x000000000000002a hello.major=" + std::to_string(Major());
  const auto frame = [](const char* name, std::size_t size, std::uint8_t flags = 0) {
    return Frame({.flags = flags, .type = TypeOf(name)}, With(Bytes(size), 3, 2));
  };
  const Bytes heartbeat = Frame({});
  const auto refusal = Frame({.flags = kTCPE_Flag_ErrorReply, .error = eTCPE_CommErr_UnknownCommand});
  const auto proof = Frame({.type = EngineTypes().authenticationChallenge}, With(Bytes(32), 31, 1));
  const char* const discovery = "DiscoverMasterSystems";
  enum Way { tcp, query, answer };
  const struct {
    Bytes bytes;
    std::string text; // of the last packet; or its begin, where the text ends with a note
    std::size_t segments = 1;
    Way way = tcp;
  } cases[] = {
      {hello, helloText},
      {hello + heartbeat + frame("ListSystems", 4 + 2 * 72) + heartbeat,
       "ListSystems.Systems=2 command=ListSystems,Heartbeat", 5},
      {Frame({.flags = kTCPE_Flag_ReplyWanted}), "command=Probe"},
      {refusal, "command=Probe note=Probe error: unknown command"},
      {Frame({.flags = kTCPE_Flag_Tag}) + With(Bytes(16), 15, 7),
       "command=Heartbeat tag=" + std::string(31, '0') + '7'},
      {proof, "AuthenticationChallenge.Proof=" + std::string(63, '0') + "1 command=AuthenticationChallenge"},
      {frame("DialogOnScreen", 4), "DialogOnScreen.DialogCode=2 command=DialogOnScreen"},
      {With(heartbeat, 2, 9), "command=Heartbeat note=Unknown protocol version"},
      {With(heartbeat, 19, 1), "command=Heartbeat note=Wrong checksum, should be 0x"},
      {With(heartbeat, 0, 0x41), "command=Heartbeat note=Too long"},
      {frame("StartPlayback", 7),
       "command=StartPlayback note=StartAtRunningTime (8 bytes) does not fit at offset 0 of 7"},
      {Frame({.type = 78}), "command=Command 78 note=Unknown command"},
      {frame(discovery, 293, kTCPE_Flag_ReplyWanted), "command=DiscoverMasterSystems response_in=18", 1, query},
      {frame(discovery, 293, kTCPE_Flag_Reply), "command=DiscoverMasterSystems discovery.Available=0 response_to=17", 1,
       answer},
      {frame(discovery, 16), "command=DiscoverMasterSystems note=Padding (277 bytes) does not fit", 1, query},
      {frame(discovery, 293) + Bytes(1), "command=DiscoverMasterSystems note=The datagram is not as long", 1, query},
  };
  Capture capture(mFile);
  std::vector<std::size_t> lastPackets;
  std::size_t packets = 0;
  for (const auto& [bytes, text, segments, way] : cases) {
    const auto port = static_cast<std::uint16_t>(way == tcp ? 40001 + lastPackets.size() : 40000);
    const Capture::End peer{kSatellite.address, port};
    for (std::size_t segment = 0; segment < segments; ++segment, ++packets) {
      const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() * segment / segments);
      const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() * (segment + 1) / segments);
      if (way == tcp) {
        capture.AddTcp(peer, kMasterEnd, {begin, end});
      } else {
        capture.AddUdp(way == query ? peer : kDiscovery, way == query ? kDiscovery : peer, {begin, end});
      }
    }
    lastPackets.push_back(packets - 1);
  }
  const auto dissected =
      Dissect(capture, {"command", "hello.major", "hello.flags.authentication", "hello.instance", "ListSystems.Systems",
                        "tag", "AuthenticationChallenge.Proof", "DialogOnScreen.DialogCode", "discovery.Available",
                        "response_in", "response_to"});
  ASSERT_EQ(dissected.size(), packets);
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string& text = cases[i].text;
    const std::string& shown = dissected[lastPackets[i]];
    EXPECT_EQ(text.find(" note=") != std::string::npos ? shown.substr(0, text.size()) : shown, text);
  }
}

} // namespace
