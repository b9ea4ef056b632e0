// A/V control tests: the fake service, the library started, one object whose
// callback records what the plug-in would receive.
#ifndef PAVO_TESTS_AV_CONTROL_ADAPTOR_AVCTRL_HARNESS_H
#define PAVO_TESTS_AV_CONTROL_ADAPTOR_AVCTRL_HARNESS_H

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "av_control_adaptor/context.h"
#include "pavo_avctrl.h"
#include "support/fake_media_service.h"

namespace pavo::test {

constexpr unsigned kPlayerId = 7;  // the id the fake service gives the object

// One event as the plug-in's callback received it.
struct Post {
  PavoAVCtrlEvent event;
  double value;                 // the integer or the double, as the event carries it
  bool only_value_set;          // every byte of the record past the value is zero
  std::size_t requests_before;  // requests the service had seen by then
};

// Posts as (event, value) pairs.
using Posts = std::vector<std::pair<int, double>>;

class PostRecorder {
 public:
  static void callback(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* self);
  std::vector<Post> posts() const;
  bool wait_for(std::size_t count) const;  // at most 5 s
  void clear();
  std::function<std::size_t()> request_count;  // asked at each post, if set
  std::function<void(const Post&)> on_post;    // runs inside the callback

 private:
  mutable std::mutex mutex_;
  std::vector<Post> posts_;
};

// Each test: a fresh fake service, Pavo_AVCtrl_Initialize, one object with the
// recorder registered; all undone afterwards.
class AvctrlTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  PavoAVCtrlContext* ctx() const { return static_cast<PavoAVCtrlContext*>(handle_); }
  // Hands a player event to the object's translation on this thread.
  void event(PavoMediaPluginEvent event, int data1, double data2 = 0.0, int error = 0);
  std::vector<Json::Value> requests_of(int event_type) const;
  std::vector<int> request_types() const;
  void answer(int event_type, const Json::Value& reply);
  void clear();  // forgets requests, posts and log lines
  // The posts, as (event, value) pairs, each checked to carry nothing else.
  Posts posted() const;

  FakeMediaService service_;
  PostRecorder recorder_;
  void* handle_ = nullptr;
};

Json::Value reply_with(int ret, const char* member = nullptr, const Json::Value& value = {});
// A service event for the test object's player.
Json::Value player_event(int event, int data1, double data2 = 0.0, int sub_event = 0);
// Whether the A/V control layer logged `text` at level 3 for `function`.
bool logged(const std::string& function, const std::string& text);

}  // namespace pavo::test

#endif  // PAVO_TESTS_AV_CONTROL_ADAPTOR_AVCTRL_HARNESS_H
