// pavo-logctl run as a program: its command line and exit codes, a busy port,
// no listener, this process's listener, a full table that does not confirm a
// change, and a second listener that makes --port necessary.
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "logctl_command.h"  // PAVO_LOGCTL_COMMAND: the emulator's words, then the program
#include "loopback.h"
#include "pavo_log.h"

namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using pavo::test::control_datagram;
using pavo::test::control_record;

// The tool's exit code (-1: it did not exit), a space, and what it wrote to
// standard output and error with each "port <number>" shown as "port P"
// (as it was written in `raw`).
std::string logctl(const std::vector<std::string>& args, std::string* raw = nullptr) {
  std::string command, output;
  for (const char* word : {PAVO_LOGCTL_COMMAND}) command += std::string("'") + word + "' ";
  for (const std::string& arg : args) command += "'" + arg + "' ";
  FILE* pipe = popen((command + "2>&1").c_str(), "r");
  char buffer[512];
  for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  const int status = pipe != nullptr ? pclose(pipe) : -1;
  if (raw != nullptr) *raw = output;
  for (size_t at = 0; (at = output.find("port ", at)) != std::string::npos;) {
    at += 5;
    const size_t digits = std::min(output.find_first_not_of("0123456789", at), output.size()) - at;
    if (digits > 0) output.replace(at, digits, "P");
  }
  return std::to_string(status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1) + " " + output;
}

// A second listener: sends its module list every 100 ms and makes the text of
// each control datagram its list (empty for level 0).
struct ScriptedListener {
  ~ScriptedListener() {
    stop = true;
    thread.join();
  }
  pavo::test::LoopbackSocket socket{0};
  std::atomic<bool> stop{false};
  std::thread thread{[this] {  // last: starts once the members above exist
    for (std::string list = "X", bytes; !stop;) {
      socket.send_to(PAVO_LOG_CONTROL_PORT, list);
      if (socket.receive(bytes, 100) == 0) continue;
      list = bytes.size() > PAVO_LOG_CONTROL_LEVEL_OFFSET && bytes[PAVO_LOG_CONTROL_LEVEL_OFFSET] ? bytes.c_str() : "";
    }
  }};
};

// In this order: the command line, a busy port, no listener, then this
// process's listener (it runs until the process ends), then a second one.
TEST(LogctlTest, CommandLineBusyPortNoListenerAndListenersToChoose) {
  EXPECT_THAT(logctl({"--help"}), AllOf(StartsWith("0 Usage: pavo-logctl "), HasSubstr("\nExit status")));
  {
    // Refused before the tool binds the port, which would end with code 3.
    pavo::test::LoopbackSocket holder(PAVO_LOG_CONTROL_PORT);
    ASSERT_NE(holder.port, 0);
    for (const auto& bad : std::vector<std::vector<std::string>>{
             {"bogus"}, {"on"}, {"clear", "X"}, {"on", std::string(33, 'n')}, {"on", "A|B"}, {"on", ""},
             {"off", PAVO_LOG_CLEAR_COMMAND}, {"-p", "0"}, {"--port", "65536"}, {"--timeout", "5s"}, {"-v"}}) {
      EXPECT_THAT(logctl(bad), StartsWith("2 pavo-logctl: ")) << bad.front();
    }
    EXPECT_THAT(logctl({"--timeout", "1", "list"}), StartsWith("3 pavo-logctl: cannot bind 127.0.0.1:54321: "));
  }
  EXPECT_THAT(logctl({"--timeout", "1", "on", "PAC_PLUGIN"}),
              StartsWith("1 pavo-logctl: no log control listener heard on 127.0.0.1:54321 within 1 s "));

  ASSERT_EQ(pavo_log_initialize(1), 0);
  // Each command's output, and the control datagram the listener last applied
  // (what the listener makes of a datagram is log_test's).
  const std::tuple<std::vector<std::string>, std::string, std::string> steps[] = {
      {{"on", "PAC_PLUGIN"}, "every line of PAC_PLUGIN (modules: PAC_PLUGIN)", control_datagram("PAC_PLUGIN", 1)},
      {{"errors", "PAC_PLUGIN", "OTHER"}, "error lines only of PAC_PLUGIN|OTHER (modules: OTHER|PAC_PLUGIN)",
       control_datagram("PAC_PLUGIN|OTHER", 2)},
      {{"off", "OTHER"}, "removed OTHER (modules: PAC_PLUGIN)", control_datagram("OTHER", 0)},
      {{"list"}, "PAC_PLUGIN", control_datagram("OTHER", 0)},
      {{"clear"}, "module list cleared", control_datagram(PAVO_LOG_CLEAR_COMMAND, 0)},
  };
  for (const auto& [args, output, datagram] : steps) {
    EXPECT_EQ(logctl(args), "0 port P: " + output + "\n");
    EXPECT_EQ(control_record(), datagram) << args.front();
  }

  std::string full;  // 20 modules: no room for another
  for (char c = 'a'; c < 'a' + PAVO_LOG_MAX_MODULES; ++c) full += std::string(full.empty() ? "" : "|") + c;
  ASSERT_EQ(insert_modules_list(full.c_str(), 1), 0);
  EXPECT_EQ(logctl({"-t", "2", "on", "NEW"}),
            "5 pavo-logctl: the listener at port P still lists " + full + " after 2 s: change not confirmed\n");
  clear_modules_list();

  ScriptedListener other;
  const std::string port = std::to_string(other.socket.port);
  EXPECT_THAT(logctl({"on", "A"}),
              AllOf(StartsWith("4 pavo-logctl: 2 listeners heard, at ports "), EndsWith("; choose one with --port\n")));
  std::string raw;
  EXPECT_THAT(logctl({"list"}, &raw), AllOf(StartsWith("0 port P: "), HasSubstr("port P: (none)\n")));
  EXPECT_THAT(raw, HasSubstr("port " + port + ": X\n"));
  EXPECT_THAT(logctl({"-p", port, "on", "A", "B"}), StartsWith("0 port P: "));
  EXPECT_EQ(logctl({"--port", port, "clear"}), "0 port P: module list cleared\n");
  EXPECT_EQ(control_record(), control_datagram("NEW", 1)) << "this process's listener got none of them";
}

}  // namespace
