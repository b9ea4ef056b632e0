#include "e2e_fixture.h"

#include <cmath>

#include "av_control_adaptor/components.h"
#include "pavo_record_list.h"
#include "support/emulation.h"
#include "support/test_queues.h"

namespace pavo::e2e {

std::chrono::milliseconds wait_limit() {
  return pavo::test::under_emulator() ? std::chrono::seconds(60) : std::chrono::seconds(15);
}

void remove_protocol_queues() {
  for (key_t key : {0x95000070, 0x95000080, 0x95000090, 0x95000100}) {
    pavo::test::remove_queue(key);
    pavo::test::remove_queue(key + 1);
  }
}

void record(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* user_data) {
  auto* log = static_cast<PostLog*>(const_cast<void*>(user_data));
  log->add({event, info->value.intValue, info->value.doubleValue, std::this_thread::get_id(), user_data, {}});
}

void PostLog::add(Post post) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    posts_.push_back(std::move(post));
  }
  changed_.notify_all();
}

int PostLog::wait_for(int event, const std::function<bool(const Post&)>& match, std::size_t from) {
  std::unique_lock<std::mutex> lock(mu_);
  int found = -1;
  changed_.wait_for(lock, wait_limit(), [&] {
    for (std::size_t i = from; i < posts_.size() && found < 0; ++i) {
      if (posts_[i].event == event && (!match || match(posts_[i]))) found = static_cast<int>(i);
    }
    return found >= 0;
  });
  return found;
}

Post PostLog::wait_post(int event, std::size_t from) {
  const int i = wait_for(event, nullptr, from);
  return i < 0 ? Post{-1, 0, 0, {}, nullptr, {}} : posts()[static_cast<std::size_t>(i)];
}

std::vector<Post> PostLog::posts() {
  std::lock_guard<std::mutex> lock(mu_);
  return posts_;
}

std::string PostLog::dump() {
  std::string text;
  for (const Post& p : posts()) {
    text += "  event " + std::to_string(p.event) + " (int " + std::to_string(p.int_value) + ", double " +
            std::to_string(p.double_value) + ")\n";
  }
  return text;
}

std::function<bool(const Post&)> int_is(int value) {
  return [value](const Post& p) { return p.int_value == value; };
}
std::function<bool(const Post&)> double_near(double value, double tolerance) {
  return [value, tolerance](const Post& p) { return std::fabs(p.double_value - value) <= tolerance; };
}

void EndToEnd::SetUp() {
  remove_protocol_queues();
  ASSERT_TRUE(service_.start(time_scale_, wait_limit(), service_args_)) << "the service did not start:\n" << service_.output();
  ASSERT_EQ(Pavo_AVCtrl_Initialize(), 0);
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &av_), 0);
  ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(av_, record, &log_), 0);
}

void EndToEnd::TearDown() {
  // Destroy does not wait for a post running on the event thread; the
  // unregistration does, so no post reaches log_ once the test has ended.
  if (av_ != nullptr) Pavo_AVCtrl_UnregisterCallback(av_);
  if (av_ != nullptr) Pavo_AVCtrl_Destroy(av_);
  Pavo_AVCtrl_Finalize();
  EXPECT_EQ(service_.stop(), 0) << "the service did not stop cleanly:\n" << service_.output();
  remove_protocol_queues();
}

void EndToEnd::play_until_playing(const char* url) {
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, url), 0);
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING), 0) << log_.dump();
}

double EndToEnd::position_ms() {
  double ms = -1;
  EXPECT_EQ(Pavo_AVCtrl_GetPosition(av_, &ms), 0);
  return ms;
}

std::string EndToEnd::components(PavoAVComponentType type) {
  PavoRecordList list;
  EXPECT_NE(Init(&list), nullptr);
  EXPECT_EQ(pavo::avctrl::GetComponents(type, &list), 0);
  std::string text;
  for (const PavoAVComponentRecord* r = list.records; r != list.records + list.count; ++r) {
    text += std::string(r->language) + " " + std::to_string(r->audioChannels) + " " + r->encoding + "; ";
  }
  list.destructor(&list);
  return text;
}

}  // namespace pavo::e2e
