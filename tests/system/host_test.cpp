#include "tests/support/HostProcess.h"
#include "tests/support/TestSystem.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>

namespace {

using Json = HostProcess::Json;

HostProcess::Arguments With(const HostProcess::Arguments& arguments, const std::string& address) {
  return HostProcess::OnOwnPorts(arguments, {"--address", address});
}

TEST(HostProgram, SystemsLinkStartTogetherAndHandOverControl) {
  const std::string recording = testing::TempDir() + "trel_host_" + std::to_string(getpid()) + ".recording";
  HostProcess master(With({"host", "--master", "--name", "Stage", "--record", recording}, "127.0.7.2"));
  master.Await({{"event", "ready"}, {"role", "master"}, {"name", "Stage"}, {"address", "127.0.7.2"}});
  HostProcess first(
      With({"host", "--satellite", "--name", "One", "--connect", "127.0.7.2", "--max-late", "50ms"}, "127.0.7.3"));
  HostProcess second(With({"host", "--satellite", "--name", "Two", "--max-late", "10s"}, "127.0.7.4")); // searches
  master.Command("wait linked 2");
  master.Command("wait locked");
  EXPECT_EQ(first.Command("state").at("has_control"), false);

  EXPECT_NE(master.Error("start in 300ms").find("prime"), std::string::npos);
  second.Command("link off");
  master.Await({{"event", "link"}, {"address", "127.0.7.4"}, {"on", false}});
  master.Command("prime");
  master.Command("wait primed");
  second.Command("link on");
  master.Await({{"event", "link"}, {"address", "127.0.7.4"}, {"on", true}});
  EXPECT_NE(master.Error("start ready").find("Two (127.0.7.4), not primed"), std::string::npos);

  master.Command("prime");
  master.Command("wait primed");
  for (const pid_t satellite : {first.Id(), second.Id()}) {
    kill(satellite, SIGSTOP);
    EXPECT_EQ(waitpid(satellite, nullptr, WUNTRACED), satellite); // until then its threads may run on
  }
  master.Command("start in 100ms");
  master.Await({{"event", "started"}}); // it is told 100 ms after the start
  kill(first.Id(), SIGCONT);
  kill(second.Id(), SIGCONT);
  const Json late = master.Await({{"event", "together"}, {"missing", {"127.0.7.3"}}});
  EXPECT_NE(late.value("text", "").find("One (127.0.7.3): did not start"), std::string::npos) << late;
  EXPECT_GE(late.at("late_us").at("127.0.7.4"), 100'000);
  EXPECT_GE(first.Await({{"event", "start_failed"}}).at("late_us"), 100'000);
  second.Await({{"event", "started"}, {"running_time", late.at("running_time")}});

  first.Command("wait locked");
  first.Command("control");
  master.Await({{"event", "control"}, {"address", "127.0.7.3"}});
  EXPECT_NE(master.Error("stop").find("One (127.0.7.3) is in control"), std::string::npos);
  first.Command("loop on");
  second.Await({{"event", "loop"}, {"on", true}}); // through the master
  first.Command("prime 1s 2.5s");
  second.Await({{"event", "primed"}, {"in_us", 1'000'000}, {"out_us", 2'500'000}});
  first.Command("wait primed"); // itself and the master, which is all that a satellite sees
  EXPECT_EQ(first.Command("start").at("not_ready"), Json::array()); // as soon as everybody can
  const Json together = master.Await({{"event", "together"}, {"missing", Json::array()}});
  EXPECT_EQ(together.at("late_us").size(), 3U);
  ExpectWithin("start spread, us", together.at("spread_us"), 50'000);
  first.Command("stop");
  second.Await({{"event", "stopped"}});

  second.Command("record on");
  first.Await({{"event", "record"}, {"address", "127.0.7.2"}, {"on", true}});
  first.Command("dialog Out of tape");
  second.Await({{"event", "dialog"}, {"message", "Out of tape"}});
  second.Command("ok");
  first.Await({{"event", "dialog_closed"}, {"button", "ok"}});

  HostProcess doctor(With({"doctor"}, "127.0.7.9"));
  const int status = doctor.End();
  bool hasProblem = false;
  for (const Json& finding : doctor.Objects()) {
    const bool isProblem = finding.at("status") == "problem";
    hasProblem = hasProblem || isProblem;
    EXPECT_FALSE(isProblem && finding.at("check") != "timer") << finding; // the test machine may be busy
  }
  EXPECT_EQ(status, hasProblem ? 1 : 0);
  EXPECT_NE(doctor.Text().find("satellite Two at 127.0.7.4 answers and can be connected to"), std::string::npos);

  kill(first.Id(), SIGINT);
  EXPECT_EQ(first.End(), 128 + SIGINT);
  master.Await({{"event", "left"}, {"address", "127.0.7.3"}});
  EXPECT_EQ(master.End(), 1); // two of its commands failed

  HostProcess report({"report", recording});
  EXPECT_EQ(report.End(), 0) << report.Text();
  std::ifstream page(recording + ".html");
  const std::string text(std::istreambuf_iterator<char>(page), {});
  for (const char* drawn : {"127.0.7.3", "\"roundTrips\":[[", "\"starts\":[{"}) {
    EXPECT_NE(text.find(drawn), std::string::npos) << drawn;
  }
  std::remove(recording.c_str());
  std::remove((recording + ".html").c_str());
}

TEST(HostProgram, SaysWhatIsWrongWithACommand) {
  HostProcess host(With({"host", "--master"}, "127.0.7.2"));
  const struct {
    const char* line;
    const char* text;
  } cases[] = {
      {"nonsense", "type help"},
      {"start now", "The command is: start [in TIME] [ready]"},
      {"start in 5", "\"5\" is no time"},
      {"start in 99999999999s", "is no time"},
      {"start in 1s at once", "\"at\" is too much"},
      {"start in 86401s", "24 hours"},
      {"start in 1s", "prime first"},
      {"solo maybe", "neither on nor off"},
      {"group 5 on", "groups 1, 2, 3 and 4"},
      {"order 10.0.0.300 1", "is no address"},
      {"order 10.0.0.3 1", "no system of the link"},
      {"disconnect 10.0.0.3", "is not linked with this system"},
      {"video 1080p", "1080p_25"},
      {"ok", "no dialog"},
      {"name 123456789012345678901234567890", "29"},
      {"wait linked 1 for 50ms", "after 0.05 s"},
      {"help nonsense", "there is no command"},
  };
  for (const auto& expected : cases) {
    EXPECT_NE(host.Error(expected.line).find(expected.text), std::string::npos) << expected.line << '\n' << host.Text();
  }
  host.Send("# a comment\n\n" + std::string(10'000, 'x'));
  host.Await({{"event", "error"}, {"text", "a line is too long and was left out"}});
  EXPECT_NE(host.Command("help").value("text", "").find("wait"), std::string::npos);
  EXPECT_EQ(host.End(), 1);
}

TEST(HostProgram, SaysWhatIsWrongWithACommandLine) {
  const std::string secret = testing::TempDir() + "trel_host_" + std::to_string(getpid()) + ".secret";
  HostProcess maker({"secret", secret});
  ASSERT_EQ(maker.End(), 0) << maker.Text();
  struct stat file {};
  ASSERT_EQ(stat(secret.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777U, 0600U);
  std::string text;
  std::ifstream(secret) >> text;
  EXPECT_EQ(text.size(), 64U);
  EXPECT_EQ(maker.Text().find(text), std::string::npos);
  HostProcess resident(With({"host", "--master", "--secret-file", secret}, "127.0.7.2"));
  resident.Await({{"event", "ready"}});
  EXPECT_EQ(chmod(secret.c_str(), 0644), 0);
  const std::string madeUp = secret + "_made_up";
  std::ofstream(madeUp) << text << "\nthe secret of the studio\n";
  EXPECT_EQ(chmod(madeUp.c_str(), 0600), 0);

  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* text;
  } cases[] = {
      {{"--help"}, 0, "demo"},
      {{"--version"}, 0, "trel "},
      {{}, 2, "A command is required"},
      {{"nonsense"}, 2, "nonsense"},
      {{"demo", "--nonsense"}, 2, "--nonsense"},
      {{"demo", "--satellites", "65"}, 2, "--satellites"},
      {{"demo", "--rounds", "many"}, 2, "--rounds"},
      {{"demo", "--json", "/no/such/folder/file"}, 1, "/no/such/folder/file"},
      {{"demo", "--report", "/no/such/folder/page"}, 1, "/no/such/folder/page"},
      {{"report", "/no/such/recording"}, 1, "/no/such/recording"},
      {{"report", "/dev/null"}, 1, "no recording"},
      {{"host", "--help"}, 0, "--connect"},
      {{"discover", "--help"}, 0, "Exit status"},
      {{"doctor", "--help"}, 0, "Exit status"},
      {{"host"}, 2, "--master"},
      {{"host", "--master", "--satellite"}, 2, "--master"},
      {{"host", "--master", "--connect", "10.0.0.1"}, 2, "--connect"},
      {{"host", "--satellite", "--connect", "stage"}, 2, "auto"},
      {{"host", "--satellite", "--max-late", "soon"}, 2, "is no time"},
      {{"host", "--master", "--name", "123456789012345678901234567890"}, 2, "29 characters"},
      {{"host", "--master", "--address", "10.0.0.256"}, 2, "is no IPv4 address"},
      {{"host", "--master", "--max-satellites", "129"}, 2, "--max-satellites"},
      {{"host", "--master", "--address", "203.0.113.7"}, 1, "with --address"},
      {{"host", "--master", "--secret-file", secret}, 1, "chmod 600"},
      {{"host", "--master", "--secret-file", madeUp}, 1, "a secret that people made up"},
      {With({"host", "--master"}, "127.0.7.2"), 1, "in use"},
      {{"secret", secret}, 1, "exists already"},
      {{"secret", "/no/such/folder/file"}, 1, "/no/such/folder/file"},
      {With({"discover", "--masters"}, "127.0.7.9"), 1, "answer only with --secret-file"},
      {{"discover", "--all", "--masters"}, 2, "--all"},
      {With({"doctor"}, "127.0.7.9"), 1, "answer only with --secret-file"},
      {{"doctor", "--address", "203.0.113.7"}, 1, "no adaptor that is up"},
  };
  for (const auto& expected : cases) {
    HostProcess program(expected.arguments);
    EXPECT_EQ(program.End(), expected.status) << program.Text();
    EXPECT_NE(program.Text().find(expected.text), std::string::npos) << expected.text << '\n' << program.Text();
  }
  HostProcess second(With({"host", "--master", "--secret-file", madeUp, "--made-up-secret"}, "127.0.7.8"));
  second.Await({{"event", "other_master"}, {"address", "127.0.7.2"}});
  EXPECT_EQ(second.End(), 0);
  EXPECT_EQ(resident.End(), 0);
  HostProcess doctor(With({"doctor", "--secret-file", madeUp, "--made-up-secret"}, "127.0.7.9"));
  doctor.AwaitText("one that people made up");
  doctor.AwaitText("two shared secrets are accepted");
  std::remove(secret.c_str());
  std::remove(madeUp.c_str());
}

} // namespace
