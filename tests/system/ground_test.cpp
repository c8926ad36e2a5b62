#include "tests/support/HostProcess.h"
#include "tests/support/Shell.h"
#include "tests/support/TestSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Json = HostProcess::Json;
using testing::HasSubstr;

/// A command line of a shell, in which $T is the program and $HOST a host whose ports nobody else has, and how that
/// ends.
struct Case {
  const char* line;
  int status;
  const char* text; ///< in what it writes to the output of the shell
};

class Ground : public testing::Test {
protected:
  static std::vector<std::string> Host(std::vector<std::string> arguments, const char* address) {
    arguments.insert(arguments.begin(), "host");
    return HostProcess::OnOwnPorts(arguments, {"--address", address});
  }
  /// Runs cases one after the other; one that does not end in time has status 124.
  template <std::size_t Size>
  static void Expect(const Case (&cases)[Size]) {
    const std::string setting = "T='timeout 20 " TREL_PROGRAM "'\nPORT=" + std::to_string(TestPort()) +
                                "\nDISCOVERY=" + std::to_string(TestPort() + 8'000) +
                                "\nHOST=\"$T host --address 127.0.9.2 --port $PORT --discovery-port $DISCOVERY\"\n";
    for (const Case& expected : cases) {
      const ShellOutcome outcome = RunShell(setting + expected.line);
      EXPECT_EQ(outcome.status, expected.status) << expected.line << '\n' << outcome.output;
      EXPECT_THAT(outcome.output, HasSubstr(expected.text)) << expected.line;
    }
  }
};

TEST_F(Ground, AFullDiskIsTold) {
  constexpr const char* kOutput = "trel: cannot write to the standard output: No space left on device\n";
  constexpr Case kCases[] = {
      {"$T --help 2>&1 > /dev/full", 1, kOutput},
      {"$T --version 2>&1 > /dev/full", 1, kOutput},
      {"$T commands 2>&1 > /dev/full", 1, kOutput},
      {"$T encode StopPlayback 2>&1 > /dev/full", 1, kOutput},
      {"$T secret 2>&1 > /dev/full", 1, kOutput},
      {"$T doctor --address 127.0.9.9 2>&1 > /dev/full", 1, kOutput},
      {"$T demo --satellites 1 --rounds 1 2>&1 > /dev/full", 1, kOutput},
      {"$HOST --master < /dev/null 2>&1 > /dev/full", 1, kOutput},
      {"$HOST --master --json < /dev/null 2>&1 > /dev/full", 1, kOutput},
      {"$T watch --pid $WATCHED 2>&1 > /dev/full", 1, kOutput},
      {"$T discover --discovery-port $DISCOVERY --address 127.0.9.9 2>&1 > /dev/full", 1, kOutput},
      {"$HOST --master --record /dev/full < /dev/null 2>&1", 1,
       "trel: cannot write /dev/full: No space left on device"},
      {"$T --version 2>&1", 0, "trel "},
  };
  HostProcess host(Host({"--master"}, "127.0.9.3"));
  setenv("WATCHED", std::to_string(host.Id()).c_str(), 1);
  host.Await({{"event", "ready"}}); // somebody to watch and to discover
  Expect(kCases);
  EXPECT_EQ(host.End(), 0);
}

TEST_F(Ground, ClosedDescriptorsAreNobodys) {
  // Without care the recording, or a pipe of the program, becomes its output and its input.
  constexpr Case kCases[] = {
      {"$T --version 2>&1 >&-", 0, ""},
      {"R=$(mktemp); $HOST --master --record $R < /dev/null 2>&1 >&- && ! grep -v '^{' $R && grep '\"ended\"' $R\n"
       "status=$?; rm $R; exit $status",
       0, "\"ended\""},
      {"R=$(mktemp); $HOST --master --record $R <&- >&- 2>&- && ! grep -v '^{' $R && grep '\"ended\"' $R\n"
       "status=$?; rm $R; exit $status",
       0, "\"ended\""},
      {"$HOST --master <&- 2>&1", 0, "master at 127.0.9.2"},
  };
  Expect(kCases);
}

TEST_F(Ground, AHostWhoseOutputNobodyReadsLeavesAndEnds) {
  const std::string recording = testing::TempDir() + "trel_ground_" + std::to_string(getpid());
  HostProcess satellite(Host({"--satellite", "--connect", "127.0.9.2"}, "127.0.9.3"));
  HostProcess master(Host({"--master", "--record", recording}, "127.0.9.2"));
  satellite.Await({{"event", "connected"}});
  for (int time = 0; time < 100; ++time) {
    master.Send("help"); // far more than a pipe holds
  }
  master.Send("record on");
  satellite.Await({{"event", "record"}, {"on", true}}); // the link goes on
  kill(master.Id(), SIGTERM);
  satellite.Await({{"event", "left"}}, HostProcess::Milliseconds(2000));
  const auto hasEnded = [&master] {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(master.Id()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == master.Id();
  };
  const std::int64_t before = Sys_Clock::RawMicroseconds();
  EXPECT_TRUE(Eventually(hasEnded));
  ExpectWithin("the end of a host that nobody reads, us", Sys_Clock::RawMicroseconds() - before, 4'000'000);
  EXPECT_EQ(master.End(), 128 + SIGTERM);
  EXPECT_EQ(RunShell("grep -c '\"command\":\"help\"' " + recording).output, "100\n"); // which is no matter of the pipe
  std::remove(recording.c_str());
}

TEST_F(Ground, AStatusFolderThatCannotBeUsedIsTold) {
  if (RunShell("unshare -m mount -t tmpfs none /run 2>&1").status != 0) {
    GTEST_SKIP() << "needs the right to mount";
  }
  struct Folder {
    const char* run;   ///< what $XDG_RUNTIME_DIR is
    const char* mount; ///< how /tmp/trel-0 is mounted
    const char* text;
  };
  constexpr Folder kFolders[] = {
      {"ln -s /etc $D/trel; export XDG_RUNTIME_DIR=$D", "mode=755", "/trel is a symbolic link"},
      {"touch $D/trel; export XDG_RUNTIME_DIR=$D", "mode=755", "/trel is no directory"},
      {"export XDG_RUNTIME_DIR=$D/$(printf %0100d 0); mkdir $XDG_RUNTIME_DIR", "mode=755", "/trel has too long a name"},
      {"export XDG_RUNTIME_DIR=", "mode=755", "/tmp/trel-0 is open to other users"},
      {"export XDG_RUNTIME_DIR=", "mode=700,uid=12345", "/tmp/trel-0 belongs to another user"},
  };
  for (const Folder& folder : kFolders) {
    const std::string prepare = "mkdir -pm 700 /tmp/trel-0; D=$(mktemp -d); export HOST T\n"
                                "D=$D unshare -m sh -c 'mount -t tmpfs none /run; mount -t tmpfs -o " +
                                std::string(folder.mount) + " none /tmp/trel-0; " + folder.run + "; ";
    const std::string host = prepare + "$HOST --master < /dev/null 2>&1'; status=$?; rm -r $D; exit $status";
    const std::string watch = prepare + "$T watch 2>&1'; status=$?; rm -r $D; exit $status";
    const Case cases[] = {{host.c_str(), 0, "trel watch cannot look into this host: "},
                          {host.c_str(), 0, folder.text},
                          {watch.c_str(), 1, "cannot look whether a host runs: "},
                          {watch.c_str(), 1, folder.text}};
    Expect(cases);
  }
}

TEST_F(Ground, WhyAFileCannotBeWrittenIsTold) {
  constexpr const char* kNoFolder = "cannot write /no/such/folder/file: No such file or directory\n";
  constexpr const char* kFull = "cannot write /dev/full: No space left on device";
  constexpr Case kCases[] = {
      {"$HOST --master --record /no/such/folder/file 2>&1", 1, kNoFolder},
      {"$HOST --master --pcap /no/such/folder/file 2>&1", 1, kNoFolder},
      {"$T demo --json /no/such/folder/file 2>&1", 1, kNoFolder},
      {"$T demo --report /no/such/folder/file 2>&1", 1, kNoFolder},
      {"R=$(mktemp); echo '{\"event\":\"note\",\"time_us\":1}' > $R; $T report $R /no/such/folder/file 2>&1\n"
       "status=$?; rm $R; exit $status",
       1, kNoFolder},
      {"R=$(mktemp); echo '{\"event\":\"note\",\"time_us\":1}' > $R; $T report $R /dev/full 2>&1\n"
       "status=$?; rm $R; exit $status",
       1, kFull},
      {"$HOST --master --pcap /dev/full 2>&1", 1, kFull},
      {"$T demo --satellites 1 --rounds 1 --json /dev/full 2>&1", 1, kFull},
  };
  Expect(kCases);
}

TEST_F(Ground, AStormOfOneSystemIsBoundedAndItsEndIsTold) {
  HostProcess master(Host({"--master"}, "127.0.9.2"));
  HostProcess satellite(Host({"--satellite", "--connect", "127.0.9.2"}, "127.0.9.3"));
  master.Await({{"event", "linked"}});
  satellite.Await({{"event", "linked"}});
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  for (int change = 0; change < 200; ++change) { // fewer than the library itself would leave out on a busy machine
    satellite.Send("solo on");
    satellite.Send("solo off");
  }
  satellite.Send("solo on");
  satellite.Send("dialog over");
  master.Await({{"event", "dialog"}, {"message", "over"}});
  EXPECT_GT(master.Await({{"event", "left_out"}, {"address", "127.0.9.3"}}).value("count", 0), 0);
  const std::int64_t seconds = (Sys_Clock::RawMicroseconds() - begin) / 1'000'000 + 2;
  const auto isSolo = [](const Json& event) { return event["event"] == "solo"; };
  const auto& told = master.Objects();
  ExpectWithin("lines about a storm", std::count_if(told.begin(), told.end(), isSolo), 60 * seconds);
  EXPECT_EQ(std::find_if(told.rbegin(), told.rend(), isSolo)->at("on"), true);
}

TEST_F(Ground, ASystemWithoutItsAddressSaysSo) {
  if (unshare(CLONE_NEWNET) != 0 || RunShell("ip link set lo up && ip addr add 10.79.9.2/24 broadcast + dev lo && "
                                             "ip addr add 10.79.9.3/24 broadcast + dev lo 2>&1")
                                            .status != 0) {
    GTEST_SKIP() << "needs the right to make network namespaces, and the program ip";
  }
  HostProcess searching(Host({"--satellite"}, "10.79.9.2"));
  HostProcess sent(Host({"--satellite", "--connect", "10.79.9.4"}, "10.79.9.3"));
  sent.Await({{"event", "connecting"}});
  EXPECT_EQ(searching.Await({{"event", "no_master"}}).value("text", "").find("no network address"), std::string::npos);
  ASSERT_EQ(RunShell("ip addr flush dev lo").status, 0);
  EXPECT_THAT(searching.Await({{"event", "no_master"}}).value("text", ""), HasSubstr("no network address any more"));
  sent.AwaitText("(no network address any more)");
}

TEST_F(Ground, TheDoctorFindsSystemsOfTheOtherNumbering) {
  HostProcess legacy(Host({"--satellite", "--name", "Old", "--legacy"}, "127.0.9.3"));
  legacy.Await({{"event", "ready"}});
  constexpr Case kCases[] = {
      {"$T doctor --address 127.0.9.9 --port $PORT --discovery-port $DISCOVERY", 1,
       "satellite Old at 127.0.9.3 uses the legacy command numbering, this system the current one"},
  };
  Expect(kCases);
}

} // namespace
