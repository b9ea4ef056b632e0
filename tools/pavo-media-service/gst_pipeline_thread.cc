#include "pavo-media-service/gst_pipeline_thread.h"

#include <utility>

#include "pavo-media-service/console.h"

namespace pavo::service {

PipelineThread::PipelineThread(GstElement* pipeline) : shared_(std::make_shared<Shared>()) {
  shared_->pipeline = GST_ELEMENT(gst_object_ref(pipeline));
  finished_ = shared_->finished.get_future();
  thread_ = std::thread(run, shared_);
}

void PipelineThread::post(Op op) {
  {
    std::lock_guard<std::mutex> lock(shared_->mu);
    shared_->ops.push_back(std::move(op));
  }
  shared_->cv.notify_one();
}

bool PipelineThread::stuck(Clock::duration limit) const {
  std::lock_guard<std::mutex> lock(shared_->mu);
  return shared_->running && Clock::now() - shared_->since > limit;
}

void PipelineThread::close(Clock::duration wait) {
  if (!thread_.joinable()) return;
  post([](GstElement* pipeline) { gst_element_set_state(pipeline, GST_STATE_NULL); });
  {
    std::lock_guard<std::mutex> lock(shared_->mu);
    shared_->quit = true;
  }
  shared_->cv.notify_one();
  if (finished_.wait_for(wait) == std::future_status::ready) {
    thread_.join();
  } else {
    complain("a pipeline did not shut within %lld ms: left to its thread",
             static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(wait).count()));
    thread_.detach();
  }
}

void PipelineThread::run(std::shared_ptr<Shared> shared) {
  while (true) {
    Op op;
    {
      std::unique_lock<std::mutex> lock(shared->mu);
      shared->cv.wait(lock, [&] { return shared->quit || !shared->ops.empty(); });
      if (shared->ops.empty()) break;
      op = std::move(shared->ops.front());
      shared->ops.pop_front();
      shared->running = true;
      shared->since = Clock::now();
    }
    op(shared->pipeline);
    std::lock_guard<std::mutex> lock(shared->mu);
    shared->running = false;
  }
  gst_object_unref(shared->pipeline);
  shared->finished.set_value();
}

}  // namespace pavo::service
