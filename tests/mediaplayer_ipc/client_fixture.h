// A media-player client opened against the fake service, in this test
// process (which has IPC namespace of its own: tests using it are ISOLATED).
#ifndef PAVO_TESTS_MEDIAPLAYER_IPC_CLIENT_FIXTURE_H
#define PAVO_TESTS_MEDIAPLAYER_IPC_CLIENT_FIXTURE_H

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <string>

#include "pavo_mediaplayer_ipc.h"
#include "support/fake_media_service.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace pavo::test {

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(Pavo_MediaPlayer_IPC_Initialize(1), 0); }
  void TearDown() override { EXPECT_EQ(Pavo_MediaPlayer_IPC_Finalize(), 0); }

  // The library's own server queues go when the test ends.
  ScopedQueues event_queue_{FakeMediaService::kEventKey};
  ScopedQueues request_queues_{FakeMediaService::kServiceRequestKey};
  FakeMediaService service_;
  ReplyTimeoutOverride timeout_{std::chrono::milliseconds(300)};
};

// Compact JSON text -> value (a typo fails the test).
inline Json::Value json(const std::string& text) {
  Json::Value v;
  if (!Json::Reader().parse(text, v)) {
    ADD_FAILURE() << "bad JSON in test: " << text;
  }
  return v;
}

}  // namespace pavo::test

#endif  // PAVO_TESTS_MEDIAPLAYER_IPC_CLIENT_FIXTURE_H
