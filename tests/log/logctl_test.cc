// pavo-logctl run as a program: its command line, no listener, a busy port,
// this process's own listener, and a scripted second listener that records
// the control datagrams it gets.
#include <sys/wait.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logctl_command.h"  // PAVO_LOGCTL_COMMAND: the emulator's words, then the program
#include "loopback.h"
#include "pavo_log.h"

namespace {

using pavo::test::control_datagram;
using pavo::test::LoopbackSocket;

struct ToolRun {
  int code;
  std::string output;  // standard output and error
};

ToolRun logctl(const std::vector<std::string>& args) {
  std::string command;
  for (const char* word : {PAVO_LOGCTL_COMMAND}) command += std::string("'") + word + "' ";
  for (const std::string& arg : args) command += "'" + arg + "' ";
  FILE* pipe = popen((command + "2>&1").c_str(), "r");
  ToolRun run{-1, ""};
  char buffer[512];
  for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.output.append(buffer, n);
  const int status = pipe != nullptr ? pclose(pipe) : -1;
  if (status != -1 && WIFEXITED(status)) run.code = WEXITSTATUS(status);
  return run;
}

// Whether `output` is the single line "port <number>: " + `rest`.
::testing::AssertionResult port_line(const std::string& output, const std::string& rest) {
  int end = 0;
  std::sscanf(output.c_str(), "port %*5[0-9]: %n", &end);
  if (end > 0 && output.substr(static_cast<size_t>(end)) == rest + "\n") return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "output: " << output;
}

std::atomic<bool> listener_started{false};
void start_listener() {
  if (!listener_started.exchange(true)) pavo_log_initialize(1);
}

// A second listener: sends its module list every 100 ms and, unless deaf,
// makes it the text of each control datagram (empty for level 0).
class ScriptedListener {
 public:
  explicit ScriptedListener(bool deaf) : deaf_(deaf), thread_([this] { loop(); }) {}
  ~ScriptedListener() {
    stop_ = true;
    thread_.join();
  }
  int port() const { return socket_.port; }
  std::vector<std::string> received() {
    std::lock_guard<std::mutex> guard(lock_);
    return received_;
  }

 private:
  void loop() {
    for (std::string bytes; !stop_;) {
      socket_.send_to(PAVO_LOG_CONTROL_PORT, list_);
      if (socket_.receive(bytes, 100) == 0) continue;
      std::lock_guard<std::mutex> guard(lock_);
      received_.push_back(bytes);
      if (!deaf_) list_ = bytes[PAVO_LOG_CONTROL_LEVEL_OFFSET] == 0 ? "" : bytes.substr(0, bytes.find('\0'));
    }
  }

  const bool deaf_;
  std::atomic<bool> stop_{false};
  LoopbackSocket socket_{0};
  std::string list_ = "X";
  std::mutex lock_;
  std::vector<std::string> received_;
  std::thread thread_;  // last: starts once the members above exist
};

TEST(LogctlTest, CommandLineNoListenerAndBusyPort) {
  const ToolRun help = logctl({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_NE(help.output.find("Exit status"), std::string::npos) << help.output;
  {
    // Refused before the tool binds the port (which would be exit code 3).
    LoopbackSocket holder(PAVO_LOG_CONTROL_PORT);
    ASSERT_TRUE(holder.bound);
    for (const auto& bad : std::vector<std::vector<std::string>>{
             {"bogus"}, {"on"}, {"clear", "X"}, {"on", std::string(33, 'n')}, {"on", "A|B"}, {"on", ""},
             {"off", PAVO_LOG_CLEAR_COMMAND}, {"-p", "0"}, {"--port", "65536"}, {"--timeout", "5s"}, {"-v"}}) {
      EXPECT_EQ(logctl(bad).code, 2) << bad.front();
    }
    const ToolRun busy = logctl({"--timeout", "1", "list"});
    EXPECT_EQ(busy.code, 3);
    EXPECT_NE(busy.output.find("cannot bind 127.0.0.1:54321"), std::string::npos) << busy.output;
  }
  if (listener_started) GTEST_SKIP() << "a listener runs in this process already";
  const ToolRun none = logctl({"--timeout", "1", "on", "PAC_PLUGIN"});
  EXPECT_EQ(none.code, 1);
  EXPECT_NE(none.output.find("no log control listener heard on 127.0.0.1:54321 within 1 s"),
            std::string::npos) << none.output;
}

TEST(LogctlTest, SwitchesThisProcessesModulesAndConfirms) {
  start_listener();
  EXPECT_TRUE(port_line(logctl({"on", "PAC_PLUGIN"}).output, "every line of PAC_PLUGIN (modules: PAC_PLUGIN)"));
  EXPECT_EQ(pavo_log_getLevel("PAC_PLUGIN"), 2);

  EXPECT_EQ(logctl({"errors", "PAC_PLUGIN", "OTHER"}).code, 0);
  EXPECT_EQ(pavo_log_getLevel("PAC_PLUGIN"), 1);
  EXPECT_EQ(pavo_log_getLevel("OTHER"), 1);
  EXPECT_TRUE(port_line(logctl({"off", "OTHER"}).output, "removed OTHER (modules: PAC_PLUGIN)"));
  EXPECT_TRUE(port_line(logctl({"list"}).output, "PAC_PLUGIN"));
  EXPECT_TRUE(port_line(logctl({"clear"}).output, "module list cleared"));
  char list[PAVO_LOG_MODULES_LIST_SIZE];
  EXPECT_EQ(get_modules_list(list), 0);
}

TEST(LogctlTest, SeveralListenersNeedAPortAndGetWellFormedDatagrams) {
  start_listener();
  ScriptedListener other(false);
  const std::string port = std::to_string(other.port());
  const ToolRun ambiguous = logctl({"on", "A"});
  EXPECT_EQ(ambiguous.code, 4);
  EXPECT_NE(ambiguous.output.find("choose one with --port"), std::string::npos) << ambiguous.output;
  const ToolRun both = logctl({"list"});
  EXPECT_NE(both.output.find("port " + port + ": X\n"), std::string::npos) << both.output;

  for (const char* command : {"on", "errors", "off"}) EXPECT_EQ(logctl({"-p", port, command, "A", "B"}).code, 0);
  EXPECT_EQ(logctl({"--port", port, "clear"}).code, 0);
  EXPECT_EQ(other.received(), (std::vector<std::string>{
                                  control_datagram("A|B", 1), control_datagram("A|B", 2),
                                  control_datagram("A|B", 0), control_datagram(PAVO_LOG_CLEAR_COMMAND, 0)}));
  char list[PAVO_LOG_MODULES_LIST_SIZE];
  EXPECT_EQ(get_modules_list(list), 0) << "this process's listener was left alone";

  ScriptedListener deaf(true);
  const ToolRun unconfirmed = logctl({"-t", "2", "-p", std::to_string(deaf.port()), "on", "A"});
  EXPECT_EQ(unconfirmed.code, 5);
  EXPECT_NE(unconfirmed.output.find("still lists X after 2 s: change not confirmed"), std::string::npos)
      << unconfirmed.output;
}

}  // namespace
