// What the exported headers say of threads: each operation that may be called from any of them, and each that may be
// called where nothing may wait. The second needs no list of its own: it is a column of the first.

#include <trel/Trel.h>
#include <trel/host/Trel_CommandCatalogue.h>
#include <trel/host/Trel_LinkSession.h>
#include <trel/host/Trel_StartHelper.h>

#include "tests/support/HostProcess.h"
#include "tests/support/PeerSystem.h"
#include "tests/support/RealTimeWatch.h"
#include "tests/support/TestSystem.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

constexpr bool kRealTimeSafe = true;

struct Promise {
  const char* operations;
  std::function<void()> call;
  bool isRealTimeSafe = false;
};

std::atomic<int> sReports = 0;
void CountReport(const char* text, std::int32_t /*line*/) {
  ++sReports;
  std::fprintf(stderr, "reported: %s\n", text);
}

/// A master's session that a real satellite is linked with; a system that it stays connected with, and one that comes
/// and goes.
class Promises : public testing::Test {
protected:
  using Manager = Trel_CommManager;
  using Clock = Trel_CorrelatedClockMgr;

  void SetUp() override {
    Cmn_Assert::SetSink(&CountReport);
    SPSSetStartupOption("DiscoveryPort", std::to_string(TestPort() + 8'000).c_str());
    mSession = std::make_unique<Trel_LinkSession>(
        Trel_LinkSession::Settings{.isMaster = true, .onStart = [](const Trel_AgreedStart&) { return true; }});
    Trel_CommPreferences preferences = TestPreferences(kHostAddress);
    ASSERT_EQ(Manager::Initialize(&preferences, &Trel_LinkSession::OnNetworkError), 0);
    ASSERT_TRUE(mSession->Start());
    Start(mCalm, mRestless);
    ASSERT_TRUE(Manager::Connect(mTo));
    ASSERT_TRUE(Eventually([this] { return mSession->IsLinked(); }));
  }
  void TearDown() override {
    mSession.reset();
    Manager::Terminate();
    Cmn_Assert::SetSink(nullptr);
  }

  std::vector<Promise> All();
  std::vector<Promise> OfCommManager();
  std::vector<Promise> OfSession() const;

  TestSystem mCalm{1};
  TestSystem mRestless{0};
  const std::uint32_t mTo = mCalm.Address();
  std::unique_ptr<Trel_LinkSession> mSession;
  HostProcess mSatellite{
      HostProcess::OnOwnPorts({"host", "--satellite", "--address", "127.0.0.3", "--connect", "127.0.0.2"})};
  Trel_TCPEInterface mDoor;
};

std::vector<Promise> Promises::OfCommManager() {
  return {
      {"numbering, numbers of satellites, the local record",
       [] {
         TCPE_CommManager::GetSupportsMarlo11(), Manager::GetLocalSystem();
         Manager::SetMaxNumberSatellites(11), Manager::GetMaxNumberSatellites();
         Manager::SetMaxNumberSatellitesSupported(128), Manager::GetMaxNumberSatellitesSupported();
       },
       kRealTimeSafe},
      {"connections",
       [this] {
         Manager::Connect(mRestless.Address()), Manager::IsConnected(mTo), Manager::GetConnectedAddresses();
         Manager::GetPeerInstance(mTo), Manager::GetConnection(mTo), Manager::Disconnect(mRestless.Address());
         Manager::NetworkErrorOccured(eNetworkError_ConnectionLost, mRestless.Address());
         Manager::GetAuthenticationFailed(mTo), Manager::DoIdle();
         mCalm.GetConnections(), mRestless.Connect(mTo), mRestless.Disconnect(mTo);
       }},
      {"sending",
       [this] {
         const std::array<std::uint32_t, 2> all{mTo, mRestless.Address()};
         Trel_Cmd_GetState query;
         Trel_Cmd_TestRunningTime told(1);
         query.SetIPAddressTo(mTo), Manager::SendCommand(&query);
         Manager::SendCommandToAll(&query, all), Manager::SendCommandToAll(&told, all);
         const TCPE_CommManager::NeverWaits never;
         mRestless.SendTime(1, mTo), mRestless.Query(mTo), mCalm.Query(kHostAddress);
       }},
      {"pumping and hooks",
       [] {
         Manager::DisposeCommand(Manager::TakeCommand()), Manager::PreProcessConnectionCommands(nullptr);
         Manager::SetHostPumpedDelivery(false);
         Manager::SetCommandLog([](const char*) {}), Manager::SetCommandLog(nullptr);
         Manager::SetByteTap([](const TCPE_TappedBytes&, void*) {}), Manager::SetByteTap(nullptr);
       }},
      {"what is known",
       [this] {
         Manager::GetSnapshot(), Manager::SetPeerName(mTo, "Right"), Manager::GetInitializationReport();
         Manager::IsInitialized(), mCalm.GetCounters(), mCalm.CopyLocalSystem(), Trel_CommPreferences::Inst();
       }},
      {"looking for systems",
       [this] {
         std::map<Trel_System, bool> systems;
         Trel_System system;
         Manager::GetMasterSystemsList(&systems), Manager::GetSatelliteList(&systems);
         Manager::VerifySatelliteIsAvailable(mTo, &system);
         Sys_UDPSocket socket;
         socket.Register(), socket.AllocateReplyAddress();
         for (const bool ofMasters : {true, false}) {
           std::string name;
           std::uint32_t address = 0;
           std::int32_t left = 1;
           std::uint8_t version = 0;
           ETCPE_SystemType type{};
           bool isAvailable = false;
           (mCalm.*(ofMasters ? &TestSystem::SendDiscoverMasterSystemsCommand
                              : &TestSystem::SendDiscoveryRequestCommand))(&socket, kHostAddress);
           (mCalm.*(ofMasters ? &TestSystem::ReceiveDiscoverMasterSystemsReply
                              : &TestSystem::ReceiveDiscoveryRequestReply))(&socket, &left, &name, &name, &address,
                                                                            &type, &version, &version, &isAvailable);
         }
       }},
      {"roles, names, ports and addresses",
       [] {
         Manager::IsSatellite(), Manager::SetIsSatellite(false), Manager::AllowSatellitesToConnectToMasterSystem();
         Manager::SetAllowSatellitesToConnectToMasterSystem(true), Manager::IsMasterClock();
         Manager::SetIsMasterClock(true), Manager::GetSystemType(), Manager::SetSystemType(eTCPE_SystemType_Master);
         Manager::GetUniqueID(), Manager::SetUniqueID(7), Manager::GetSystemName(), Manager::SetSystemName("Stage");
         Manager::GetSupportsMarlo11();
         TCPE_CommManager::HoldNumbering(), TCPE_CommManager::ReadNumberingOption();
         TCPE_CommManager::ReleaseNumbering(), Manager::GetDiscoveryPort(), Manager::GetCommunicationPort(),
             Manager::GetAdaptorIPAddress();
         Manager::SetLocalSystemConnectionIDIP(Manager::GetLocalSystemConnectionIDIP());
         Manager::SetLocalSystemConnectionIDPort(Manager::GetLocalSystemConnectionIDPort());
         Manager::SetMasterSystemConnectionIDIPForDiscovery(Manager::GetMasterSystemConnectionIDIPForDiscovery());
         Manager::SetMasterSystemConnectionIDPortForDiscovery(Manager::GetMasterSystemConnectionIDPortForDiscovery());
         Manager::SetMasterSystemIPAddress(Manager::GetMasterSystemIPAddress());
       }},
      {"a system's beginning and end", [this] { mRestless.Terminate(), mRestless.Start(); }},
      {"Trel_TCPEInterface",
       [this] {
         const std::unique_ptr<TCPE_CommTask> task(mDoor.CreateCommTask(1, 2, mDoor.GetLocalSystem()));
         Trel_Cmd_GetState query;
         mDoor.GetDiscoveryPort(), mDoor.GetCommunicationPort(), mDoor.HandleSyncCommand(&query);
         mDoor.HandleAsyncCommand(&query), mDoor.AllowConnect(mTo), mDoor.IsAvailable();
         mDoor.PeerConnected(mTo, 1, eTCPE_SystemType_Master), task->GetConnectedAddresses();
         mDoor.InitializeSubclass(), mDoor.TerminateSubclass();
       }},
  };
}

std::vector<Promise> Promises::OfSession() const {
  Trel_LinkSession& session = *mSession;
  return {
      {"Trel_LinkSession, time",
       [&session] { std::ignore = session.IsClockLocked() && session.GetHostTime(*session.GetRunningTime()); },
       kRealTimeSafe},
      {"what is known",
       [&session] {
         session.IsLinked(), session.GetSystems(), session.GetLinkedAddresses(), session.GetExchangeStatus(1);
         session.HasControl(), session.GetSystemInControl(), session.GetLastStart(), session.GetState();
         session.GetStates(), session.GetSharedSettings(), Trel_LinkSession::Explain(Trel_LinkRefusal::notLinked);
       }},
      {"control, and playing together",
       [&session] {
         session.RequestControl();
         session.Prime({}), session.StartPlayback({.when = Trel_StartRequest::When::in, .withoutUnready = true});
         session.ReportStart(1, 2), session.ReportNoStart(1, "why"), session.StopPlayback();
       }},
      {"what the systems tell each other",
       [&session] {
         session.SetSoloed(true), session.SetRecording(true), session.SetOnline(true), session.SetTakingPart(true);
         session.SetVideoReference({}), session.SetDialog("text"), session.PressButton(true);
         session.SetLoopPlay(true), session.SetSelection({}), session.EnableGroup(eTrel_Group_1, true);
         session.SoloAll(true), session.RequestOnline(true, 0), session.RequestTakingPart(true, 0);
       }},
      {"who is there",
       [&session] {
         session.SetOrderNumber(kPeerAddress, 1), session.SetSystemName("Stage");
         session.DisconnectSystem(kPeerAddress);
         Trel_LinkSession::OnNetworkError(eNetworkError_ConnectionLost, kOtherPeerAddress);
       }},
      {"beginning and end of the session", [&session] { session.Stop(), session.Start(); }},
  };
}

std::vector<Promise> Promises::All() {
  std::vector<Promise> promises = {
      {"Trel_CorrelatedClockMgr, queries",
       [] {
         Clock::GetHostTime(Clock::GetRunningTime(1)), Clock::IsLocked(), Clock::GetMaxNetworkLatencyForNonMaster();
       },
       kRealTimeSafe},
      {"Trel_CorrelatedClockMgr",
       [] {
         const std::int64_t now = Sys_Clock::Microseconds();
         Trel_Cmd_UpdateRunningTime command(now);
         Clock::AddMeasurement(now, now), Clock::HandleTimingCommand(&command), Clock::GetStatus();
         Clock::GetErrorBound(now), Clock::WaitUntilLocked(100, 100), Clock::ResetClock();
       }},
      {"Trel_CorrelatedClockMgr, life", [] { Clock::Terminate(), Clock::Initialize(); }},
      {"Trel_StartHelper",
       [] {
         Trel_StartHelper::WaitUntilRunningTime(0), Trel_StartHelper::WaitUntilHostTime(Sys_Clock::Microseconds());
       }},
      {"Sys_Clock",
       [] {
         Sys_Clock::SetSource(nullptr);
         std::ignore = Sys_Clock::ToRaw(Sys_Clock::FromRaw(Sys_Clock::RawMicroseconds()) + Sys_Clock::Microseconds());
       },
       kRealTimeSafe},
      {"start of the platform",
       [] {
         Sys_Clock::Init(), Sys_Init::PlatformInit(), Trel_Init::Init(), Sys_Socket::Initialize();
         Sys_Clock::WaitUntil(Sys_Clock::Microseconds() + 100);
       }},
      {"start-up options",
       [] {
         PlatformSupport_Initialize(false), SPSSetStartupOption("Unknown", "1");
         SPSStartupOptionSInt32("Unknown", 1), SPSStartupOptionText("Unknown", "");
         Cmn_FeatureAuthorization::IsAuthorized(1);
       }},
      {"adaptors",
       [] {
         Sys_Adaptor adaptor;
         std::vector<Sys_Adaptor> adaptors = Sys_Socket::GetAdaptors();
         Sys_Socket::ReadAdaptors(&adaptors), Sys_Socket::FindAdaptorOf(kHostAddress, &adaptor);
         Sys_Socket::GetHostName();
       }},
      {"texts and numbers",
       [] {
         Cmn_Int32ToString(-1), Cmn_UInt32ToString(1), Cmn_Int64ToString(1), Cmn_Printable("text");
         Sys_Umid::Random64(), Sys_Umid::RandomPositive31(), Sys_Socket::DecodeIPAddress(1);
         TCPE_ConnectionID::DecodeConnectionID({1, 2});
       }},
      {"constant texts",
       [] {
         const Trel_ClockStatus status;
         std::ignore = status.GetStateText(), std::ignore = status.GetReasonText();
         std::ignore = Trel_ClockStatus::GetRejectionText(eTrel_ClockRejection_None);
         TCPE_ErrorText(eTCPE_CommErr_None), TCPE_ErrorText(eNetworkError_None), TCPE_ErrorText(eTCPE_Status_Success);
       },
       kRealTimeSafe},
      {"values",
       [] {
         std::uint32_t address = 0;
         std::uint16_t port = 0;
         Sys_Socket::EncodeIPAddress("1.2.3.4", &address);
         const TCPE_ConnectionID id = TCPE_ConnectionID::AddressAndPort2ConnectionID(address, 5);
         TCPE_ConnectionID::ConnectionID2AddressAndPort(id, &address, &port);
         std::ignore = id.IsValid() && id != TCPE_ConnectionID() && id < TCPE_ConnectionID();
         Trel_System system;
         system.SetSystemName("Left"), system.SetHostName("left"), std::ignore = system < Trel_System();
         const Trel_LinearCorrelator::Line line;
         std::ignore = line.PredictLocal(line.PredictRemote(1));
         const PlayStartData_t start{};
         Trel_Diags diags;
         diags.CalculateDiagnostics(&start, &start, true), diags.OutputDiagsToVornTrace(), diags.ClearData();
       },
       kRealTimeSafe},
      {"Cmn_Assert", [] { Cmn_Assert::HandleMagicAssert(true, "", 1), Cmn_Assert::SetSink(&CountReport); },
       kRealTimeSafe},
      {"Trel_Command",
       [] {
         alignas(std::max_align_t) std::array<std::byte, Trel_Command::kMaxCommandSize> block{};
         std::array<char, 64> wire{};
         char* cursor = wire.data();
         TCPE_Command* const command = Trel_Command::Construct(eTrel_Cmd_TestRunningTime, block.data());
         Trel_Command::SetDoItCommand(eTrel_Cmd_UpdateVideo, [](TCPE_Command*) {});
         Trel_Command::SetAppDataPtr(eTrel_Cmd_UpdateVideo, nullptr);
         Trel_Command::DoIt(command), Trel_Command::HasHandler(command), Trel_Command::GetMaxCommandSize();
         TCPE_eCmd type = Trel_Command::GetTCPECommandType(Trel_Command::GetCompatibleID(1));
         Trel_Command::ValidateCommand(&type), Trel_Command::GetCurrentProtocolMajorVersion();
         Trel_Command::GetCurrentProtocolMinorVersion(), command->WriteHeader(4, 1, &cursor);
         command->PrepareTransmitCommand(&cursor), std::destroy_at(command);
       },
       kRealTimeSafe},
      {"Trel_CommandCatalogue",
       [] {
         const Trel_CommandDescription& prime = *Trel_CommandCatalogue::Find("Prime");
         const auto command = Trel_CommandCatalogue::Construct(prime);
         const auto value = Trel_CommandCatalogue::GetField(*command, prime.command.front());
         Trel_CommandCatalogue::SetField(*command, prime.command.front(), value.value());
         Trel_CommandCatalogue::Layout(prime.command, {}), Trel_CommandCatalogue::Commands();
       }},
  };
  for (auto&& more : {OfCommManager(), OfSession()}) {
    promises.insert(promises.end(), more.begin(), more.end());
  }
  return promises;
}

/// Two threads begin with the same row, others elsewhere, so that rows meet themselves and each other.
std::vector<std::jthread> CallAll(const std::vector<Promise>& promises) {
  constexpr std::size_t kPairs = 3;
  constexpr std::int64_t kEach = 10'000; // microseconds
  std::vector<std::jthread> threads;
  for (std::size_t thread = 0; thread < 2 * kPairs; ++thread) {
    threads.emplace_back([&promises, thread] {
      for (std::size_t row = 0; row < promises.size(); ++row) {
        const std::int64_t end = Sys_Clock::RawMicroseconds() + kEach;
        do {
          promises[(row + thread / 2 * promises.size() / kPairs) % promises.size()].call();
        } while (Sys_Clock::RawMicroseconds() < end);
      }
    });
  }
  return threads;
}

TEST_F(Promises, WhatIsThreadSafeIsCalledFromManyThreads) {
  const std::vector<Promise> promises = All();
  CallAll(promises).clear();
  EXPECT_EQ(sReports, 0);
  EXPECT_TRUE(Eventually([this] { return mSession->IsLinked(); })) << "the satellite comes back";

  // Not one command of all the threads is missing, or there twice.
  TCPE_PeerSnapshot told;
  EXPECT_TRUE(Eventually([this, &told] {
    const TCPE_EngineSnapshot snapshot = Manager::GetSnapshot();
    told = *std::ranges::find(snapshot.peers, mTo, &TCPE_PeerSnapshot::address);
    return told.sentCommands.inFlight + told.receivedCommands.inFlight == 0;
  }));
  const TCPE_PeerSnapshot heard = PeerOf(mCalm, kHostAddress);
  EXPECT_EQ(told.losses, 0U);
  EXPECT_GT(told.sentCommands.commands, 0U);
  EXPECT_EQ(told.sentCommands.commands, told.sentCommands.finished);
  EXPECT_EQ(told.sentCommands.commands, heard.receivedCommands.commands);
  EXPECT_EQ(heard.receivedCommands.commands, heard.receivedCommands.finished);
  EXPECT_EQ(told.receivedCommands.commands, heard.sentCommands.commands);
  EXPECT_EQ(Manager::GetSnapshot().hostFailures, 0U);

  std::vector<std::jthread> threads = CallAll(promises);
  EXPECT_TRUE(Eventually([before = told.sentCommands.commands, this] {
    const TCPE_EngineSnapshot snapshot = Manager::GetSnapshot();
    return std::ranges::find(snapshot.peers, mTo, &TCPE_PeerSnapshot::address)->sentCommands.commands > before;
  }));
  Manager::Terminate();
  threads.clear();
}

TEST_F(Promises, WhatIsRealTimeSafeNeitherAllocatesNorWaits) {
  if (!RealTimeWatch::IsAvailable()) {
    GTEST_SKIP()
        << "needs a program without sanitizers, glibc, and a kernel that hands over system calls but for the clock";
  }
  std::mutex mutex;
  EXPECT_EQ(RealTimeWatch::In([] { std::free(std::malloc(std::size_t{1} << 10U)); }), "a deallocation");
  EXPECT_EQ(RealTimeWatch::In([&mutex] { const std::lock_guard lock(mutex); }), "a lock");
  EXPECT_EQ(RealTimeWatch::In([] { getppid(); }), "a system call");
  for (const Promise& promise : All()) {
    if (promise.isRealTimeSafe) {
      EXPECT_EQ(RealTimeWatch::In(promise.call), "") << promise.operations;
    }
  }
}

} // namespace
