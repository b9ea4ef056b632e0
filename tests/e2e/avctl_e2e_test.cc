// pavo-avctl against pavo-media-service, both real child processes: scripts
// and play commands whose timelines and exit statuses are checked. The queues have fixed keys:
// the test runs in its own IPC namespace (ISOLATED) and removes them.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "service_process.h"
#include "support/test_queues.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Ran {
  int status = -1;  // exit status; -1 when it did not end by itself
  std::string output;
};

// Starts `args` (under the cross build's emulator, as the service is) with
// standard output and error on a pipe; returns its pid and the pipe's read
// end.
pid_t spawn(std::vector<std::string> args, int* out) {
  const std::vector<std::string> service = pavo::e2e::service_command();
  args.insert(args.begin(), service.begin(), service.end() - 1);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    dup2(fds[1], STDERR_FILENO);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  *out = fds[0];
  return pid;
}

// Reads `fd` until end of file or `limit`.
std::string read_all(int fd, std::chrono::milliseconds limit) {
  std::string text;
  const auto deadline = Clock::now() + limit;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  return text;
}

// Waits for the child's end; SIGKILL after `limit`.
int reap(pid_t pid, std::chrono::milliseconds limit) {
  int status = 0;
  const auto deadline = Clock::now() + limit;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    usleep(10000);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Ran run_avctl(std::vector<std::string> args, const std::string& script = "") {
  const std::string file = testing::TempDir() + "avctl_e2e.session";
  if (!script.empty()) {
    std::ofstream(file) << script;
    args.insert(args.end(), {"session", file});
  }
  args.insert(args.begin(), {PAVO_AVCTL_PATH, "--timeout", "5000"});
  int out = -1;
  const pid_t pid = spawn(args, &out);
  Ran ran;
  ran.output = read_all(out, std::chrono::seconds(60));
  close(out);
  ran.status = reap(pid, std::chrono::seconds(5));
  return ran;
}

// True when `lines` occur in `text` in this order.
bool in_order(const std::string& text, const std::vector<std::string>& lines, std::string* missing) {
  size_t at = 0;
  for (const std::string& line : lines) {
    at = text.find(line, at);
    if (at == std::string::npos) {
      *missing = line;
      return false;
    }
    at += line.size();
  }
  return true;
}

void remove_system_queues() {
  for (key_t key : {0x95000070, 0x95000080, 0x95000090, 0x95000100}) {
    pavo::test::remove_queue(key);
    pavo::test::remove_queue(key + 1);
  }
}

// Runs first, before any service has made the queues.
TEST(AvctlWithoutService, SaysSoAndExits3) {
  remove_system_queues();
  const Ran ran = run_avctl({"play", "http://media.test/vod.mp4"});
  EXPECT_EQ(ran.status, 3) << ran.output;
  EXPECT_NE(ran.output.find("no media-player service answers"), std::string::npos) << ran.output;
}

class AvctlSession : public testing::Test {
 protected:
  void SetUp() override {
    remove_system_queues();
    ASSERT_TRUE(service_.start(20, std::chrono::seconds(10))) << service_.output();
  }
  void TearDown() override {
    EXPECT_EQ(service_.stop(), 0) << service_.output();
    remove_system_queues();
  }

  pavo::e2e::ServiceProcess service_;
};

TEST_F(AvctlSession, ScriptShowsTheWholeMissionOnItsTimeline) {
  const Ran ran = run_avctl({"--media-log", "/dev/null"}, R"(
load http://media.test/vod.mp4   # a comment after a step
play
wait-state playing
play 2
wait-event speed
expect-speed 2
seek 30000
wait-event position
wait-state playing
pause
wait-state paused
play
wait-state playing
components audio eng,ger
select audio ger
wait-event component
components audio
subtitles on
drm query urn:dvb:casystemid:19188
drm message urn:dvb:casystemid:19188 text/plain hello
stop
wait-state stopped
load http://media.test/error-network.mp4
expect-error connection
load http://media.test/short.mp4
play
wait-state finished
)");
  EXPECT_EQ(ran.status, 0) << ran.output;
  std::string missing;
  EXPECT_TRUE(in_order(ran.output,
                       {"step   load http://media.test/vod.mp4", "event  play state -> connecting",
                        "event  play state -> playing", "event  speed -> 2",
                        "event  position -> 30000 ms (00:30.0)", "event  play state -> paused",
                        "event  play state -> playing", "audio #1: ", "language ger (service: \"de\")",
                        "event  component change: audio", "audio #1: ", ", active",
                        "DRM system \"urn:dvb:casystemid:19188\": status 0 (ready)",
                        "event  DRM message result: id \"1\", code 0",
                        "event  play state -> stopped", "event  play state -> error",
                        "ok     error code 1 (connection)", "event  play state -> finished",
                        "end    every step succeeded"},
                       &missing))
      << "missing \"" << missing << "\" in\n"
      << ran.output;
}

// Steps that fail end the program with status 1 and say why; a script that
// does not parse is refused (status 2) before anything is sent.
TEST_F(AvctlSession, FailingStepsAndBadScriptsEndLoudly) {
  struct Case {
    const char* script;
    int status;
    const char* said;
  };
  const Case cases[] = {
      {"load http://media.test/error-decoder.mp4\nwait-state playing\n", 1,
       "the object went to the error state (error code 4, corrupt) while waiting for playing"},
      {"load http://media.test/vod.mp4\nplay\nwait-state finished 200\n", 1,
       ":3: wait-state finished 200: still playing after"},
      {"load http://media.test/vod.mp4\nplay\nwait-state playing\ncomponents audio eng,fre\n", 1,
       "the languages are \"eng,ger\", expected \"eng,fre\""},
      {"load http://media.test/vod.mp4\nselect audio jpn\n", 1, "no audio component jpn"},
      {"load http://media.test/vod.mp4\nplay\nsleep x\n", 2, "line 3: 'x' is not a time in milliseconds"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    const Ran ran = run_avctl({"--media-log", "/dev/null"}, c.script);
    EXPECT_EQ(ran.status, c.status) << ran.output;
    EXPECT_NE(ran.output.find(c.said), std::string::npos) << ran.output;
    if (c.status == 2) {
      EXPECT_EQ(ran.output.find("step"), std::string::npos) << ran.output;
    }
  }
}

TEST_F(AvctlSession, PlayCommandPlaysToTheEndWithItsOptions) {
  const Ran ran = run_avctl({"--media-log", "/dev/null", "play", "http://media.test/vod.mp4", "--audio", "de",
                             "--seek", "57000", "--speed", "2"});
  EXPECT_EQ(ran.status, 0) << ran.output;
  std::string missing;
  EXPECT_TRUE(in_order(ran.output,
                       {"event  play state -> playing", "select audio #1", "event  component change: audio",
                        "event  position -> 57000 ms", "event  speed -> 2", "event  play state -> finished"},
                       &missing))
      << "missing \"" << missing << "\" in\n"
      << ran.output;
}

}  // namespace
