// The fake media-player service against the bare transport client: its
// frames must be the transport's before other tests rely on it. (Its events,
// service requests and notices meet the library's servers and notice client
// in the other tests of this folder.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "pavo_ipc.h"
#include "support/fake_media_service.h"

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

}  // namespace
