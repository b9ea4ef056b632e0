#include "pavo-media-service/gst_frame_preview.h"

#include <gst/video/video.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "frame_preview/frame_preview_name.h"

namespace pavo::service {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(250);
constexpr GstClockTime kConvertTimeout = 200 * GST_MSECOND;
constexpr int kMaxWidth = 960;  // frames are scaled down to this width at most

class Preview {
 public:
  ~Preview() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    for (auto& [pipeline, path] : watched_) gst_object_unref(pipeline);
  }

  void watch(GstElement* pipeline, const std::string& url) {
    const char* dir = std::getenv(frame_preview::kDirectoryVariable);
    if (dir == nullptr || *dir == '\0') return;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = watched_.find(pipeline);
    if (it == watched_.end()) {
      gst_object_ref(pipeline);
      it = watched_.emplace(pipeline, std::string()).first;
    }
    it->second = std::string(dir) + "/" + frame_preview::file_name(url);
    if (!thread_.joinable()) thread_ = std::thread(&Preview::loop, this);
  }

  void forget(GstElement* pipeline) {
    std::string path;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = watched_.find(pipeline);
      if (it == watched_.end()) return;
      path = it->second;
      watched_.erase(it);
      // The loop may be taking this pipeline's frame: it holds its own
      // reference for that time.
      gst_object_unref(pipeline);
    }
    ::unlink(path.c_str());
  }

 private:
  void loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
      wake_.wait_for(lock, kInterval, [this] { return stop_; });
      if (stop_) break;
      std::vector<std::pair<GstElement*, std::string>> now;
      for (auto& [pipeline, path] : watched_) now.emplace_back(GST_ELEMENT(gst_object_ref(pipeline)), path);
      lock.unlock();
      for (auto& [pipeline, path] : now) {
        offer(pipeline, path);
        gst_object_unref(pipeline);
      }
      lock.lock();
    }
  }

  // Writes the pipeline's last video frame as JPEG to `path`.
  static void offer(GstElement* pipeline, const std::string& path) {
    GstSample* sample = nullptr;
    g_object_get(pipeline, "sample", &sample, nullptr);
    if (sample == nullptr) return;
    int width = 0;
    int height = 0;
    if (GstCaps* caps = gst_sample_get_caps(sample)) {
      const GstStructure* s = gst_caps_get_structure(caps, 0);
      gst_structure_get_int(s, "width", &width);
      gst_structure_get_int(s, "height", &height);
    }
    GstCaps* jpeg = gst_caps_new_empty_simple("image/jpeg");
    if (width > kMaxWidth && height > 0) {
      gst_caps_set_simple(jpeg, "width", G_TYPE_INT, kMaxWidth, "height", G_TYPE_INT,
                          static_cast<int>(static_cast<long long>(height) * kMaxWidth / width), nullptr);
    }
    GError* error = nullptr;
    GstSample* converted = gst_video_convert_sample(sample, jpeg, kConvertTimeout, &error);
    gst_caps_unref(jpeg);
    gst_sample_unref(sample);
    if (error != nullptr) g_error_free(error);
    if (converted == nullptr) return;
    GstBuffer* buffer = gst_sample_get_buffer(converted);
    GstMapInfo map;
    if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
      const std::string partial = path + ".part";
      if (std::FILE* file = std::fopen(partial.c_str(), "wb")) {
        const bool written = std::fwrite(map.data, 1, map.size, file) == map.size;
        if (std::fclose(file) == 0 && written) std::rename(partial.c_str(), path.c_str());
        else ::unlink(partial.c_str());
      }
      gst_buffer_unmap(buffer, &map);
    }
    gst_sample_unref(converted);
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<GstElement*, std::string> watched_;  // guarded by mutex_; each holds a reference
  bool stop_ = false;                           // guarded by mutex_
  std::thread thread_;
};

Preview& preview() {
  static Preview instance;
  return instance;
}

}  // namespace

void frame_preview_watch(GstElement* pipeline, const std::string& url) { preview().watch(pipeline, url); }

void frame_preview_forget(GstElement* pipeline) { preview().forget(pipeline); }

}  // namespace pavo::service
