// pavo-avctl against pavo-media-service, both real child processes: scripts
// and play commands whose timelines and exit statuses are checked; and the
// service against hostile or absent local peers. The queues have fixed keys:
// the test runs in its own IPC namespace (ISOLATED) and removes them.
#include <sys/msg.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e_fixture.h"
#include "pavo_ipc.h"
#include "support/emulation.h"
#include "support/test_queues.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The protocol's queues, as the service serves them.
constexpr key_t kRequestKey = 0x95000100;
constexpr key_t kNoticeKey = 0x95000080;
constexpr key_t kEventKey = 0x95000070;

// Where run_avctl collects pavo-avctl's output.
std::string avctl_output_file() { return testing::TempDir() + "avctl_e2e.out"; }

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
  const std::string output = avctl_output_file();
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
  #indented comment
select audio #1   # German, by its position
wait-event component
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
                        "event  play state -> playing", "select audio #1: ", "component change: audio",
                        "event  speed -> 2", "event  play state -> paused", "event  play state -> playing",
                        "audio #1: ", "language ger (service: \"de\")",
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

// A transport client of one of the service's queues, as the library or any
// other local process makes one.
struct Client {
  explicit Client(key_t key, int sync) { pavo_ipc_client_create(key, 1, sync, 1024, &handle); }
  ~Client() { pavo_ipc_client_destroy(handle); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Sends `text` one-way; the transport's result.
  int tell(std::string text) {
    pavo_ipc_msg message{static_cast<uint32_t>(text.size()), text.data()};
    return pavo_ipc_client_send(handle, &message);
  }
  // Sends the request `text` and waits for the reply: its text, or "" when
  // none came.
  std::string ask(std::string text) {
    pavo_ipc_msg message{static_cast<uint32_t>(text.size()), text.data()};
    pavo_ipc_msg reply{0, nullptr};
    const int rc = pavo_ipc_client_send_sync_with_params(handle, &message, &reply);
    std::string answer = rc == 0 && reply.data != nullptr ? reply.data : "";
    std::free(reply.data);
    return answer;
  }

  pavo_ipc_client* handle = nullptr;
};

bool succeeded(const std::string& reply) { return reply.find("\"ret\":0") != std::string::npos; }

// Any local process may send the transport's one-way "exit", which ends the
// receive thread of the server it reaches: the service serves that queue
// again within a second, a request with its answer.
TEST_F(AvctlSession, ServiceServesAgainAfterAStrayExitMessage) {
  const milliseconds limit = pavo::test::under_emulator() ? pavo::e2e::wait_limit() : milliseconds(1000);
  const struct {
    key_t key;
    int sync;
    const char* probe;
  } servers[] = {
      {kRequestKey, 1, R"({"event_type":30})"},  // the current display source
      {kNoticeKey, 0, R"({"event_type":31,"subtitleEnable":true})"},
  };
  for (const auto& s : servers) {
    SCOPED_TRACE(s.probe);
    Client client(s.key, s.sync);
    ASSERT_EQ(client.tell("exit"), 0);
    const auto sent = steady_clock::now();
    if (s.sync) {
      // The new receive thread may take a request before its callback is
      // registered and answer "no reply": the next one is served.
      EXPECT_TRUE(pavo::test::wait_until([&] { return succeeded(client.ask(s.probe)); }, limit));
    } else {
      ASSERT_EQ(client.tell(s.probe), 0);
      EXPECT_TRUE(pavo::test::wait_until([&] { return pavo::test::queued_messages(s.key) == 0; }, limit));
    }
    EXPECT_LT(steady_clock::now() - sent, limit);
  }
}

// With a library that reads no events (its event queue full), each waiting
// event would cost the transport's resend policy (21 events: over 5 s):
// SIGTERM gives them up and the service stops within a second (under the
// emulator, which is slower at everything, within three).
TEST_F(AvctlSession, ServiceStopsPromptlyWhenNobodyReadsItsEvents) {
  const milliseconds limit(pavo::test::under_emulator() ? 3000 : 1000);
  const int events = msgget(kEventKey, IPC_CREAT | 0666);
  ASSERT_GE(events, 0) << std::strerror(errno);
  struct {
    long mtype;
    char text[1000];
  } junk{99, {}};
  while (msgsnd(events, &junk, sizeof junk.text, IPC_NOWAIT) == 0) {
  }
  ASSERT_EQ(errno, EAGAIN);

  {
    Client client(kRequestKey, 1);
    const std::string created = client.ask(R"({"event_type":0})");
    ASSERT_TRUE(succeeded(created)) << created;
    const std::size_t id = created.find("\"player_id\":");
    ASSERT_NE(id, std::string::npos) << created;
    const std::string player = std::to_string(std::stoul(created.substr(id + 12)));
    for (int i = 0; i < 20; ++i) {  // each a speed event, which cannot leave
      const std::string rate = i % 2 == 0 ? "2000" : "1000";
      const std::string reply =
          client.ask(R"({"event_type":7,"player_id":)" + player + R"(,"play_rate":)" + rate + "}");
      ASSERT_TRUE(succeeded(reply)) << reply;
    }
  }
  const auto asked = steady_clock::now();
  EXPECT_EQ(service_.stop(milliseconds(3000)), 0) << service_.output();
  EXPECT_LT(steady_clock::now() - asked, limit);
  pavo::e2e::remove_protocol_queues();
  ASSERT_TRUE(service_.start(pavo::e2e::kTimeScale, pavo::e2e::wait_limit())) << service_.output();
}

// A service that ends during playback: pavo-avctl's step fails, and as no
// service answers any more the exit status says so (3), not "a step failed".
TEST_F(AvctlSession, PlayAgainstAServiceThatEndsExits3) {
  ASSERT_TRUE(service_.start(1.0, pavo::e2e::wait_limit())) << service_.output();  // 60 s of playback
  std::remove(avctl_output_file().c_str());
  Ran ran{-1, ""};
  std::thread avctl(
      [&] { ran = run_avctl({"--media-log", "/dev/null", "play", pavo::e2e::kVod, "--for", "30000"}); });
  const bool playing = pavo::test::wait_until(
      [] {
        std::ostringstream text;
        text << std::ifstream(avctl_output_file()).rdbuf();
        return text.str().find("event  play state -> playing") != std::string::npos;
      },
      pavo::e2e::wait_limit());
  service_.kill_now();
  const auto killed = std::chrono::steady_clock::now();
  avctl.join();
  // The library tells the object that its service has ended (error state) within
  // about a second; pavo-avctl does not play on until its --for ends.
  EXPECT_LT(std::chrono::steady_clock::now() - killed, pavo::e2e::wait_limit() / 3);
  EXPECT_TRUE(playing);
  EXPECT_EQ(ran.status, 3) << ran.output;
  EXPECT_NE(ran.output.find("no media-player service answers any more"), std::string::npos) << ran.output;
  pavo::e2e::remove_protocol_queues();
  ASSERT_TRUE(service_.start(pavo::e2e::kTimeScale, pavo::e2e::wait_limit())) << service_.output();
}

}  // namespace
