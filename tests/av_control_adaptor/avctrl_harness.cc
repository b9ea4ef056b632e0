#include "avctrl_harness.h"

#include <algorithm>

#include "av_control_adaptor/event_translation.h"
#include "hbbtv_plugin_impl_standin.h"
#include "pavo_media_log_standin.h"
#include "support/test_queues.h"

namespace pavo::test {

void PostRecorder::callback(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info,
                            const void* self) {
  auto* recorder = static_cast<PostRecorder*>(const_cast<void*>(self));
  const bool is_double =
      event == PAVO_AVCTRL_EVENT_SPEEDCHANGE || event == PAVO_AVCTRL_EVENT_POSITIONCHANGE;
  const auto* bytes = reinterpret_cast<const unsigned char*>(info);
  const Post post{event, is_double ? info->value.doubleValue : info->value.intValue,
                  std::all_of(bytes + (is_double ? sizeof(double) : sizeof(int32_t)),
                              bytes + sizeof *info, [](unsigned char b) { return b == 0; }),
                  recorder->request_count ? recorder->request_count() : 0};
  {
    std::lock_guard<std::mutex> lock(recorder->mutex_);
    recorder->posts_.push_back(post);
  }
  if (recorder->on_post) recorder->on_post(post);
}

std::vector<Post> PostRecorder::posts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return posts_;
}

bool PostRecorder::wait_for(std::size_t count) const {
  return wait_until([&] { return posts().size() >= count; });
}

void PostRecorder::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  posts_.clear();
}

Json::Value reply_with(int ret, const char* member, const Json::Value& value) {
  Json::Value reply(Json::objectValue);
  reply["ret"] = ret;
  if (member != nullptr) reply[member] = value;
  return reply;
}

Json::Value player_event(int event, int data1, double data2, int sub_event) {
  Json::Value e(Json::objectValue);
  e["event_type"] = 0;
  e["event"] = event;
  e["sub_event"] = sub_event;
  e["player_id"] = kPlayerId;
  e["data1"] = data1;
  e["data2"] = data2;
  return e;
}

bool logged(const std::string& function, const std::string& text) {
  for (const auto& line : standin::media_log_lines()) {
    if (line.function == function && line.text == text) return line.level == 3;
  }
  return false;
}

void AvctrlTest::SetUp() {
  standin::media_log_capture(true);
  standin::hbbtv_reset();
  answer(0, reply_with(0, "player_id", kPlayerId));
  ASSERT_EQ(Pavo_AVCtrl_Initialize(), 0);
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &handle_), 0);
  recorder_.request_count = [this] { return service_.requests().size(); };
  ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(handle_, PostRecorder::callback, &recorder_), 0);
  clear();
}

void AvctrlTest::TearDown() {
  Pavo_AVCtrl_Destroy(handle_);
  Pavo_AVCtrl_Finalize();
  for (int key : {FakeMediaService::kEventKey, FakeMediaService::kServiceRequestKey,
                  FakeMediaService::kServiceRequestKey + 1}) {
    remove_queue(key);
  }
  standin::media_log_capture(false);
}

void AvctrlTest::event(PavoMediaPluginEvent event, int data1, double data2, int error) {
  mediaplayer_adaptor_callback(event, static_cast<PavoMediaError>(error), handle_, data1, data2);
}

std::vector<Json::Value> AvctrlTest::requests_of(int event_type) const {
  std::vector<Json::Value> out;
  for (const Received& r : service_.requests()) {
    if (r.json["event_type"].asInt() == event_type) out.push_back(r.json);
  }
  return out;
}

std::vector<int> AvctrlTest::request_types() const {
  std::vector<int> out;
  for (const Received& r : service_.requests()) out.push_back(r.json["event_type"].asInt());
  return out;
}

void AvctrlTest::answer(int event_type, const Json::Value& reply) {
  service_.script(event_type, Answer::json(reply));
}

void AvctrlTest::clear() {
  service_.clear_records();
  recorder_.clear();
  standin::media_log_clear();
}

Posts AvctrlTest::posted() const {
  Posts out;
  for (const Post& p : recorder_.posts()) {
    EXPECT_TRUE(p.only_value_set) << "event " << p.event;
    out.emplace_back(p.event, p.value);
  }
  return out;
}

}  // namespace pavo::test
