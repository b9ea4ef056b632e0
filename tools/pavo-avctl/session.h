// A session of pavo-avctl: what the HbbTV plug-in does for one page's A/V
// control object, driven step by step through the library's exported
// Pavo_AVCtrl_*, Pavo_Platform_* and Pavo_DrmAgent_* functions only, with
// every event that the plug-in's callbacks receive printed on the timeline.
//
// Thread safety: open, run and close are called from one thread. The
// callbacks run on the library's event thread (and, for the speed posts of
// play and pause, inside run); they record under the EventBook's own mutex,
// which is never held while the library is called (lock order: the book's
// mutex, then the timeline's).
#ifndef PAVO_TOOLS_AVCTL_SESSION_H
#define PAVO_TOOLS_AVCTL_SESSION_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pavo-avctl/script.h"
#include "pavo_avctrl.h"
#include "pavo_drm_agent.h"
#include "plugin_side/timeline.h"

namespace pavo::avctl {

using plugin::Timeline;
using plugin::clock_text;

using Millis = std::chrono::milliseconds;
using Deadline = std::chrono::steady_clock::time_point;

// Asks every wait and sleep to end soon (async-signal-safe: a lock-free
// atomic store), e.g. from a SIGINT handler.
void request_stop();
bool stop_requested();

// One event as a callback received it.
struct Observed {
  EventKind kind = EventKind::kPlayState;
  int int_value = 0;        // play state, component type, DRM error, DRM result code
  double double_value = 0;  // speed, position in ms
  std::string text;         // DRM: the message id of a result
};

// What the plug-in's callbacks received, in order, with the play state that
// the last play-state change announced. Waits end at their deadline.
class EventBook {
 public:
  explicit EventBook(Timeline& timeline) : timeline_(timeline) {}
  EventBook(const EventBook&) = delete;
  EventBook& operator=(const EventBook&) = delete;

  // Records and prints one event (called by the callbacks).
  void add(Observed event, const std::string& printed);
  // Prints an event that is not recorded (one the interface does not name).
  void note(const std::string& printed);

  // The number of events so far: the mark from which wait_for looks.
  std::size_t mark() const;
  // The play state of the last play-state change (stopped before any).
  int state() const;

  // Waits until `done(events, state)` holds, `deadline` passes or a stop is
  // requested; true when it holds. `done` runs under the book's mutex.
  template <typename Done>
  bool wait(Deadline deadline, Done done) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      if (done(events_, state_)) return true;
      const Deadline now = std::chrono::steady_clock::now();
      if (now >= deadline || stop_requested()) return false;
      // Short slices, so that a stop request is seen without a notify.
      cv_.wait_until(lock, std::min(deadline, now + Millis(50)));
    }
  }

 private:
  Timeline& timeline_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Observed> events_;  // guarded by mutex_
  int state_ = PAVO_AVCTRL_PLAYSTATE_STOPPED;  // guarded by mutex_
};

struct SessionSettings {
  Millis default_timeout{10000};  // waits without a time-out of their own
  Millis progress_interval{0};    // 0: no progress display
};

class Session {
 public:
  Session(Timeline& timeline, SessionSettings settings);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Starts the library, makes the A/V control object and registers the
  // plug-in's callback. False with `why` when no media-player service
  // answers (the library is closed again).
  bool open(std::string& why);
  // Runs one step (checked by check_step). False with `why` when it failed.
  bool run(const Step& step, std::string& why);
  // Ends the progress display (before a final report).
  void end_progress();
  // Ends the progress display, the DRM agent, the object and the library.
  // Safe to call more than once.
  void close();

 private:
  using Runner = bool (Session::*)(const Step&, std::string&);
  static const std::vector<std::pair<const char*, Runner>>& runners();

  bool load(const Step& step, std::string& why);
  bool play(const Step& step, std::string& why);
  bool pause(const Step& step, std::string& why);
  bool stop(const Step& step, std::string& why);
  bool seek(const Step& step, std::string& why);
  bool wait_state(const Step& step, std::string& why);
  bool wait_position(const Step& step, std::string& why);
  bool wait_event(const Step& step, std::string& why);
  bool sleep(const Step& step, std::string& why);
  bool components(const Step& step, std::string& why);
  bool select(const Step& step, std::string& why);
  bool subtitles(const Step& step, std::string& why);
  bool drm(const Step& step, std::string& why);
  bool expect_error(const Step& step, std::string& why);
  bool expect_speed(const Step& step, std::string& why);
  bool info(const Step& step, std::string& why);

  // The deadline of a wait whose time-out, if any, is the step's word `index`.
  Deadline deadline_of(const Step& step, std::size_t index) const;
  // Waits for one of the play states in `states`; false with `why` on the
  // deadline, or at once on the error state when it is not wanted.
  bool wait_for_states(unsigned states, Deadline deadline, std::string& why);
  bool ensure_drm_agent(std::string& why);
  void progress_loop();
  std::string progress_text(double position_ms);

  Timeline& timeline_;
  const SessionSettings settings_;
  EventBook book_;
  void* handle_ = nullptr;     // the A/V control object
  void* drm_agent_ = nullptr;  // made by the first drm step
  bool library_open_ = false;
  std::size_t action_mark_ = 0;  // events before the last action step began
  std::atomic<double> duration_ms_{-1};  // of the loaded stream; < 0 unknown
  std::atomic<bool> progress_stop_{false};
  std::thread progress_;
};

}  // namespace pavo::avctl

#endif  // PAVO_TOOLS_AVCTL_SESSION_H
