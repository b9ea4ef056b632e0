// Fixture of the end-to-end tests: pavo-media-service as a real child
// process (its clock 20 times faster), the library in this process with one
// A/V control object, and a record of what the plug-in's callback received.
// Waits have deadlines; nothing sleeps to synchronise.
#ifndef PAVO_TESTS_E2E_E2E_FIXTURE_H
#define PAVO_TESTS_E2E_E2E_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pavo_avctrl.h"
#include "service_process.h"

namespace pavo::e2e {

constexpr double kTimeScale = 20.0;
constexpr const char* kVod = "http://media.test/vod.mp4";  // 60 s, two audio and two subtitle tracks

// Generous limits: the sanitizer legs and qemu run everything much slower.
std::chrono::milliseconds wait_limit();

// Removes every queue of the protocol (the keys are fixed).
void remove_protocol_queues();

// One post to the plug-in's callback (or, with its user data and its
// values in text, to a DRM or media-sync callback).
struct Post {
  int event;
  int int_value;
  double double_value;
  std::thread::id thread;
  const void* user_data;
  std::string text;
};

// Thread-safe record of posts, filled on the library's threads.
class PostLog {
 public:
  void add(Post post);
  // Waits for a post of `event` (whose value `match` accepts, when given) at
  // or after position `from` in the record; returns its position, or -1 at
  // the deadline.
  int wait_for(int event, const std::function<bool(const Post&)>& match = nullptr, std::size_t from = 0);
  // The post that wait_for(event, nullptr, from) finds; an event of -1 at the deadline.
  Post wait_post(int event, std::size_t from = 0);
  std::vector<Post> posts();
  std::string dump();

 private:
  std::mutex mu_;
  std::condition_variable changed_;
  std::vector<Post> posts_;
};

// The plug-in callback that records into the PostLog given as user data.
void record(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* user_data);

// Matchers for wait_for.
std::function<bool(const Post&)> int_is(int value);
std::function<bool(const Post&)> double_near(double value, double tolerance = 1e-6);

class EndToEnd : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Loads `url`, plays at 1.0 and waits until the plug-in was told "playing".
  void play_until_playing(const char* url);
  // Index in the record of the first play-state post with `state` from `from` on.
  int wait_state(int state, std::size_t from = 0) {
    return log_.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, int_is(state), from);
  }
  // The object's position in milliseconds (a failed call fails the test).
  double position_ms();
  // Language, channels and encoding of each component of `type` in the
  // library's component list: "eng 2 audio/mpeg; ger 1 audio/mpeg; ".
  static std::string components(PavoAVComponentType type);

  ServiceProcess service_;
  double time_scale_ = kTimeScale;         // what SetUp starts the service with
  std::vector<std::string> service_args_;  // further options for the service
  PostLog log_;
  void* av_ = nullptr;
};

}  // namespace pavo::e2e

#endif  // PAVO_TESTS_E2E_E2E_FIXTURE_H
