// A scripted stand-in of the media-player service, for tests that drive the
// library's media-player client.
//
// It speaks the wire protocol only, through the transport's framing
// functions (ipc_snd_internal, ipc_rcv_internal; tests/ipc checks their frames
// against raw ones): System V queues with the fixed keys, chunk size 1024,
// message type 1. It owns the service-side queues:
//   0x95000100  the library's requests (read here)
//   0x95000101  the replies to them (written here)
//   0x95000080  the library's one-way notices (read here)
// and talks to the library's own servers:
//   0x95000070  events (one-way frames written here)
//   0x95000090  service requests (written here; replies read from 0x95000091)
//
// Two threads of its own read requests and notices while the object lives.
// Every request is recorded, as text and as parsed JSON, and answered from
// the script: per "event_type" a fixed Answer or a function of the request;
// without a script entry the answer is {"ret":0}.
//
// Use: construct the service before Pavo_MediaPlayer_IPC_Initialize and
// destroy it after Pavo_MediaPlayer_IPC_Finalize. The destructor removes the
// three service-side queues; a library client that is still open then loses
// its next request. Queues of the library's servers (0x95000070, 0x95000090,
// 0x95000091) are left to the test. The fixed keys make every test that uses
// this class an ISOLATED one.
//
// Thread safety: every member function may be called from any thread.
// Scripted functions run on the request thread, one request at a time (one
// that sleeps delays its answer, and the destructor by as much).
#ifndef PAVO_TESTS_SUPPORT_FAKE_MEDIA_SERVICE_H
#define PAVO_TESTS_SUPPORT_FAKE_MEDIA_SERVICE_H

#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace pavo::test {

// The service's answer to one request.
struct Answer {
  enum class Kind {
    kReply,    // a reply frame (kind 3) carrying `text`
    kNoReply,  // the no-reply answer: kind 4, text "a" with its NUL
  };
  Kind kind = Kind::kReply;
  std::string text;  // the reply's bytes (kReply)

  // A reply rendered from `reply` (jsoncpp's styled layout).
  static Answer json(const Json::Value& reply);
  // A reply of exactly these bytes (need not be JSON; may hold NULs).
  static Answer text_reply(std::string text);
  static Answer no_reply();
};

// One message received from the library.
struct Received {
  std::string text;  // the text as it arrived, up to its first NUL
  Json::Value json;  // parsed `text`; null when it is not JSON
};

// What the library answered to a service request.
struct ServiceReply {
  int kind = 0;      // 3 reply, 4 no-reply answer
  std::string text;  // up to its NUL
};

class FakeMediaService {
 public:
  static constexpr int kRequestKey = 0x95000100;
  static constexpr int kNoticeKey = 0x95000080;
  static constexpr int kEventKey = 0x95000070;
  static constexpr int kServiceRequestKey = 0x95000090;

  using Responder = std::function<Answer(const Json::Value& request)>;

  // Creates the three service-side queues (emptied if they existed) and
  // starts the reading threads. Aborts the test program if a queue cannot be
  // created.
  FakeMediaService();
  // Stops the threads and removes the three service-side queues.
  ~FakeMediaService();
  FakeMediaService(const FakeMediaService&) = delete;
  FakeMediaService& operator=(const FakeMediaService&) = delete;

  // ---- Script (replaces any earlier entry for the same "event_type") ----
  void script(int event_type, Answer answer);
  void script(int event_type, Responder responder);

  // ---- What arrived ----
  // Requests on 0x95000100, oldest first.
  std::vector<Received> requests() const;
  // One-way notices on 0x95000080, oldest first.
  std::vector<Received> notices() const;
  // Blocks until at least `count` notices have arrived in total, at most
  // `limit`. Returns whether they did.
  bool wait_for_notices(std::size_t count,
                        std::chrono::milliseconds limit = std::chrono::seconds(5)) const;
  // Forgets the recorded requests and notices (counts start from 0 again).
  void clear_records();

  // ---- Service to library ----
  // Sends an event as one-way frames (kind 1) to 0x95000070, with the
  // transport's resends on a full queue. Returns false if the queue does not
  // exist.
  bool send_event(const Json::Value& event) const;
  bool send_event_text(const std::string& bytes) const;
  // Sends a service request (kind 2) to 0x95000090 and waits at most `limit`
  // for the answer on 0x95000091. Empty when the queues do not exist or no
  // answer came in time. One service request at a time.
  std::optional<ServiceReply> send_service_request(
      const std::string& bytes, std::chrono::milliseconds limit = std::chrono::seconds(5)) const;

 private:
  // Records every message of `kind` on `queue` until the queue goes, and
  // answers requests.
  void serve(int queue, uint32_t kind);
  // Sends the script's answer to `request`.
  void answer(long mtype, const Json::Value& request);

  int request_queue_ = -1;
  int reply_queue_ = -1;
  int notice_queue_ = -1;

  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::map<int, Responder> script_;  // guarded by mutex_
  std::vector<Received> requests_;   // guarded by mutex_
  std::vector<Received> notices_;    // guarded by mutex_
  mutable std::mutex service_request_mutex_;

  std::thread request_thread_;
  std::thread notice_thread_;
};

}  // namespace pavo::test

#endif  // PAVO_TESTS_SUPPORT_FAKE_MEDIA_SERVICE_H
