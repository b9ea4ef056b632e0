#include "support/fake_media_service.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace pavo::test {
namespace {

// The transport's frame, as it lies on the queue: the message type, seven
// 32-bit header words and N + 4 payload bytes, N = 1024. A chunk carries at
// most N + 1 payload bytes.
constexpr uint32_t kChunkSize = 1024;
constexpr std::size_t kChunkPayload = kChunkSize + 1;
constexpr long kMessageType = 1;

enum Kind : int32_t { kOneWay = 1, kRequest = 2, kReply = 3, kNoReplyKind = 4 };

struct Frame {
  long mtype;
  int32_t kind;
  uint32_t total_len;
  uint32_t seq_no;
  uint32_t is_last;
  uint32_t reserved_one;
  uint32_t reserved_zero;
  uint32_t chunk_len;
  char payload[kChunkSize + 4];
};
constexpr std::size_t kMessageTextSize = kChunkSize + 32;  // what msgsnd/msgrcv move
static_assert(sizeof(Frame) - offsetof(Frame, kind) >= kMessageTextSize, "frame layout");

int create_fresh_queue(int key) {
  const int old = msgget(key, 0);
  if (old >= 0) msgctl(old, IPC_RMID, nullptr);
  const int id = msgget(key, IPC_CREAT | 0666);
  if (id < 0) {
    std::fprintf(stderr, "fake media service: cannot create queue 0x%x: %s\n",
                 static_cast<unsigned>(key), std::strerror(errno));
    std::abort();
  }
  return id;
}

// Sends `bytes` as frames of `kind`. A full queue is retried for a second.
bool send_frames(int queue, long mtype, int32_t kind, const std::string& bytes) {
  auto frame = std::make_unique<Frame>();
  std::size_t offset = 0;
  uint32_t seq = 0;
  do {
    std::memset(frame.get(), 0, sizeof(Frame));
    const std::size_t take = std::min(kChunkPayload, bytes.size() - offset);
    frame->mtype = mtype;
    frame->kind = kind;
    frame->total_len = static_cast<uint32_t>(bytes.size());
    frame->seq_no = ++seq;
    frame->reserved_one = 1;
    frame->chunk_len = static_cast<uint32_t>(take);
    if (take > 0) std::memcpy(frame->payload, bytes.data() + offset, take);
    offset += take;
    frame->is_last = offset == bytes.size() ? 1 : 0;
    int attempts = 0;
    while (msgsnd(queue, frame.get(), kMessageTextSize, IPC_NOWAIT) != 0) {
      if ((errno != EAGAIN && errno != EINTR) || ++attempts > 1000) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  } while (offset < bytes.size());
  return true;
}

using Clock = std::chrono::steady_clock;

// Receives the frames of one message: blocking, or polling until `deadline`
// when one is given. Returns false when the queue is gone, a frame is not
// the transport's, or the deadline passed.
bool receive_message(int queue, long mtype, std::optional<Clock::time_point> deadline,
                     std::string* bytes, Frame* last) {
  bytes->clear();
  for (;;) {
    const ssize_t n = msgrcv(queue, last, kMessageTextSize, mtype, deadline ? IPC_NOWAIT : 0);
    if (n < 0) {
      const int err = errno;
      if (err == EINTR) continue;
      if (err == ENOMSG && deadline && Clock::now() < *deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        continue;
      }
      return false;
    }
    bytes->append(last->payload, std::min<std::size_t>(last->chunk_len, kChunkPayload));
    if (last->is_last) return true;
  }
}

bool wait_count(std::mutex& mutex, std::condition_variable& cv, const std::vector<Received>& list,
                std::size_t count, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex);
  return cv.wait_for(lock, limit, [&] { return list.size() >= count; });
}

}  // namespace

Answer Answer::json(const Json::Value& reply, std::chrono::milliseconds delay) {
  return Answer{Kind::kReply, reply.toStyledString(), delay};
}
Answer Answer::text_reply(std::string text) { return Answer{Kind::kReply, std::move(text), {}}; }
Answer Answer::no_reply() { return Answer{Kind::kNoReply, {}, {}}; }
Answer Answer::none() { return Answer{Kind::kNone, {}, {}}; }

FakeMediaService::FakeMediaService() {
  request_queue_ = create_fresh_queue(kRequestKey);
  reply_queue_ = create_fresh_queue(kRequestKey + 1);
  notice_queue_ = create_fresh_queue(kNoticeKey);
  request_thread_ = std::thread([this] { serve(request_queue_, kRequest); });
  notice_thread_ = std::thread([this] { serve(notice_queue_, kOneWay); });
}

FakeMediaService::~FakeMediaService() {
  // Removing a queue ends the blocking receive of its thread.
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  arrived_.notify_all();
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

bool FakeMediaService::wait_for_requests(std::size_t count, std::chrono::milliseconds limit) const {
  return wait_count(mutex_, arrived_, requests_, count, limit);
}

std::vector<Received> FakeMediaService::notices() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return notices_;
}

bool FakeMediaService::wait_for_notices(std::size_t count, std::chrono::milliseconds limit) const {
  return wait_count(mutex_, arrived_, notices_, count, limit);
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
  auto frame = std::make_unique<Frame>();
  std::string text;
  if (!receive_message(replies, kMessageType, Clock::now() + limit, &text, frame.get())) {
    return std::nullopt;
  }
  return ServiceReply{frame->kind, std::string(text.c_str())};
}

void FakeMediaService::serve(int queue, int32_t kind) {
  auto frame = std::make_unique<Frame>();
  std::string bytes;
  while (receive_message(queue, 0, std::nullopt, &bytes, frame.get())) {
    if (frame->kind != kind) continue;
    Received received{bytes, Json::Value()};
    if (!Json::Reader().parse(bytes, received.json)) received.json = Json::Value();
    const Json::Value request = received.json;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      (kind == kRequest ? requests_ : notices_).push_back(std::move(received));
    }
    arrived_.notify_all();
    if (kind == kRequest && !answer(frame->mtype, request)) return;
  }
}

bool FakeMediaService::answer(long mtype, const Json::Value& request) {
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
  if (answer.delay.count() > 0) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (arrived_.wait_for(lock, answer.delay, [this] { return stopping_; })) return false;
  }
  if (answer.kind == Answer::Kind::kReply) send_frames(reply_queue_, mtype, kReply, answer.text);
  if (answer.kind == Answer::Kind::kNoReply) {
    send_frames(reply_queue_, mtype, kNoReplyKind, std::string("a", 2));
  }
  return true;
}

}  // namespace pavo::test
