#include "support/fake_media_service.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
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
// when one is given. Returns false when the queue is gone or the deadline
// passed.
bool receive_message(int queue, long mtype, std::optional<Clock::time_point> deadline,
                     std::string* bytes, Frame* last) {
  bytes->clear();
  for (;;) {
    const ssize_t n = msgrcv(queue, last, kMessageTextSize, mtype, deadline ? IPC_NOWAIT : 0);
    if (n < 0) {
      const int err = errno;
      if (err == EINTR) continue;
      if (err == E2BIG) {  // not a frame of ours: take it off and go on
        msgrcv(queue, last, kMessageTextSize, mtype, IPC_NOWAIT | MSG_NOERROR);
        continue;
      }
      if (err == ENOMSG && deadline && Clock::now() < *deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        continue;
      }
      return false;
    }
    const std::size_t len = std::min<std::size_t>(last->chunk_len, kChunkPayload);
    bytes->append(last->payload, len);
    if (last->is_last) return true;
  }
}

Received make_received(std::string bytes, int kind) {
  Received r;
  r.kind = kind;
  r.text = std::move(bytes);
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  r.parsed = reader->parse(r.text.data(), r.text.data() + r.text.size(), &r.json, &errors);
  if (!r.parsed) r.json = Json::Value();
  return r;
}

int event_type_of(const Received& request) {
  if (!request.json.isObject()) return -1;
  const Json::Value& type = request.json["event_type"];
  return type.isInt() ? type.asInt() : -1;
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
Answer Answer::text_reply(std::string text, std::chrono::milliseconds delay) {
  return Answer{Kind::kReply, std::move(text), delay};
}
Answer Answer::no_reply() { return Answer{Kind::kNoReply, {}, {}}; }
Answer Answer::none() { return Answer{Kind::kNone, {}, {}}; }

FakeMediaService::FakeMediaService() {
  request_queue_ = create_fresh_queue(kRequestKey);
  reply_queue_ = create_fresh_queue(kRequestKey + 1);
  notice_queue_ = create_fresh_queue(kNoticeKey);
  request_thread_ = std::thread([this] { serve_requests(); });
  notice_thread_ = std::thread([this] { record_notices(); });
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

void FakeMediaService::clear_script() {
  std::lock_guard<std::mutex> lock(mutex_);
  script_.clear();
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

std::size_t FakeMediaService::answered() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return answered_;
}

void FakeMediaService::clear_records() {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.clear();
  notices_.clear();
  answered_ = 0;
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

Answer FakeMediaService::answer_for(int event_type, const Json::Value& request) {
  Responder responder;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = script_.find(event_type);
    if (it != script_.end()) responder = it->second;
  }
  if (responder) return responder(request);
  Json::Value ok(Json::objectValue);
  ok["ret"] = 0;
  return Answer::json(ok);
}

void FakeMediaService::serve_requests() {
  auto frame = std::make_unique<Frame>();
  std::string bytes;
  while (receive_message(request_queue_, 0, std::nullopt, &bytes, frame.get())) {
    const long mtype = frame->mtype;
    if (frame->kind != kRequest) continue;
    Received request = make_received(bytes, frame->kind);
    const Json::Value json = request.json;
    const int event_type = event_type_of(request);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(std::move(request));
    }
    arrived_.notify_all();
    const Answer answer = answer_for(event_type, json);
    if (answer.delay.count() > 0) {
      std::unique_lock<std::mutex> lock(mutex_);
      if (arrived_.wait_for(lock, answer.delay, [this] { return stopping_; })) return;
    }
    if (answer.kind == Answer::Kind::kNone) continue;
    // Counted before it goes out, so that a requester that has its answer
    // also sees it counted.
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++answered_;
    }
    const bool sent = answer.kind == Answer::Kind::kReply
                          ? send_frames(reply_queue_, mtype, kReply, answer.text)
                          : send_frames(reply_queue_, mtype, kNoReplyKind, std::string("a", 2));
    if (!sent) {
      std::lock_guard<std::mutex> lock(mutex_);
      --answered_;
    }
  }
}

void FakeMediaService::record_notices() {
  auto frame = std::make_unique<Frame>();
  std::string bytes;
  while (receive_message(notice_queue_, 0, std::nullopt, &bytes, frame.get())) {
    if (frame->kind != kOneWay) continue;
    Received notice = make_received(bytes, frame->kind);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      notices_.push_back(std::move(notice));
    }
    arrived_.notify_all();
  }
}

}  // namespace pavo::test
