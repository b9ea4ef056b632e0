#include "support/fake_media_service.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdlib>
#include <memory>

#include "pavo_ipc.h"
#include "support/test_queues.h"

namespace pavo::test {
namespace {

// Frames of chunk size 1024 (WireFrame) and message type 1.
constexpr long kMessageType = 1;

enum Kind : uint32_t { kOneWay = 1, kRequest = 2, kReply = 3, kNoReplyKind = 4 };

int create_fresh_queue(int key) {
  msgctl(msgget(key, 0), IPC_RMID, nullptr);
  const int id = msgget(key, IPC_CREAT | 0666);
  if (id < 0) std::abort();  // (a test without its own IPC namespace?)
  return id;
}

// Sends `bytes` as frames of `kind` through the transport's framing (its
// layout is checked against raw frames in tests/ipc).
bool send_frames(int queue, long mtype, uint32_t kind, std::string bytes) {
  pavo_ipc_msg message{static_cast<uint32_t>(bytes.size()), bytes.data()};
  return ipc_snd_internal(queue, mtype, kWireChunk, &message, static_cast<int>(kind)) == 0;
}

// Receives one message through the transport's reassembly: its text (up to
// its NUL), with the final frame's header in *last. False when the receive
// failed or the message was dropped.
bool receive_message(int queue, long mtype, std::string* bytes, WireFrame* last) {
  uint32_t capacity = kWireChunk + 1;
  char* text = static_cast<char*>(std::malloc(capacity));
  const bool ok = text != nullptr && ipc_rcv_internal(queue, mtype, kWireChunk, last, &text, &capacity) == 0;
  if (ok) *bytes = text;
  std::free(text);
  return ok;
}

bool queue_exists(int queue) {
  msqid_ds ds{};
  return msgctl(queue, IPC_STAT, &ds) == 0;
}

}  // namespace

Answer Answer::json(const Json::Value& reply) { return Answer{Kind::kReply, reply.toStyledString()}; }
Answer Answer::text_reply(std::string text) { return Answer{Kind::kReply, std::move(text)}; }
Answer Answer::no_reply() { return Answer{Kind::kNoReply, {}}; }

FakeMediaService::FakeMediaService() {
  request_queue_ = create_fresh_queue(kRequestKey);
  reply_queue_ = create_fresh_queue(kRequestKey + 1);
  notice_queue_ = create_fresh_queue(kNoticeKey);
  request_thread_ = std::thread([this] { serve(request_queue_, kRequest); });
  notice_thread_ = std::thread([this] { serve(notice_queue_, kOneWay); });
}

FakeMediaService::~FakeMediaService() {
  // Removing a queue ends the blocking receive of its thread.
  msgctl(request_queue_, IPC_RMID, nullptr);
  msgctl(notice_queue_, IPC_RMID, nullptr);
  request_thread_.join();
  notice_thread_.join();
  msgctl(reply_queue_, IPC_RMID, nullptr);
}

void FakeMediaService::script(int event_type, Answer answer) {
  script(event_type, [answer](const Json::Value&) { return answer; });
}

void FakeMediaService::script(int event_type, Responder responder) {
  std::lock_guard<std::mutex> lock(mutex_);
  script_[event_type] = std::move(responder);
}

std::vector<Received> FakeMediaService::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<Received> FakeMediaService::notices() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return notices_;
}

bool FakeMediaService::wait_for_notices(std::size_t count, std::chrono::milliseconds limit) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return arrived_.wait_for(lock, limit, [&] { return notices_.size() >= count; });
}

void FakeMediaService::clear_records() {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.clear();
  notices_.clear();
}

bool FakeMediaService::send_event(const Json::Value& event) const {
  return send_event_text(event.toStyledString());
}

bool FakeMediaService::send_event_text(const std::string& bytes) const {
  const int queue = msgget(kEventKey, 0666);
  return queue >= 0 && send_frames(queue, kMessageType, kOneWay, bytes);
}

std::optional<ServiceReply> FakeMediaService::send_service_request(
    const std::string& bytes, std::chrono::milliseconds limit) const {
  std::lock_guard<std::mutex> one_at_a_time(service_request_mutex_);
  const int queue = msgget(kServiceRequestKey, 0666);
  const int replies = msgget(kServiceRequestKey + 1, 0666);
  if (queue < 0 || replies < 0) return std::nullopt;
  if (!send_frames(queue, kMessageType, kRequest, bytes)) return std::nullopt;
  // The reply is waited for on the queue first, so that no receive blocks past the limit.
  if (!wait_until([&] { return queued_messages(kServiceRequestKey + 1) > 0; }, limit)) return std::nullopt;
  auto frame = std::make_unique<WireFrame>();
  std::string text;
  if (!receive_message(replies, kMessageType, &text, frame.get())) return std::nullopt;
  return ServiceReply{static_cast<int>(frame->kind), text};
}

void FakeMediaService::serve(int queue, uint32_t kind) {
  auto frame = std::make_unique<WireFrame>();
  std::string bytes;
  while (queue_exists(queue)) {
    if (!receive_message(queue, 0, &bytes, frame.get()) || frame->kind != kind) continue;
    Received received{bytes, Json::Value()};
    if (!Json::Reader().parse(bytes, received.json)) received.json = Json::Value();
    const Json::Value request = received.json;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      (kind == kRequest ? requests_ : notices_).push_back(std::move(received));
    }
    arrived_.notify_all();
    if (kind == kRequest) answer(frame->mtype, request);
  }
}

void FakeMediaService::answer(long mtype, const Json::Value& request) {
  Responder responder;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const Json::Value& type = request.isObject() ? request["event_type"] : Json::Value::nullSingleton();
    const auto it = type.isInt() ? script_.find(type.asInt()) : script_.end();
    if (it != script_.end()) responder = it->second;
  }
  Json::Value ok(Json::objectValue);
  ok["ret"] = 0;
  const Answer answer = responder ? responder(request) : Answer::json(ok);
  if (answer.kind == Answer::Kind::kReply) send_frames(reply_queue_, mtype, kReply, answer.text);
  if (answer.kind == Answer::Kind::kNoReply) {
    send_frames(reply_queue_, mtype, kNoReplyKind, std::string("a", 2));
  }
}

}  // namespace pavo::test
