// pavo-avctl against pavo-media-service, both real child processes: scripts
// and play commands whose timelines and exit statuses are checked. The queues have fixed keys:
// the test runs in its own IPC namespace (ISOLATED) and removes them.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "e2e_fixture.h"

namespace {

struct Ran {
  int status;  // exit status (137: killed at the time limit); -1 when it did not run
  std::string output;
};

// Runs pavo-avctl with `args` (under the cross build's emulator, as the
// service is; killed after a minute), a session of `script` when given;
// standard output and error together.
Ran run_avctl(const std::vector<std::string>& args, const std::string& script = "") {
  std::vector<std::string> words = pavo::e2e::service_command();
  words.back() = PAVO_AVCTL_PATH;
  words.insert(words.begin(), {"timeout", "-s", "KILL", "60"});
  words.insert(words.end(), {"--timeout", "5000"});
  words.insert(words.end(), args.begin(), args.end());
  if (!script.empty()) {
    const std::string file = testing::TempDir() + "avctl_e2e.session";
    std::ofstream(file) << script;
    words.insert(words.end(), {"session", file});
  }
  const std::string output = testing::TempDir() + "avctl_e2e.out";
  std::string command;
  for (const std::string& word : words) command += "'" + word + "' ";
  const int status = std::system((command + ">'" + output + "' 2>&1").c_str());
  std::ostringstream text;
  text << std::ifstream(output).rdbuf();
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text.str()};
}

// The first of `lines` that does not follow the ones before it in `text`;
// empty when all occur in this order.
std::string missing_from(const std::string& text, const std::vector<std::string>& lines) {
  std::size_t at = 0;
  for (const std::string& line : lines) {
    at = text.find(line, at);
    if (at == std::string::npos) return line;
    at += line.size();
  }
  return "";
}

// Runs first, before any service has made the queues.
TEST(AvctlWithoutService, SaysSoAndExits3) {
  pavo::e2e::remove_protocol_queues();
  const Ran ran = run_avctl({"play", "http://media.test/vod.mp4"});
  EXPECT_EQ(ran.status, 3) << ran.output;
  EXPECT_NE(ran.output.find("no media-player service answers"), std::string::npos) << ran.output;
}

class AvctlSession : public testing::Test {
 protected:
  void SetUp() override {
    pavo::e2e::remove_protocol_queues();
    ASSERT_TRUE(service_.start(pavo::e2e::kTimeScale, pavo::e2e::wait_limit())) << service_.output();
  }
  void TearDown() override {
    EXPECT_EQ(service_.stop(), 0) << service_.output();
    pavo::e2e::remove_protocol_queues();
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
pause
wait-state paused
play
wait-state playing
components audio eng,ger
drm query urn:dvb:casystemid:19188
drm message urn:dvb:casystemid:19188 text/plain hello
stop
wait-state stopped
load http://media.test/error-network.mp4
expect-error connection
)");
  EXPECT_EQ(ran.status, 0) << ran.output;
  EXPECT_EQ(missing_from(ran.output,
                       {"step   load http://media.test/vod.mp4", "event  play state -> connecting",
                        "event  play state -> playing", "event  speed -> 2", "event  play state -> paused",
                        "event  play state -> playing", "audio #1: ", "language ger (service: \"de\")",
                        "DRM system \"urn:dvb:casystemid:19188\": status 0 (ready)",
                        "event  DRM message result: id \"1\", code 0",
                        "event  play state -> stopped", "event  play state -> error",
                        "ok     error code 1 (connection)", "end    every step succeeded"}),
            "")
      << ran.output;
}

// Steps that fail end the program with status 1 and say why; a script that
// does not parse is refused (status 2) before anything is sent.
TEST_F(AvctlSession, FailingStepsAndBadScriptsEndLoudly) {
  const struct {
    const char* script;
    int status;
    const char* said;
  } cases[] = {
      {"load http://media.test/error-decoder.mp4\nwait-state playing\n", 1,
       "the object went to the error state (error code 4, corrupt) while waiting for playing"},
      {"load http://media.test/vod.mp4\nplay\nwait-state finished 200\n", 1,
       ":3: wait-state finished 200: still playing after"},
      {"load http://media.test/vod.mp4\nplay\nwait-state playing\ncomponents audio eng,fre\n", 1,
       "the languages are \"eng,ger\", expected \"eng,fre\""},
      {"load http://media.test/vod.mp4\nselect audio jpn\n", 1, "no audio component jpn"},
      {"load http://media.test/vod.mp4\nplay\nsleep x\n", 2, "line 3: 'x' is not a time in milliseconds"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    const Ran ran = run_avctl({"--media-log", "/dev/null"}, c.script);
    EXPECT_EQ(ran.status, c.status) << ran.output;
    EXPECT_NE(ran.output.find(c.said), std::string::npos) << ran.output;
    EXPECT_EQ(ran.output.find("step") == std::string::npos, c.status == 2) << "steps ran:\n" << ran.output;
  }
}

// Subtitles on: the platform shows them and the player switches its first track on.
TEST_F(AvctlSession, PlayCommandPlaysToTheEndWithItsOptions) {
  const Ran ran = run_avctl({"--media-log", "/dev/null", "play", "http://media.test/vod.mp4", "--audio", "de",
                             "--subtitles", "on", "--seek", "57000", "--speed", "2"});
  EXPECT_EQ(ran.status, 0) << ran.output;
  EXPECT_EQ(missing_from(ran.output,
                       {"event  play state -> playing", "select audio #1", "event  component change: audio",
                        "subtitle #0: ", ", active", "event  position -> 57000 ms (00:57.0)", "event  speed -> 2",
                        "event  play state -> finished"}),
            "")
      << ran.output;
}

}  // namespace
