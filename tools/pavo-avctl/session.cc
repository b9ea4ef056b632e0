#include "pavo-avctl/session.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "plugin_side/components.h"
#include "plugin_side/events.h"

namespace pavo::avctl {
namespace {

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the stop flag is set from a signal handler");

constexpr unsigned kErrorBit = 1u << PAVO_AVCTRL_PLAYSTATE_ERROR;

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
  char text[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  return text;
}


std::string states_text(unsigned states) {
  std::string out;
  for (int s = 0; s <= PAVO_AVCTRL_PLAYSTATE_ERROR; ++s) {
    if ((states & (1u << s)) == 0) continue;
    if (!out.empty()) out += " or ";
    out += state_name(s);
  }
  return out;
}

// The plug-in's A/V control callback: the shared translation, recorded
// under the names that wait-event uses.
void on_avctrl_event(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* user_data) {
  if (info == nullptr || user_data == nullptr) return;
  auto& book = *static_cast<EventBook*>(const_cast<void*>(user_data));
  const plugin::AvEvent e = plugin::av_event_of(event, info);
  Observed seen;
  seen.int_value = e.int_value;
  seen.double_value = e.double_value;
  switch (event) {
    case PAVO_AVCTRL_EVENT_PLAYSTATECHANGE: seen.kind = EventKind::kPlayState; break;
    case PAVO_AVCTRL_EVENT_SPEEDCHANGE: seen.kind = EventKind::kSpeed; break;
    case PAVO_AVCTRL_EVENT_POSITIONCHANGE: seen.kind = EventKind::kPosition; break;
    case PAVO_AVCTRL_EVENT_COMPONENTCHANGE: seen.kind = EventKind::kComponent; break;
    case PAVO_AVCTRL_EVENT_DRMERROR: seen.kind = EventKind::kDrmError; break;
    case PAVO_AVCTRL_EVENT_MEDIAERROR: seen.kind = EventKind::kMediaError; break;
    default:
      // Not one of the interface's events: shown, not waited for.
      book.note(plugin::describe(e));
      return;
  }
  book.add(std::move(seen), plugin::describe(e));
}

// The DRM agent's callback.
void on_drm_event(PavoDrmEvent event, const PavoDrmEventInfo* info, const void* user_data) {
  if (info == nullptr || user_data == nullptr) return;
  auto& book = *static_cast<EventBook*>(const_cast<void*>(user_data));
  const plugin::DrmEvent e = plugin::drm_event_of(event, info);
  if (!e.known) {
    book.note(plugin::describe(e));
    return;
  }
  Observed seen;
  seen.kind = event == PAVO_DRM_EVENT_MESSAGE_RESULT ? EventKind::kDrmResult : EventKind::kDrmOther;
  seen.text = e.msg_id;
  seen.int_value = e.result_code;
  book.add(std::move(seen), plugin::describe(e));
}

}  // namespace

void request_stop() { g_stop.store(true); }
bool stop_requested() { return g_stop.load(); }

// ---- EventBook ------------------------------------------------------------

void EventBook::add(Observed event, const std::string& printed) {
  try {
    {
      // Printed under the book's mutex, so that a wait that this event ends
      // prints its outcome after the event's line.
      std::lock_guard<std::mutex> lock(mutex_);
      if (event.kind == EventKind::kPlayState) state_ = event.int_value;
      events_.push_back(std::move(event));
      timeline_.line("event", printed);
    }
    cv_.notify_all();
  } catch (...) {
    // Out of memory while recording: the event is lost, the library's thread
    // goes on.
  }
}

void EventBook::note(const std::string& printed) { timeline_.line("event", printed); }

std::size_t EventBook::mark() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.size();
}

int EventBook::state() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

// ---- Session: start and end ------------------------------------------------

Session::Session(Timeline& timeline, SessionSettings settings)
    : timeline_(timeline), settings_(settings), book_(timeline) {}

Session::~Session() { close(); }

bool Session::open(std::string& why) {
  Pavo_AVCtrl_Initialize();
  library_open_ = true;
  if (Pavo_AVCtrl_Create(nullptr, &handle_) != 0 || handle_ == nullptr) {
    why = "Pavo_AVCtrl_Create failed";
    close();
    return false;
  }
  Pavo_AVCtrl_RegisterCallback(handle_, on_avctrl_event, &book_);
  // Creation does not report a service that is missing; a request does.
  bool full_screen = false;
  const int probe = Pavo_AVCtrl_GetFullScreen(handle_, &full_screen);
  if (probe == -3 || probe == -1) {
    why = format("no media-player service answers (request result %d): is pavo-media-service running "
                 "in this IPC namespace?", probe);
    close();
    return false;
  }
  timeline_.line("ready", "library started, A/V control object made, callback registered");
  if (settings_.progress_interval.count() > 0) progress_ = std::thread(&Session::progress_loop, this);
  return true;
}

void Session::end_progress() {
  if (progress_.joinable()) {
    progress_stop_.store(true);
    progress_.join();
    timeline_.clear_progress();
  }
}

void Session::close() {
  end_progress();
  if (drm_agent_ != nullptr) {
    Pavo_DrmAgent_UnregisterCallback(drm_agent_);
    Pavo_DrmAgent_Destroy(drm_agent_);
    drm_agent_ = nullptr;
  }
  if (handle_ != nullptr) {
    Pavo_AVCtrl_UnregisterCallback(handle_);
    Pavo_AVCtrl_Destroy(handle_);
    handle_ = nullptr;
  }
  if (library_open_) {
    Pavo_AVCtrl_Finalize();
    library_open_ = false;
  }
}

// ---- Steps -----------------------------------------------------------------

const std::vector<std::pair<const char*, Session::Runner>>& Session::runners() {
  static const std::vector<std::pair<const char*, Runner>> table = {
      {"load", &Session::load},
      {"play", &Session::play},
      {"pause", &Session::pause},
      {"stop", &Session::stop},
      {"seek", &Session::seek},
      {"wait-state", &Session::wait_state},
      {"wait-position", &Session::wait_position},
      {"wait-event", &Session::wait_event},
      {"sleep", &Session::sleep},
      {"components", &Session::components},
      {"select", &Session::select},
      {"unselect", &Session::select},
      {"subtitles", &Session::subtitles},
      {"drm", &Session::drm},
      {"expect-error", &Session::expect_error},
      {"expect-speed", &Session::expect_speed},
      {"info", &Session::info},
  };
  return table;
}

bool Session::run(const Step& step, std::string& why) {
  if (handle_ == nullptr) {
    why = "the session is not open";
    return false;
  }
  timeline_.line("step", step.text());
  for (const auto& [verb, runner] : runners()) {
    if (step.verb == verb) return (this->*runner)(step, why);
  }
  why = "unknown step";
  return false;
}

Deadline Session::deadline_of(const Step& step, std::size_t index) const {
  Millis timeout = settings_.default_timeout;
  if (step.args.size() > index) {
    if (const std::optional<double> ms = parse_ms(step.args[index])) timeout = Millis(std::llround(*ms));
  }
  return std::chrono::steady_clock::now() + timeout;
}

namespace {

// The result of an action's call: false with `why` unless it is 0.
bool called(const char* function, int result, std::string& why) {
  if (result == 0) return true;
  why = format("%s returned %d", function, result);
  return false;
}

}  // namespace

bool Session::load(const Step& step, std::string& why) {
  action_mark_ = book_.mark();
  duration_ms_.store(-1);
  return called("Pavo_AVCtrl_Load", Pavo_AVCtrl_Load(handle_, step.args[0].c_str()), why);
}

bool Session::play(const Step& step, std::string& why) {
  const double speed = step.args.empty() ? 1.0 : parse_speed(step.args[0]).value_or(1.0);
  action_mark_ = book_.mark();
  return called("Pavo_AVCtrl_Play", Pavo_AVCtrl_Play(handle_, speed), why);
}

bool Session::pause(const Step&, std::string& why) {
  action_mark_ = book_.mark();
  return called("Pavo_AVCtrl_Pause", Pavo_AVCtrl_Pause(handle_), why);
}

bool Session::stop(const Step&, std::string& why) {
  action_mark_ = book_.mark();
  return called("Pavo_AVCtrl_Stop", Pavo_AVCtrl_Stop(handle_), why);
}

bool Session::seek(const Step& step, std::string& why) {
  action_mark_ = book_.mark();
  return called("Pavo_AVCtrl_Seek", Pavo_AVCtrl_Seek(handle_, parse_ms(step.args[0]).value_or(0)), why);
}

bool Session::wait_for_states(unsigned states, Deadline deadline, std::string& why) {
  const unsigned stop_on = states | ((states & kErrorBit) ? 0 : kErrorBit);
  const auto start = std::chrono::steady_clock::now();
  int reached = PAVO_AVCTRL_PLAYSTATE_STOPPED;
  const bool ended = book_.wait(deadline, [&](const std::vector<Observed>&, int state) {
    reached = state;
    return state >= 0 && state <= PAVO_AVCTRL_PLAYSTATE_ERROR && (stop_on & (1u << state)) != 0;
  });
  const long waited = static_cast<long>(
      std::chrono::duration_cast<Millis>(std::chrono::steady_clock::now() - start).count());
  if (!ended) {
    why = stop_requested() ? "interrupted"
                           : format("still %s after %ld ms (wanted %s)", state_name(reached), waited,
                                    states_text(states).c_str());
    return false;
  }
  if ((states & (1u << reached)) == 0) {
    PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
    Pavo_AVCtrl_GetError(handle_, &error);
    why = format("the object went to the error state (error code %d, %s) while waiting for %s", error,
                 error_code_name(error), states_text(states).c_str());
    return false;
  }
  timeline_.line("ok", format("%s after %ld ms", state_name(reached), waited));
  return true;
}

bool Session::wait_state(const Step& step, std::string& why) {
  return wait_for_states(parse_states(step.args[0]).value_or(0), deadline_of(step, 1), why);
}

bool Session::wait_position(const Step& step, std::string& why) {
  const double target = parse_ms(step.args[0]).value_or(0);
  const Deadline deadline = deadline_of(step, 1);
  double position = -1;
  for (;;) {
    double speed = 1;
    Pavo_AVCtrl_GetCurrentSpeed(handle_, &speed);
    if (Pavo_AVCtrl_GetPosition(handle_, &position) == 0 && position >= 0 &&
        (speed < 0 ? position <= target : position >= target)) {
      timeline_.line("ok", format("position %s", clock_text(position).c_str()));
      return true;
    }
    if (book_.state() == PAVO_AVCTRL_PLAYSTATE_ERROR) {
      why = "the object is in the error state";
      return false;
    }
    if (std::chrono::steady_clock::now() >= deadline || stop_requested()) break;
    std::this_thread::sleep_for(Millis(20));
  }
  why = stop_requested() ? "interrupted"
                         : format("position %s, not yet %s, when the wait ended (state %s)",
                                  clock_text(position).c_str(), clock_text(target).c_str(),
                                  state_name(book_.state()));
  return false;
}

bool Session::wait_event(const Step& step, std::string& why) {
  const EventKind kind = parse_event_kind(step.args[0]).value_or(EventKind::kPlayState);
  const std::size_t from = action_mark_;
  const bool seen = book_.wait(deadline_of(step, 1), [&](const std::vector<Observed>& events, int) {
    for (std::size_t i = from; i < events.size(); ++i) {
      if (events[i].kind == kind) return true;
    }
    return false;
  });
  if (seen) return true;
  why = stop_requested() ? "interrupted"
                         : format("no %s event since the last action step", event_kind_name(kind));
  return false;
}

// Lets time pass, but not past a fall into the error state (a service that
// ended, a stream that broke): playing on for the rest of the time would
// only hide it.
bool Session::sleep(const Step& step, std::string& why) {
  const Deadline deadline = deadline_of(step, 0);
  int before = -1;
  const bool broke = book_.wait(deadline, [&](const std::vector<Observed>&, int state) {
    if (before < 0) before = state;
    return state == PAVO_AVCTRL_PLAYSTATE_ERROR && before != PAVO_AVCTRL_PLAYSTATE_ERROR;
  });
  if (stop_requested()) {
    why = "interrupted";
    return false;
  }
  if (!broke) return true;
  PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
  Pavo_AVCtrl_GetError(handle_, &error);
  why = format("the object went to the error state (error code %d, %s)", error, error_code_name(error));
  return false;
}

namespace {

using plugin::Component;
using plugin::three_letter;

std::string describe(PavoAVComponentType type, unsigned i, const Component& c) {
  const PavoAVCtrlTrackInfo& t = c.track;
  std::string text = format("%s #%u: %s", component_type_name(type), i,
                            t.encoding.empty() ? "(no encoding)" : t.encoding.c_str());
  if (type == PAVO_AV_COMPONENT_TYPE_VIDEO) {
    text += format(", %dx%d", t.video.width, t.video.height);
  } else {
    const std::string& raw = type == PAVO_AV_COMPONENT_TYPE_AUDIO ? t.audio.language : t.subtitle.language;
    text += format(", language %s", c.language.c_str());
    if (raw != c.language) text += format(" (service: \"%s\")", raw.c_str());
  }
  if (type == PAVO_AV_COMPONENT_TYPE_AUDIO) text += format(", %d channels", t.audio.audioChannels);
  if (type == PAVO_AV_COMPONENT_TYPE_SUBTITLE && t.subtitle.hearingImpaired) text += ", hearing impaired";
  if (t.activated) text += ", active";
  return text;
}

// Reads every component of `type`; false with `why` when a call fails.
bool read_all(void* handle, PavoAVComponentType type, std::vector<Component>& out, std::string& why) {
  std::string failed;
  const int result = plugin::read_components(handle, type, out, failed);
  return result == 0 || called(failed.c_str(), result, why);
}

}  // namespace

bool Session::components(const Step& step, std::string& why) {
  const PavoAVComponentType type = parse_component_type(step.args[0]).value_or(PAVO_AV_COMPONENT_TYPE_AUDIO);
  std::vector<Component> list;
  if (!read_all(handle_, type, list, why)) return false;
  std::string languages;
  for (unsigned i = 0; i < list.size(); ++i) {
    timeline_.line("info", describe(type, i, list[i]));
    languages += (i > 0 ? "," : "") + list[i].language;
  }
  if (list.empty()) timeline_.line("info", format("no %s components", component_type_name(type)));
  if (step.args.size() > 1 && step.args[1] != languages) {
    why = format("the languages are \"%s\", expected \"%s\"", languages.c_str(), step.args[1].c_str());
    return false;
  }
  return true;
}

bool Session::select(const Step& step, std::string& why) {
  const PavoAVComponentType type = parse_component_type(step.args[0]).value_or(PAVO_AV_COMPONENT_TYPE_AUDIO);
  const std::string& which = step.args[1];
  std::vector<Component> list;
  if (!read_all(handle_, type, list, why)) return false;
  const Component* chosen = nullptr;
  unsigned position = 0;
  for (unsigned i = 0; i < list.size() && chosen == nullptr; ++i) {
    const bool match = which[0] == '#' ? std::to_string(i) == which.substr(1)
                                       : list[i].language == three_letter(which);
    if (match) {
      chosen = &list[i];
      position = i;
    }
  }
  if (chosen == nullptr) {
    why = format("no %s component %s", component_type_name(type), which.c_str());
    return false;
  }
  timeline_.line("info", format("%s %s", step.verb.c_str(), describe(type, position, *chosen).c_str()));
  action_mark_ = book_.mark();
  if (step.verb == "select") {
    return called("Pavo_AVCtrl_SelectComponent", Pavo_AVCtrl_SelectComponent(handle_, type, chosen->track.index),
                  why);
  }
  return called("Pavo_AVCtrl_UnselectComponent",
                Pavo_AVCtrl_UnselectComponent(handle_, type, chosen->track.index), why);
}

bool Session::subtitles(const Step& step, std::string& why) {
  const bool on = parse_switch(step.args[0]).value_or(false);
  action_mark_ = book_.mark();
  // The platform tells the service whether it shows subtitles at all; the
  // page's object then switches its player's subtitles.
  if (!called("Pavo_Platform_SubtitleEnable", Pavo_Platform_SubtitleEnable(on), why)) return false;
  return called("Pavo_AVCtrl_Component_EnableSubtitle", Pavo_AVCtrl_Component_EnableSubtitle(handle_, on), why);
}

bool Session::ensure_drm_agent(std::string& why) {
  if (drm_agent_ != nullptr) return true;
  void* agent = nullptr;
  if (!called("Pavo_DrmAgent_Create", Pavo_DrmAgent_Create(&agent), why)) return false;
  if (agent == nullptr) {
    why = "Pavo_DrmAgent_Create gave no handle";
    return false;
  }
  drm_agent_ = agent;
  return called("Pavo_DrmAgent_RegisterCallback", Pavo_DrmAgent_RegisterCallback(agent, on_drm_event, &book_),
                why);
}

bool Session::drm(const Step& step, std::string& why) {
  if (!ensure_drm_agent(why)) return false;
  const std::string& system = step.args[1];
  if (step.args[0] == "query") {
    int status = -1;
    if (!called("Pavo_DrmAgent_DRMSystemStatus",
                Pavo_DrmAgent_DRMSystemStatus(drm_agent_, system.c_str(), &status), why)) {
      return false;
    }
    std::string text = format("DRM system \"%s\": status %d (%s)", system.c_str(), status, plugin::drm_status_name(status));
    if (step.args.size() > 2) {
      bool playable = false;
      const std::string& data = step.args[2];
      if (!called("Pavo_DrmAgent_canPlayContent",
                  Pavo_DrmAgent_canPlayContent(drm_agent_, data.c_str(), system.c_str(), &playable), why)) {
        return false;
      }
      text += format(", canPlayContent(\"%s\") %s", data.c_str(), playable ? "yes" : "no");
    }
    timeline_.line("info", text);
    return true;
  }
  // drm message SYSTEM TYPE TEXT...: the result comes as an event, possibly
  // before the send has returned its id.
  const std::string text = step.tail(3);
  char id[65] = {};
  action_mark_ = book_.mark();
  const std::size_t from = action_mark_;
  if (!called("Pavo_DrmAgent_sendDRMMessage",
              Pavo_DrmAgent_sendDRMMessage(drm_agent_, step.args[2].c_str(), text.c_str(), system.c_str(), id,
                                           sizeof id - 1),
              why)) {
    return false;
  }
  const std::string msg_id(id);
  timeline_.line("info", format("DRM message sent, id \"%s\"", msg_id.c_str()));
  const Deadline deadline = std::chrono::steady_clock::now() + settings_.default_timeout;
  const bool answered = book_.wait(deadline, [&](const std::vector<Observed>& events, int) {
    for (std::size_t i = from; i < events.size(); ++i) {
      if (events[i].kind == EventKind::kDrmResult && (msg_id.empty() || events[i].text == msg_id)) return true;
    }
    return false;
  });
  if (answered) return true;
  why = stop_requested() ? "interrupted" : format("no result event for DRM message \"%s\"", msg_id.c_str());
  return false;
}

bool Session::expect_error(const Step& step, std::string& why) {
  const int expected = parse_error_code(step.args[0]).value_or(PAVO_AVCTRL_ERROR_NONE);
  if (!wait_for_states(kErrorBit, deadline_of(step, 1), why)) return false;
  PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
  Pavo_AVCtrl_GetError(handle_, &error);  // -1: none recorded, `error` stays -1
  if (error != expected) {
    why = format("error code %d (%s), expected %d (%s)", error, error_code_name(error), expected,
                 error_code_name(expected));
    return false;
  }
  timeline_.line("ok", format("error code %d (%s)", error, error_code_name(error)));
  return true;
}

bool Session::expect_speed(const Step& step, std::string& why) {
  const double expected = parse_speed(step.args[0]).value_or(1);
  double speed = NAN;
  Pavo_AVCtrl_GetCurrentSpeed(handle_, &speed);
  if (std::fabs(speed - expected) < 1e-9) return true;
  why = format("speed %g, expected %g", speed, expected);
  return false;
}

bool Session::info(const Step&, std::string&) {
  PavoAVCtrlPlayState state = PAVO_AVCTRL_PLAYSTATE_STOPPED;
  double speed = 0, position = -1, duration = -1;
  PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
  Pavo_AVCtrl_GetPlayState(handle_, &state);
  Pavo_AVCtrl_GetCurrentSpeed(handle_, &speed);
  Pavo_AVCtrl_GetPosition(handle_, &position);
  const int has_duration = Pavo_AVCtrl_GetPlayTime(handle_, &duration);
  Pavo_AVCtrl_GetError(handle_, &error);
  timeline_.line("info", format("state %s, speed %g, position %s, duration %s, error %s", state_name(state), speed,
                                clock_text(position).c_str(),
                                has_duration != 0 ? "unknown" : duration > 0 ? clock_text(duration).c_str() : "live",
                                error_code_name(error)));
  return true;
}

// ---- Progress ----------------------------------------------------------------

std::string Session::progress_text(double position_ms) {
  double speed = 0;
  Pavo_AVCtrl_GetCurrentSpeed(handle_, &speed);
  const double duration = duration_ms_.load();
  const std::string total = duration > 0 ? clock_text(duration) : std::string("live");
  return format("%s / %s  x%g  %s", clock_text(position_ms).c_str(), total.c_str(), speed,
                state_name(book_.state()));
}

void Session::progress_loop() {
  // On a terminal the line follows every state; as plain lines, only
  // playback is worth a line.
  const unsigned shown = timeline_.live() ? (1u << PAVO_AVCTRL_PLAYSTATE_PLAYING) |
                                                (1u << PAVO_AVCTRL_PLAYSTATE_PAUSED) |
                                                (1u << PAVO_AVCTRL_PLAYSTATE_BUFFERING)
                                          : (1u << PAVO_AVCTRL_PLAYSTATE_PLAYING);
  auto next = std::chrono::steady_clock::now() + settings_.progress_interval;
  while (!progress_stop_.load()) {
    std::this_thread::sleep_for(Millis(10));
    if (std::chrono::steady_clock::now() < next) continue;
    next += settings_.progress_interval;
    const int state = book_.state();
    if (state < 0 || state > PAVO_AVCTRL_PLAYSTATE_ERROR || (shown & (1u << state)) == 0) continue;
    if (duration_ms_.load() < 0) {
      double duration = -1;
      if (Pavo_AVCtrl_GetPlayTime(handle_, &duration) == 0) duration_ms_.store(duration);
    }
    double position = -1;
    if (Pavo_AVCtrl_GetPosition(handle_, &position) == 0 && position >= 0) {
      timeline_.progress(progress_text(position));
    }
  }
}

}  // namespace pavo::avctl
