// The fake media-player service against the bare transport: its frames must
// be the transport's, in both directions, before other tests rely on it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "pavo_ipc.h"
#include "support/fake_media_service.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace {

using pavo::test::Answer;
using pavo::test::FakeMediaService;

constexpr uint32_t kN = 1024;

// A synchronous exchange on the request queue, as the library's client makes it.
struct Exchange {
  int rc = 0;
  std::string reply;
  uint32_t len = 0;
};

Exchange request(const std::string& text) {
  pavo_ipc_client* client = nullptr;
  EXPECT_EQ(pavo_ipc_client_create(FakeMediaService::kRequestKey, 1, 1, kN, &client), 0);
  std::string copy = text;
  pavo_ipc_msg req{static_cast<uint32_t>(copy.size()), copy.data()};
  pavo_ipc_msg reply{0, nullptr};
  Exchange out;
  out.rc = pavo_ipc_client_send_sync_with_params(client, &req, &reply);
  if (reply.data != nullptr) out.reply = reply.data;
  out.len = reply.len;
  std::free(reply.data);
  pavo_ipc_client_destroy(client);
  return out;
}

TEST(FakeMediaService, AnswersRequestsFromItsScriptAndRecordsThem) {
  FakeMediaService service;
  Json::Value big(Json::objectValue);
  big["ret"] = 4;
  big["blob"] = std::string(16000, 'x');
  service.script(8, Answer::json(big));
  service.script(9, [](const Json::Value& req) {
    Json::Value r(Json::objectValue);
    r["ret"] = req["player_id"].asInt() * 2;
    return Answer::json(r);
  });
  service.script(10, Answer::no_reply());
  service.script(11, Answer::text_reply("not json"));

  Json::Value ok(Json::objectValue);
  ok["ret"] = 0;
  Exchange plain = request(R"({"event_type":3,"player_id":7})");
  EXPECT_EQ(plain.rc, 0);
  EXPECT_EQ(plain.reply, ok.toStyledString());

  Exchange chunked = request(R"({"event_type":8})");
  EXPECT_EQ(chunked.rc, 0);
  EXPECT_EQ(chunked.reply, big.toStyledString());
  EXPECT_EQ(chunked.len, chunked.reply.size());

  EXPECT_NE(request(R"({"event_type":9,"player_id":21})").reply.find("42"), std::string::npos);
  Exchange none = request(R"({"event_type":10})");
  EXPECT_EQ(none.rc, 0);
  EXPECT_EQ(none.reply, "a");
  EXPECT_EQ(request(R"({"event_type":11})").reply, "not json");
  EXPECT_EQ(request("[1,").reply, ok.toStyledString()) << "unparsable requests get the default";

  ASSERT_TRUE(service.wait_for_requests(6));
  const auto seen = service.requests();
  ASSERT_EQ(seen.size(), 6u);
  EXPECT_EQ(seen[0].json["player_id"].asInt(), 7);
  EXPECT_EQ(seen[0].text, R"({"event_type":3,"player_id":7})");
  EXPECT_FALSE(seen[5].parsed);
  EXPECT_EQ(service.answered(), 6u);
}

TEST(FakeMediaService, WithheldAnswerLeavesTheRequesterToItsTimeOut) {
  pavo::test::ReplyTimeoutOverride timeout(std::chrono::milliseconds(200));
  FakeMediaService service;
  service.script(5, Answer::none());
  EXPECT_EQ(request(R"({"event_type":5})").rc, -1);
  EXPECT_EQ(service.answered(), 0u);
  EXPECT_EQ(request(R"({"event_type":4})").rc, 0) << "the next request is answered";
}

std::mutex g_mutex;
std::vector<std::string> g_events;

pavo_ipc_msg* record_event(pavo_ipc_msg* m, void*) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_events.emplace_back(m->data, m->len);
  return nullptr;
}

pavo_ipc_msg* answer_ok(pavo_ipc_msg* m, void*) {
  auto* reply = new pavo_ipc_msg;
  reply->data = strdup(std::string(m->data).find("\"source\"") != std::string::npos ? "ok" : "other");
  reply->len = static_cast<uint32_t>(std::strlen(reply->data));
  return reply;
}

TEST(FakeMediaService, SendsEventsAndServiceRequestsAndRecordsNotices) {
  pavo::test::ScopedQueues event_queues(FakeMediaService::kEventKey);
  pavo::test::ScopedQueues request_queues(FakeMediaService::kServiceRequestKey);
  FakeMediaService service;
  EXPECT_FALSE(service.send_event_text("{}")) << "no event queue yet";

  pavo_ipc_server* events = nullptr;
  pavo_ipc_server* requests = nullptr;
  ASSERT_EQ(pavo_ipc_server_create(FakeMediaService::kEventKey, 1, 0, kN, &events), 0);
  ASSERT_EQ(pavo_ipc_server_create(FakeMediaService::kServiceRequestKey, 1, 1, kN, &requests), 0);
  pavo_ipc_server_register_callback(events, record_event, nullptr);

  Json::Value event(Json::objectValue);
  event["event_type"] = 0;
  event["long"] = std::string(3000, 'y');
  ASSERT_TRUE(service.send_event(event));
  ASSERT_TRUE(pavo::test::wait_until([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    return !g_events.empty();
  }));
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    EXPECT_EQ(g_events[0], event.toStyledString());
  }

  auto unanswered = service.send_service_request(R"({"event_type":2,"source":1})");
  ASSERT_TRUE(unanswered.has_value());
  EXPECT_EQ(unanswered->kind, 4);
  EXPECT_EQ(unanswered->text, "a");
  pavo_ipc_server_register_callback(requests, answer_ok, nullptr);
  auto answered = service.send_service_request(R"({"event_type":2,"source":1})");
  ASSERT_TRUE(answered.has_value());
  EXPECT_EQ(answered->kind, 3);
  EXPECT_EQ(answered->text, "ok");

  pavo_ipc_client* notices = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(FakeMediaService::kNoticeKey, 1, 0, kN, &notices), 0);
  char text[] = R"({"event_type":31,"subtitleEnable":true})";
  pavo_ipc_msg notice{static_cast<uint32_t>(std::strlen(text)), text};
  ASSERT_EQ(pavo_ipc_client_send(notices, &notice), 0);
  ASSERT_TRUE(service.wait_for_notices(1));
  EXPECT_TRUE(service.notices()[0].json["subtitleEnable"].asBool());
  EXPECT_EQ(service.requests().size(), 0u) << "a notice is no request";

  pavo_ipc_client_destroy(notices);
  pavo_ipc_server_destroy(events);
  pavo_ipc_server_destroy(requests);
}

}  // namespace
