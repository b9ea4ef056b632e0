// A dead, hung or restarted service: no plug-in call blocks longer than the
// reply bound, on any thread, whatever the service does; once the library has
// seen the service dead or silent, further calls fail fast until it is back.
// The service is pavo-media-service as a child process with its fault
// options, or a hostile peer of this file. A restarted service has none of
// the players of the old one: each object whose player is gone is told once
// (play state error, GetError "connection") and its next Load creates a
// player in the new service. A service that only hangs and continues keeps
// its players: nobody is told.
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "e2e_fixture.h"
#include "ipc/queue_reader.h"
#include "pavo_mediaplayer_ipc.h"
#include "support/emulation.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace pavo::e2e {
namespace {

using Millis = std::chrono::milliseconds;
using std::chrono::steady_clock;

const bool kEmulated = pavo::test::under_emulator();
// The reply bound of these tests, what a late scheduler may add to it, how
// soon a dead service must be noticed, and the fast-fail limit.
const Millis kBound(kEmulated ? 4000 : 2000);
const Millis kSlack(kEmulated ? 1500 : 400);
#if defined(__SANITIZE_THREAD__)
// A ThreadSanitizer process takes about a second to end (its shadow memory
// is unmapped first): still well within the bound.
const Millis kDeadNoticed(1500);
#else
const Millis kDeadNoticed(kEmulated ? 1500 : 600);
#endif
const Millis kFastFail(100);
constexpr int kThreads = 4;

constexpr key_t kRequestKey = static_cast<key_t>(0x95000100);

// A hostile peer in place of the service: a child process that takes
// `frames` frames off the request queue (a request half read) and exits.
// Returns its pid; reap it with waitpid.
pid_t half_reader(int frames) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  const int id = msgget(kRequestKey, 0666 | IPC_CREAT);
  std::vector<char> frame(64 * 1024);
  for (int got = 0; got < frames;) {
    if (msgrcv(id, frame.data(), frame.size() - sizeof(long), 0, MSG_NOERROR) >= 0) ++got;
  }
  _exit(0);
}

enum class Fault { kNone, kKill, kSuspend, kHalfRead };

struct Case {
  const char* name;
  std::vector<std::string> service_args;
  Fault fault;          // applied after the object is made
  Millis first_limit;   // for the first calls (made on kThreads threads at once)
};

// Each fault, with the call that meets it made on several threads at once:
// every call returns -1 within its limit (the bound, or sooner when the
// service is seen dead); the calls after it fail fast; a restarted service
// is used again.
TEST_F(EndToEnd, NoCallOutlastsTheBoundAndLaterCallsFailFast) {
  const std::string play = "3";
  const Case cases[] = {
      {"never answers", {"--no-reply", play}, Fault::kNone, kBound + kSlack},
      {"answers late", {"--reply-delay", std::to_string(3 * kBound.count()), "--late-command", play},
       Fault::kNone, kBound + kSlack},
      {"hung (stopped)", {}, Fault::kSuspend, kBound + kSlack},
      {"killed", {}, Fault::kKill, kDeadNoticed},
      {"dies in the middle of a request", {"--exit-on-request", play}, Fault::kNone, kDeadNoticed},
      {"dies while a 16-chunk request is half read", {}, Fault::kHalfRead, kDeadNoticed},
  };
  std::vector<void*> objects;  // destroyed at the end
  const auto new_object = [&objects] {  // its player exists only if the running service answered
    void* av = nullptr;
    if (Pavo_AVCtrl_Create(nullptr, &av) == 0) objects.push_back(av);
    return av;
  };
  pavo::test::ReplyTimeoutOverride bound(kBound);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(service_.start(kTimeScale, wait_limit(), c.service_args)) << service_.output();
    void* av = new_object();
    ASSERT_NE(av, nullptr);
    pid_t peer = -1;
    std::function<int()> call = [av] { return Pavo_AVCtrl_Play(av, 1.0); };
    if (c.fault == Fault::kKill || c.fault == Fault::kHalfRead) service_.kill_now();
    if (c.fault == Fault::kSuspend) service_.suspend();
    if (c.fault == Fault::kHalfRead) {  // a peer reads half of a request of 16 frames
      peer = half_reader(8);
      // Sent through the client directly: the A/V object may already know
      // that its player is gone and would make a new one first.
      const std::string url = "http://media.test/" + std::string(16000, 'x') + "/vod.mp4";
      call = [url] { return Pavo_MediaPlayer_IPC_Load(1, url.c_str()); };
    }

    const auto timed_call = [&call] {
      const auto start = steady_clock::now();
      EXPECT_EQ(call(), -1);
      return std::chrono::duration_cast<Millis>(steady_clock::now() - start);
    };
    std::vector<Millis> took(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { took[t] = timed_call(); });
    for (std::thread& t : threads) t.join();
    const Millis first = *std::max_element(took.begin(), took.end());
    EXPECT_LE(first.count(), c.first_limit.count());
    Millis later(0);
    for (int i = 0; i < 5; ++i) later = std::max(later, timed_call());
    EXPECT_LE(later.count(), kFastFail.count()) << "a call after the fault was seen";
    // The figures of the README's fault table.
    std::printf("fault \"%s\": longest first call %lld ms, longest later call %lld ms\n", c.name,
                static_cast<long long>(first.count()), static_cast<long long>(later.count()));

    if (peer > 0) waitpid(peer, nullptr, 0);
    service_.resume();
    ASSERT_TRUE(service_.start(kTimeScale, wait_limit())) << service_.output();  // the old one stopped first
    // A new object loads an item (polled: a hung service answers its backlog first).
    EXPECT_TRUE(pavo::test::wait_until(
        [&] {
          void* again = new_object();
          return again != nullptr && Pavo_AVCtrl_Load(again, kVod) == 0;
        },
        wait_limit()))
        << "the restarted service was not used again";
  }
  for (void* av : objects) Pavo_AVCtrl_Destroy(av);
}

// The signal for "dead": a living process (this one, or one of another
// user) is not ended; a child that has exited is ended before and after it
// is reaped.
TEST(QueueReader, EndedProcessesAreToldFromLivingOnes) {
  EXPECT_FALSE(pavo::ipc::process_ended(getpid()));
  EXPECT_FALSE(pavo::ipc::process_ended(1));
  EXPECT_FALSE(pavo::ipc::process_ended(0));
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) _exit(0);
  ASSERT_TRUE(pavo::test::wait_until([&] { return pavo::ipc::process_ended(child); })) << "zombie";
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(pavo::ipc::process_ended(child)) << "reaped";
}

// The play-state posts of `state` at or after position `from` in `log`.
long count_states(PostLog& log, int state, std::size_t from) {
  const std::vector<Post> posts = log.posts();
  return std::count_if(posts.begin() + static_cast<long>(from), posts.end(), [state](const Post& p) {
    return p.event == PAVO_AVCTRL_EVENT_PLAYSTATECHANGE && p.int_value == state;
  });
}

TEST_F(EndToEnd, LostPlayersAreToldOnceAndLoadMakesANewOne) {
  // A second object, with a player too (the service gives it the next id).
  void* other = nullptr;
  static PostLog other_log;  // outlives every post
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &other), 0);
  ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(other, record, &other_log), 0);
  play_until_playing(kVod);
  ASSERT_EQ(Pavo_AVCtrl_Load(other, kVod), 0);
  const std::size_t before = log_.posts().size();
  const std::size_t other_before = other_log.posts().size();

  service_.kill_now();
  // An object made while the service is down has no player either; its
  // first Load after the service is back makes one.
  void* late = nullptr;
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &late), 0);
  ASSERT_TRUE(service_.start(kTimeScale, wait_limit())) << service_.output();
  ASSERT_TRUE(pavo::test::wait_until(
      [&] {
        position_ms();  // the page's position poll, the only call it makes meanwhile
        return count_states(log_, PAVO_AVCTRL_PLAYSTATE_ERROR, before) > 0 &&
               count_states(other_log, PAVO_AVCTRL_PLAYSTATE_ERROR, other_before) > 0;
      },
      wait_limit()))
      << log_.dump();
  for (int i = 0; i < 5; ++i) position_ms();
  EXPECT_EQ(count_states(log_, PAVO_AVCTRL_PLAYSTATE_ERROR, before), 1) << log_.dump();
  EXPECT_EQ(count_states(other_log, PAVO_AVCTRL_PLAYSTATE_ERROR, other_before), 1) << other_log.dump();
  for (void* av : {av_, other}) {
    PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
    EXPECT_EQ(Pavo_AVCtrl_GetError(av, &error), 0);
    EXPECT_EQ(error, PAVO_AVCTRL_ERROR_CONNECTION);
  }

  // The other object loads first and gets the new service's first id, the
  // id that av_'s lost player had. Requests of av_ are refused, not sent
  // with that id, and its destruction leaves that new player and its
  // registration alone.
  const std::size_t reload = other_log.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Load(other, kVod), 0);
  EXPECT_EQ(Pavo_AVCtrl_Stop(av_), -1);
  Pavo_AVCtrl_Destroy(av_);
  av_ = nullptr;
  ASSERT_EQ(Pavo_AVCtrl_Play(other, 1.0), 0);
  EXPECT_GE(other_log.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, int_is(PAVO_AVCTRL_PLAYSTATE_PLAYING), reload),
            0)
      << other_log.dump();
  EXPECT_EQ(Pavo_AVCtrl_Load(late, kVod), 0);
  EXPECT_EQ(Pavo_AVCtrl_Play(late, 1.0), 0);
  Pavo_AVCtrl_Destroy(other);
  Pavo_AVCtrl_Destroy(late);
}

// A hung service that continues still has its players: the call that timed
// out is refused, the late reply to it ends the fast failing (which the
// fault table checks), no object is told an error, and the old player
// answers.
TEST_F(EndToEnd, HungServiceThatContinuesKeepsItsPlayers) {
  pavo::test::ReplyTimeoutOverride bound(std::chrono::milliseconds(500));
  play_until_playing(kVod);
  const std::size_t before = log_.posts().size();
  service_.suspend();
  double duration = 0;
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), -1);
  service_.resume();
  ASSERT_TRUE(pavo::test::wait_until([&] { return Pavo_AVCtrl_GetPlayTime(av_, &duration) == 0; },
                                     wait_limit()));
  EXPECT_EQ(duration, 60000.0);
  ASSERT_EQ(Pavo_AVCtrl_Pause(av_), 0);
  EXPECT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PAUSED, before), 0) << log_.dump();
  EXPECT_EQ(count_states(log_, PAVO_AVCTRL_PLAYSTATE_ERROR, before), 0) << log_.dump();
}

}  // namespace
}  // namespace pavo::e2e
