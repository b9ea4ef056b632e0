// The page's OIPF objects mapped onto the library, in one place: each A/V
// Control object of a page gets its own A/V control object of the library
// (made at its first use, destroyed by release(), by its removal from the
// page, when its page goes and at the end), each DRM agent object a DRM
// agent; the OIPF rules that the library leaves to the plug-in are applied
// here (play() from an idle state loads `data`, a seek before playback, a
// negative seek, queue(), the terminal's default component).
//
// Calls come from the page through the bridge (handle_call) as hostile
// input: every member is checked for type and size, the calls of a page are
// rate-limited and its objects capped. The library's callbacks only queue
// what they received and wake the message loop (wake_fd); deliver() then
// turns it into messages for the page, each tagged with the item generation
// the page last named, so that the page drops what belongs to an item it
// has already ended.
//
// Thread safety: every member except the callbacks' queue is used by the
// message loop's thread only. The library's callbacks (event thread, or the
// loop's own thread for the posts of Play, Pause, Load and Seek) touch only
// the queue, under its mutex, and never call the library.
#ifndef PAVO_TOOLS_HBBTV_PAGE_OBJECTS_H
#define PAVO_TOOLS_HBBTV_PAGE_OBJECTS_H

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "plugin_side/events.h"
#include "plugin_side/timeline.h"

namespace pavo::hbbtv {

class PageObjects {
 public:
  // Sends `messages` (a JSON array text) to the page's receiver in the
  // execution context `context`.
  using Deliver = std::function<void(int context, const std::string& messages)>;

  // `frames`: the directory where the media service offers its frame
  // previews (frame_preview_name.h); empty for none.
  PageObjects(plugin::Timeline& timeline, Deliver deliver, std::string frames = std::string());
  ~PageObjects();  // close_all()
  PageObjects(const PageObjects&) = delete;
  PageObjects& operator=(const PageObjects&) = delete;

  // A descriptor that becomes readable when library events wait (poll it,
  // then call deliver()).
  int wake_fd() const { return wake_read_; }

  // One call of the bridge from the page in `context` (the binding's
  // payload). Never throws; a malformed call is dropped (and noted once).
  void handle_call(int context, const std::string& payload);
  // Turns queued library events into messages for the pages.
  void deliver();
  // Pushes the position of playing objects and, with a frame directory,
  // each presenting object's newest frame (call at least 4 times a second).
  void tick();
  // The page of `context` is gone (navigation, unload, closed tab):
  // destroys its objects.
  void context_gone(int context);
  // Destroys every object and agent (the program's end, or every context
  // cleared).
  void close_all();

  // Objects with a library object now (for tests of the program's end).
  std::size_t live_objects() const;

  // Library callbacks (public for the C callbacks; they only queue).
  void queue_av_event(uint64_t serial, const plugin::AvEvent& event);
  void queue_drm_event(uint64_t serial, plugin::DrmEvent event);

 private:
  struct AvObject;
  struct DrmObject;
  struct Queued;
  void enqueue(Queued q);

  void av_call(int context, int id, int generation, const std::string& method, const Json::Value& args);
  void drm_call(int context, int id, const std::string& method, const Json::Value& args);
  AvObject* av_object(int context, int id, bool make);
  bool ensure_player(AvObject& object);
  void destroy_player(AvObject& object);
  void on_av_event(AvObject& object, const plugin::AvEvent& event);
  void on_drm_event(uint64_t serial, const plugin::DrmEvent& event);
  void read_components(AvObject& object);
  Json::Value snapshot(AvObject& object, bool with_components);
  void send(int context, Json::Value message);
  void flush();
  // A timeline line, at most 100 a second (the rest counted).
  void note(const char* tag, const std::string& text);
  bool admit(int context);
  void select_default(AvObject& object, int type, bool select);
  void offer_frame(AvObject& object);
  void prefer_audio(AvObject& object);

  plugin::Timeline& timeline_;
  Deliver deliver_;
  const std::string frames_;
  int wake_read_ = -1;
  int wake_write_ = -1;
  uint64_t next_serial_ = 1;
  std::map<std::pair<int, int>, std::unique_ptr<AvObject>> av_;    // (context, page id)
  std::map<std::pair<int, int>, std::unique_ptr<DrmObject>> drm_;  // (context, page id)
  std::map<uint64_t, AvObject*> av_by_serial_;
  std::map<uint64_t, DrmObject*> drm_by_serial_;
  std::map<std::string, std::pair<uint64_t, std::string>> drm_messages_;  // service id -> agent, page id
  std::map<int, Json::Value> outbox_;                 // context -> messages not yet sent
  struct Budget {
    std::chrono::steady_clock::time_point second;
    std::chrono::steady_clock::duration busy{};
    int calls = 0;
    int dropped = 0;
  };
  std::map<int, Budget> budgets_;
  std::set<int> gone_contexts_;  // pages gone: their late calls are ignored
  std::chrono::steady_clock::time_point note_second_{};
  int notes_this_second_ = 0;
  int notes_skipped_ = 0;

  std::mutex queue_mutex_;
  std::unique_ptr<std::deque<Queued>> queue_;  // guarded by queue_mutex_
  bool wake_pending_ = false;  // guarded by queue_mutex_
};

// Most A/V control objects with a player that one page may hold at once.
constexpr std::size_t kMaxPlayersPerPage = 8;
// Most calls per page and second, and most time spent on them per second;
// the rest are dropped. Each may be a request to the service: the bounds
// keep a flooding page from queuing more work than the program does in
// that second, however slow the machine.
// The first kAlwaysAdmitted calls of each second pass whatever they cost
// (a page that makes its objects at start is no flood).
constexpr int kMaxCallsPerSecond = 500;
constexpr std::chrono::milliseconds kMaxBusyPerSecond{250};
constexpr int kAlwaysAdmitted = 64;
// Largest call a page may send, in bytes.
constexpr std::size_t kMaxCallBytes = 16384;

}  // namespace pavo::hbbtv

#endif  // PAVO_TOOLS_HBBTV_PAGE_OBJECTS_H
