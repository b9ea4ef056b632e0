// The thread that makes one pipeline's blocking calls (state changes, seeks,
// queries), in the order posted, so that no caller of the engine ever waits
// on a GStreamer streaming thread for longer than it chooses to.
//
// Closing it sets the pipeline to NULL and waits for that a bounded time
// (none when abandoned): a thread stuck in GStreamer is left behind with its
// own reference to the pipeline, so that no caller waits for it.
#ifndef PAVO_MEDIA_SERVICE_GST_PIPELINE_THREAD_H
#define PAVO_MEDIA_SERVICE_GST_PIPELINE_THREAD_H

#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "pavo-media-service/engine.h"

namespace pavo::service {

// How long closing a pipeline may take before it is left to its thread.
constexpr auto kShutWait = std::chrono::seconds(2);

class PipelineThread {
 public:
  using Op = std::function<void(GstElement*)>;

  // Starts the thread with a reference of its own to `pipeline`.
  explicit PipelineThread(GstElement* pipeline);
  ~PipelineThread() { close(kShutWait); }
  PipelineThread(const PipelineThread&) = delete;
  PipelineThread& operator=(const PipelineThread&) = delete;

  void post(Op op);

  // Runs `fn` on the thread; its result when that comes within `wait`,
  // otherwise `fallback` (fn still runs, its result is dropped).
  template <typename T>
  T call(std::function<T(GstElement*)> fn, T fallback, Clock::duration wait) {
    auto promise = std::make_shared<std::promise<T>>();
    std::future<T> result = promise->get_future();
    post([fn, promise](GstElement* pipeline) { promise->set_value(fn(pipeline)); });
    return result.wait_for(wait) == std::future_status::ready ? result.get() : fallback;
  }

  // Whether the call running has run for longer than `limit`.
  bool stuck(Clock::duration limit) const;

  // Shuts the pipeline; waits for that `wait` at most. Idempotent.
  void close(Clock::duration wait);

 private:
  // What the thread shares with its owner; the thread keeps it alive after
  // an abandoning close.
  struct Shared {
    mutable std::mutex mu;
    std::condition_variable cv;
    std::deque<Op> ops;
    bool quit = false;
    bool running = false;
    Clock::time_point since;
    GstElement* pipeline = nullptr;  // the thread's own reference
    std::promise<void> finished;
  };

  static void run(std::shared_ptr<Shared> shared);

  std::shared_ptr<Shared> shared_;
  std::future<void> finished_;
  std::thread thread_;
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_GST_PIPELINE_THREAD_H
