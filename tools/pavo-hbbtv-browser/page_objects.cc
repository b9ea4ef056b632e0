#include "pavo-hbbtv-browser/page_objects.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

#include "pavo_avctrl.h"
#include "pavo_drm_agent.h"
#include "frame_preview/frame_preview_name.h"
#include "pavo-hbbtv-browser/base64.h"
#include "plugin_side/components.h"

namespace pavo::hbbtv {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxQueuedItems = 16;
constexpr std::size_t kMaxQueuedEvents = 4096;
constexpr std::size_t kMaxUrl = 4096;
// Most page objects known at once (with or without a player), over all pages.
constexpr std::size_t kMaxObjects = 4096;

// What arrived from a callback, for the loop's thread.
}  // namespace

struct PageObjects::Queued {
  bool drm = false;
  uint64_t serial = 0;
  plugin::AvEvent av;
  plugin::DrmEvent drm_event;
};

struct PageObjects::AvObject {
  uint64_t serial = 0;
  int context = 0;
  int id = 0;
  void* handle = nullptr;
  int generation = 0;      // the page's item generation last named in a call
  bool accepting = false;  // an item is loaded: its events go to the page
  bool started = false;    // the item has gone beyond connecting
  int state = PAVO_AVCTRL_PLAYSTATE_STOPPED;
  double speed = 0;
  double position = 0;
  double duration = 0;
  int error = PAVO_AVCTRL_ERROR_NONE;
  bool components_read = false;
  Json::Value components{Json::arrayValue};
  std::optional<double> pending_seek;
  std::deque<std::string> queue;
  std::string url;               // of the item presented
  std::string preferred_audio;   // the configuration's languages ("eng,ger"), for the item's start
  struct timespec frame_time{};  // of the frame last painted
};

struct PageObjects::DrmObject {
  uint64_t serial = 0;
  int context = 0;
  int id = 0;
  void* agent = nullptr;
};

namespace {

void on_av_callback(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* user_data);
void on_drm_callback(PavoDrmEvent event, const PavoDrmEventInfo* info, const void* user_data);

// The callbacks reach the one PageObjects of the process; user data carries
// the object's serial number, never a pointer that could dangle.
std::atomic<PageObjects*> g_objects{nullptr};

void on_av_callback(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* user_data) {
  PageObjects* objects = g_objects.load();
  if (objects == nullptr) return;
  objects->queue_av_event(reinterpret_cast<uintptr_t>(user_data), plugin::av_event_of(event, info));
}

void on_drm_callback(PavoDrmEvent event, const PavoDrmEventInfo* info, const void* user_data) {
  PageObjects* objects = g_objects.load();
  if (objects == nullptr) return;
  objects->queue_drm_event(reinterpret_cast<uintptr_t>(user_data), plugin::drm_event_of(event, info));
}

const void* serial_data(uint64_t serial) { return reinterpret_cast<const void*>(static_cast<uintptr_t>(serial)); }

// Argument readers: the page's values are hostile, every one is checked.
std::optional<double> number_arg(const Json::Value& args, Json::ArrayIndex i) {
  if (args.size() <= i || !args[i].isNumeric()) return std::nullopt;
  const double v = args[i].asDouble();
  if (!std::isfinite(v)) return std::nullopt;
  return v;
}

std::optional<std::string> text_arg(const Json::Value& args, Json::ArrayIndex i, std::size_t limit) {
  if (args.size() <= i || !args[i].isString()) return std::nullopt;
  std::string text = args[i].asString();
  if (text.size() > limit || text.find('\0') != std::string::npos) return std::nullopt;
  return text;
}

std::string short_text(const std::string& text) {
  return text.size() <= 80 ? text : text.substr(0, 77) + "...";
}

}  // namespace

PageObjects::PageObjects(plugin::Timeline& timeline, Deliver deliver, std::string frames)
    : timeline_(timeline), deliver_(std::move(deliver)), frames_(std::move(frames)), queue_(std::make_unique<std::deque<Queued>>()) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
    wake_read_ = fds[0];
    wake_write_ = fds[1];
  }
  g_objects.store(this);
}

PageObjects::~PageObjects() {
  close_all();
  g_objects.store(nullptr);
  if (wake_read_ >= 0) ::close(wake_read_);
  if (wake_write_ >= 0) ::close(wake_write_);
}

// ---- Callbacks: queue and wake ---------------------------------------------

void PageObjects::queue_av_event(uint64_t serial, const plugin::AvEvent& event) {
  try {
    Queued q;
    q.serial = serial;
    q.av = event;
    enqueue(std::move(q));
  } catch (...) {
    // Out of memory: the event is lost, the library's thread goes on.
  }
}

void PageObjects::queue_drm_event(uint64_t serial, plugin::DrmEvent event) {
  try {
    Queued q;
    q.drm = true;
    q.serial = serial;
    q.drm_event = std::move(event);
    enqueue(std::move(q));
  } catch (...) {
  }
}

// Queues `q` for the message loop and wakes it (one byte per batch). A page
// that floods keeps its oldest events. Throws std::bad_alloc only.
void PageObjects::enqueue(Queued q) {
  std::lock_guard<std::mutex> lock(queue_mutex_);
  if (queue_->size() >= kMaxQueuedEvents) return;
  queue_->push_back(std::move(q));
  if (!wake_pending_ && wake_write_ >= 0) {
    wake_pending_ = true;
    const char byte = 1;
    (void)!::write(wake_write_, &byte, 1);
  }
}

void PageObjects::deliver() {
  std::deque<Queued> batch;
  {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    batch.swap(*queue_);
    wake_pending_ = false;
    char drain[64];
    while (::read(wake_read_, drain, sizeof drain) > 0) {
    }
  }
  for (const Queued& q : batch) {
    if (q.drm) {
      on_drm_event(q.serial, q.drm_event);
      continue;
    }
    auto it = av_by_serial_.find(q.serial);
    if (it != av_by_serial_.end()) on_av_event(*it->second, q.av);
  }
  flush();
}

// ---- Output to the pages ----------------------------------------------------

void PageObjects::send(int context, Json::Value message) {
  Json::Value& list = outbox_[context];
  if (list.isNull()) list = Json::Value(Json::arrayValue);
  list.append(std::move(message));
}

void PageObjects::flush() {
  if (outbox_.empty()) return;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  auto outbox = std::move(outbox_);
  outbox_.clear();
  for (auto& [context, list] : outbox) deliver_(context, Json::writeString(writer, list));
}

void PageObjects::note(const char* tag, const std::string& text) {
  // A page that calls thousands of times a second gets a summary line, not
  // thousands of lines (objects made and destroyed are always shown).
  const auto now = Clock::now();
  if (now - note_second_ >= std::chrono::seconds(1)) {
    if (notes_skipped_ > 0) {
      timeline_.line("info", std::to_string(notes_skipped_) + " more calls and events not shown");
    }
    note_second_ = now;
    notes_this_second_ = 0;
    notes_skipped_ = 0;
  }
  if (++notes_this_second_ <= 100) timeline_.line(tag, text);
  else ++notes_skipped_;
}

bool PageObjects::admit(int context) {
  Budget& b = budgets_[context];
  const auto now = Clock::now();
  if (now - b.second >= std::chrono::seconds(1)) {
    if (b.dropped > 0) {
      timeline_.line("warn", "page dropped " + std::to_string(b.dropped) + " calls beyond " +
                                 std::to_string(kMaxCallsPerSecond) + " a second or " +
                                 std::to_string(kMaxBusyPerSecond.count()) + " ms of work a second");
    }
    b.second = now;
    b.busy = {};
    b.calls = 0;
    b.dropped = 0;
  }
  ++b.calls;
  if (b.calls <= kAlwaysAdmitted || (b.calls <= kMaxCallsPerSecond && b.busy < kMaxBusyPerSecond)) return true;
  ++b.dropped;
  return false;
}

// ---- Calls from the pages ---------------------------------------------------

void PageObjects::handle_call(int context, const std::string& payload) {
  try {
    if (payload.size() > kMaxCallBytes || gone_contexts_.count(context) != 0 || !admit(context)) return;
    const auto started = Clock::now();
    struct Account {
      Budget& budget;
      Clock::time_point started;
      ~Account() { budget.busy += Clock::now() - started; }
    } account{budgets_[context], started};
    Json::Value call;
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 20;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(payload.data(), payload.data() + payload.size(), &call, &errors) || !call.isObject() ||
        !call["k"].isString() || !call["m"].isString() || !call["o"].isInt() || !call["g"].isInt() ||
        !call["a"].isArray() || call["a"].size() > 8) {
      note("call", "malformed call from the page ignored");
      return;
    }
    const std::string kind = call["k"].asString();
    const std::string method = call["m"].asString();
    const int id = call["o"].asInt();
    if (method.size() > 32 || id < 0) return;
    if (kind == "av") av_call(context, id, call["g"].asInt(), method, call["a"]);
    else if (kind == "drm") drm_call(context, id, method, call["a"]);
    else if (kind == "terminal" && method == "subtitles" && call["a"].size() == 1 && call["a"][0].isBool()) {
      const bool on = call["a"][0].asBool();
      note("call", std::string("configuration.subtitlesEnabled = ") + (on ? "true" : "false") +
                " -> Pavo_Platform_SubtitleEnable " + std::to_string(Pavo_Platform_SubtitleEnable(on)));
    }
    // The posts that the call made on this thread go out with its answers.
    deliver();
  } catch (const std::exception& e) {
    timeline_.line("warn", std::string("page call dropped: ") + e.what());
  }
}

PageObjects::AvObject* PageObjects::av_object(int context, int id, bool make) {
  auto it = av_.find({context, id});
  if (it != av_.end()) return it->second.get();
  if (!make || av_.size() >= kMaxObjects) return nullptr;
  auto owned = std::make_unique<AvObject>();
  AvObject* object = owned.get();
  object->serial = next_serial_++;
  object->context = context;
  object->id = id;
  av_[{context, id}] = std::move(owned);
  av_by_serial_[object->serial] = object;
  return object;
}

bool PageObjects::ensure_player(AvObject& object) {
  if (object.handle != nullptr) return true;
  std::size_t players = 0;
  for (const auto& [key, other] : av_) {
    if (key.first == object.context && other->handle != nullptr) ++players;
  }
  const std::string name = "av" + std::to_string(object.id);
  if (players >= kMaxPlayersPerPage) {
    timeline_.line("warn", name + ": the page holds " + std::to_string(players) +
                               " players already: insufficient resources");
    object.state = PAVO_AVCTRL_PLAYSTATE_ERROR;
    object.error = 3;
    Json::Value m;
    m["o"] = object.id;
    m["g"] = object.generation;
    m["e"] = "state";
    m["s"] = snapshot(object, false);
    send(object.context, std::move(m));
    return false;
  }
  void* handle = nullptr;
  const int made = Pavo_AVCtrl_Create(nullptr, &handle);
  timeline_.line("call", name + ": Pavo_AVCtrl_Create " + std::to_string(made));
  if (made != 0 || handle == nullptr) return false;
  Pavo_AVCtrl_RegisterCallback(handle, on_av_callback, serial_data(object.serial));
  object.handle = handle;
  return true;
}

void PageObjects::destroy_player(AvObject& object) {
  if (object.handle == nullptr) return;
  // Unregistering first waits for posts in flight, so no callback of the
  // object runs after this; the queue may still hold its events, which
  // `accepting` drops.
  Pavo_AVCtrl_UnregisterCallback(object.handle);
  const int result = Pavo_AVCtrl_Destroy(object.handle);
  timeline_.line("call", "av" + std::to_string(object.id) + ": Pavo_AVCtrl_Destroy " + std::to_string(result));
  object.handle = nullptr;
  object.accepting = false;
  object.state = PAVO_AVCTRL_PLAYSTATE_STOPPED;
  object.components_read = false;
  object.queue.clear();
}

void PageObjects::av_call(int context, int id, int generation, const std::string& method, const Json::Value& args) {
  AvObject* object = av_object(context, id, method != "release");
  if (object == nullptr) return;
  object->generation = generation;
  const std::string name = "av" + std::to_string(id);
  auto result = [&](const char* function, int r) { return std::string(function) + " " + std::to_string(r); };

  if (method == "release") {
    if (object->handle != nullptr) note("call", name + ".release()");
    destroy_player(*object);
    return;
  }
  if (method == "stop") {
    object->accepting = false;
    object->pending_seek.reset();
    object->state = PAVO_AVCTRL_PLAYSTATE_STOPPED;
    object->components_read = false;
    if (object->handle == nullptr) return;
    note("call", name + ".stop() -> " + result("Pavo_AVCtrl_Stop", Pavo_AVCtrl_Stop(object->handle)));
    return;
  }
  if (method == "play") {
    const std::optional<double> speed = number_arg(args, 0);
    if (!speed) return;
    if (!ensure_player(*object)) return;
    std::string text = name + ".play(" + std::to_string(*speed).substr(0, 6) + ") ->";
    if (args.size() >= 2) {
      // From an idle state: the object's data becomes the new item.
      const std::optional<std::string> url = text_arg(args, 1, kMaxUrl);
      if (!url || url->empty()) return;
      object->accepting = true;
      object->started = false;
      object->components_read = false;
      object->components = Json::Value(Json::arrayValue);
      object->error = PAVO_AVCTRL_ERROR_NONE;
      object->duration = 0;
      object->position = 0;
      object->pending_seek.reset();
      if (const std::optional<double> seek = number_arg(args, 2)) object->pending_seek = std::max(0.0, *seek);
      object->url = *url;
      object->frame_time = {};
      object->preferred_audio = text_arg(args, 4, 64).value_or(std::string());
      text = name + ".play(" + std::to_string(*speed).substr(0, 6) + ") of " + short_text(*url) + " ->";
      if (args.size() >= 4 && args[3].isObject() && args[3]["loop"].isString()) {
        const std::string loop = args[3]["loop"].asString();
        const int count = loop == "true" || loop == "infinite" ? -1 : std::atoi(loop.c_str());
        if (count != 0) text += " " + result("Pavo_AVCtrl_SetLoop", Pavo_AVCtrl_SetLoop(object->handle, count)) + ",";
      }
      text += " " + result("Pavo_AVCtrl_Load", Pavo_AVCtrl_Load(object->handle, url->c_str())) + ",";
    }
    if (*speed == 0) text += " " + result("Pavo_AVCtrl_Pause", Pavo_AVCtrl_Pause(object->handle));
    else text += " " + result("Pavo_AVCtrl_Play", Pavo_AVCtrl_Play(object->handle, *speed));
    note("call", text);
    return;
  }
  if (object->handle == nullptr) {
    // Nothing presented: settings are kept by the page side and sent with
    // the next play(); the rest has nothing to act on.
    if (method == "queue") {
      const std::optional<std::string> url = text_arg(args, 0, kMaxUrl);
      if (url && object->queue.size() < kMaxQueuedItems) object->queue.push_back(*url);
    }
    return;
  }
  if (method == "seek") {
    const std::optional<double> ms = number_arg(args, 0);
    if (!ms) return;
    const double target = std::max(0.0, *ms);  // a negative seek goes to the start
    if (object->state == PAVO_AVCTRL_PLAYSTATE_CONNECTING || object->state == PAVO_AVCTRL_PLAYSTATE_STOPPED) {
      object->pending_seek = target;  // applied when playback has begun
      note("call", name + ".seek(" + std::to_string(static_cast<long long>(target)) + ") held until playback");
      return;
    }
    note("call", name + ".seek(" + std::to_string(static_cast<long long>(target)) + ") -> " +
              result("Pavo_AVCtrl_Seek", Pavo_AVCtrl_Seek(object->handle, target)));
  } else if (method == "fullscreen") {
    if (args.size() != 1 || !args[0].isBool()) return;
    const bool full = args[0].asBool();
    note("call", name + ".setFullScreen(" + (full ? "true" : "false") + ") -> " +
              result("Pavo_AVCtrl_SetFullScreen", Pavo_AVCtrl_SetFullScreen(object->handle, full)));
  } else if (method == "window") {
    PavoRect rect{};
    int32_t* members[] = {&rect.x, &rect.y, &rect.w, &rect.h};
    for (Json::ArrayIndex i = 0; i < 4; ++i) {
      const std::optional<double> v = number_arg(args, i);
      if (!v || std::fabs(*v) > 100000) return;
      *members[i] = static_cast<int32_t>(*v);
    }
    char text[128];
    std::snprintf(text, sizeof text, "%s window %d,%d %dx%d -> ", name.c_str(), rect.x, rect.y, rect.w, rect.h);
    note("call", text + result("Pavo_AVCtrl_UpdateWindow", Pavo_AVCtrl_UpdateWindow(object->handle, &rect)));
  } else if (method == "queue") {
    if (args.size() == 1 && args[0].isNull()) {
      object->queue.clear();
      note("call", name + ".queue(null)");
      return;
    }
    const std::optional<std::string> url = text_arg(args, 0, kMaxUrl);
    if (!url || object->queue.size() >= kMaxQueuedItems) return;
    object->queue.push_back(*url);
    note("call", name + ".queue(" + short_text(*url) + ")");
  } else if (method == "select" || method == "unselect") {
    const std::optional<double> type = number_arg(args, 0);
    const std::optional<double> index = number_arg(args, 1);
    if (!type || !index || *type < 0 || *type > 2 || *index < -1 || *index > PAVO_AVCTRL_MAX_COMPONENTS) return;
    const auto t = static_cast<PavoAVComponentType>(static_cast<int>(*type));
    if (*index < 0) {
      select_default(*object, t, method == "select");
      return;
    }
    const int i = static_cast<int>(*index);
    const int r = method == "select" ? Pavo_AVCtrl_SelectComponent(object->handle, t, i)
                                     : Pavo_AVCtrl_UnselectComponent(object->handle, t, i);
    note("call", name + "." + method + "Component(" + plugin::component_type_text(t) + " #" + std::to_string(i) +
              ") -> " + std::to_string(r));
  }
}

// By type: selecting goes back to the terminal's default choice (the first
// component of the type), unselecting unselects every active one.
void PageObjects::select_default(AvObject& object, int type, bool select) {
  std::vector<plugin::Component> list;
  std::string failed;
  const auto t = static_cast<PavoAVComponentType>(type);
  if (plugin::read_components(object.handle, t, list, failed) != 0) return;
  const std::string name = "av" + std::to_string(object.id);
  for (const plugin::Component& c : list) {
    if (select) {
      note("call", name + ".selectComponent(" + plugin::component_type_text(t) + ") -> default #" +
                std::to_string(c.track.index) + " " +
                std::to_string(Pavo_AVCtrl_SelectComponent(object.handle, t, c.track.index)));
      return;
    }
    if (!c.track.activated) continue;
    note("call", name + ".unselectComponent(" + plugin::component_type_text(t) + ") -> #" +
              std::to_string(c.track.index) + " " +
              std::to_string(Pavo_AVCtrl_UnselectComponent(object.handle, t, c.track.index)));
  }
}

// ---- Events of the library --------------------------------------------------

// At an item's start: the audio component of the configuration's first
// preferred language that the item has, when another one is active.
void PageObjects::prefer_audio(AvObject& object) {
  const Json::Value& audio = object.components[1];
  std::size_t start = 0;
  const std::string& list = object.preferred_audio;
  while (start < list.size()) {
    const std::size_t comma = std::min(list.find(',', start), list.size());
    const std::string wanted = plugin::three_letter(list.substr(start, comma - start));
    start = comma + 1;
    for (const Json::Value& c : audio) {
      if (c["lang"].asString() != wanted) continue;
      if (c["active"].asBool()) return;
      const int index = c["i"].asInt();
      note("call", "av" + std::to_string(object.id) + ": preferred audio language " + wanted +
                       " -> Pavo_AVCtrl_SelectComponent " +
                       std::to_string(Pavo_AVCtrl_SelectComponent(object.handle, PAVO_AV_COMPONENT_TYPE_AUDIO, index)));
      return;
    }
  }
}

void PageObjects::read_components(AvObject& object) {
  Json::Value all(Json::arrayValue);
  for (int type = 0; type < 3; ++type) {
    std::vector<plugin::Component> list;
    std::string failed;
    plugin::read_components(object.handle, static_cast<PavoAVComponentType>(type), list, failed);
    Json::Value out(Json::arrayValue);
    for (const plugin::Component& c : list) {
      const PavoAVCtrlTrackInfo& t = c.track;
      Json::Value j;
      j["i"] = t.index;
      j["tag"] = t.componentTag;
      j["pid"] = t.pid;
      j["enc"] = t.encoding;
      j["encrypted"] = t.encrypted;
      j["lang"] = c.language;
      j["ad"] = type == 1 && t.audio.audioDescription != 0;
      j["ch"] = type == 1 ? t.audio.audioChannels : 0;
      j["hi"] = type == 2 && t.subtitle.hearingImpaired;
      j["label"] = type == 2 ? t.subtitle.label : std::string();
      j["w"] = t.video.width;
      j["h"] = t.video.height;
      j["active"] = t.activated;
      out.append(std::move(j));
    }
    all.append(std::move(out));
  }
  object.components = std::move(all);
  object.components_read = true;
}

Json::Value PageObjects::snapshot(AvObject& object, bool with_components) {
  Json::Value s;
  s["ps"] = object.state;
  s["pos"] = std::floor(object.position);
  s["dur"] = std::floor(object.duration);
  s["sp"] = object.speed;
  s["err"] = object.error;
  if (with_components) s["comps"] = object.components;
  return s;
}

void PageObjects::on_av_event(AvObject& object, const plugin::AvEvent& event) {
  const std::string name = "av" + std::to_string(object.id);
  if (!object.accepting || object.handle == nullptr) return;  // an item the page ended
  Json::Value m;
  m["o"] = object.id;
  m["g"] = object.generation;
  bool with_components = false;
  switch (event.event) {
    case PAVO_AVCTRL_EVENT_PLAYSTATECHANGE: {
      // The service's report of the stop that ended the page's previous
      // item may come after the next item's load: a stop before the new
      // item got going is that report (the page's own stops end the item
      // on the page's side at once).
      if (event.int_value == PAVO_AVCTRL_PLAYSTATE_STOPPED && !object.started) return;
      if (event.int_value != PAVO_AVCTRL_PLAYSTATE_CONNECTING) object.started = true;
      object.state = event.int_value;
      m["e"] = "state";
      if (object.state == PAVO_AVCTRL_PLAYSTATE_ERROR) {
        PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
        if (Pavo_AVCtrl_GetError(object.handle, &error) == 0) object.error = error;
      }
      if (object.state == PAVO_AVCTRL_PLAYSTATE_PLAYING || object.state == PAVO_AVCTRL_PLAYSTATE_PAUSED) {
        double duration = 0;
        if (Pavo_AVCtrl_GetPlayTime(object.handle, &duration) == 0) object.duration = duration;
        Pavo_AVCtrl_GetPosition(object.handle, &object.position);
        Pavo_AVCtrl_GetCurrentSpeed(object.handle, &object.speed);
        if (!object.components_read) {
          read_components(object);
          with_components = true;
          prefer_audio(object);
        }
      }
      if (object.state == PAVO_AVCTRL_PLAYSTATE_PAUSED) object.speed = 0;
      if (object.state == PAVO_AVCTRL_PLAYSTATE_FINISHED) object.position = object.duration;
      break;
    }
    case PAVO_AVCTRL_EVENT_SPEEDCHANGE:
      object.speed = event.double_value;
      m["e"] = "speed";
      break;
    case PAVO_AVCTRL_EVENT_POSITIONCHANGE:
      object.position = event.double_value;
      m["e"] = "position";
      break;
    case PAVO_AVCTRL_EVENT_COMPONENTCHANGE:
      read_components(object);
      with_components = true;
      m["e"] = "component";
      m["v"] = event.int_value;
      break;
    default:
      return;  // media and DRM errors: shown above, the state change tells the page
  }
  m["s"] = snapshot(object, with_components);
  send(object.context, std::move(m));
  note("event", name + ": " + plugin::describe(event));

  // What the plug-in does on its own after a state change.
  if (event.event != PAVO_AVCTRL_EVENT_PLAYSTATECHANGE) return;
  if (object.pending_seek &&
      (object.state == PAVO_AVCTRL_PLAYSTATE_PLAYING || object.state == PAVO_AVCTRL_PLAYSTATE_PAUSED)) {
    const double target = *object.pending_seek;
    object.pending_seek.reset();
    note("call", name + ": held seek(" + std::to_string(static_cast<long long>(target)) + ") -> Pavo_AVCtrl_Seek " +
              std::to_string(Pavo_AVCtrl_Seek(object.handle, target)));
  }
  if (object.state == PAVO_AVCTRL_PLAYSTATE_FINISHED && !object.queue.empty()) {
    const std::string next = object.queue.front();
    object.queue.pop_front();
    object.started = false;
    object.url = next;
    object.components_read = false;
    object.duration = 0;
    object.position = 0;
    const int loaded = Pavo_AVCtrl_Load(object.handle, next.c_str());
    note("call", name + ": queued item " + short_text(next) + " -> Pavo_AVCtrl_Load " + std::to_string(loaded) +
              ", Pavo_AVCtrl_Play " + std::to_string(Pavo_AVCtrl_Play(object.handle, 1.0)));
  }
}

// The service's newest frame of the object's item, painted into its box by
// the page side when it changed since the last one.
void PageObjects::offer_frame(AvObject& object) {
  const std::string path = frames_ + "/" + frame_preview::file_name(object.url);
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || info.st_size <= 2 || info.st_size > (4 << 20)) return;
  if (info.st_mtim.tv_sec == object.frame_time.tv_sec && info.st_mtim.tv_nsec == object.frame_time.tv_nsec) return;
  std::ifstream file(path, std::ios::binary);
  std::string jpeg((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (jpeg.size() < 2 || static_cast<unsigned char>(jpeg[0]) != 0xff || static_cast<unsigned char>(jpeg[1]) != 0xd8) {
    return;
  }
  object.frame_time = info.st_mtim;
  Json::Value m;
  m["o"] = object.id;
  m["g"] = object.generation;
  m["e"] = "frame";
  m["src"] = "data:image/jpeg;base64," + encode_base64(jpeg);
  send(object.context, std::move(m));
}

void PageObjects::tick() {
  for (auto& [key, object] : av_) {
    if (!frames_.empty() && object->handle != nullptr && object->accepting && object->started &&
        object->state != PAVO_AVCTRL_PLAYSTATE_ERROR) {
      offer_frame(*object);
    }
    if (object->handle == nullptr || !object->accepting || object->state != PAVO_AVCTRL_PLAYSTATE_PLAYING) continue;
    double position = 0;
    if (Pavo_AVCtrl_GetPosition(object->handle, &position) != 0) continue;
    object->position = position;
    Json::Value m;
    m["o"] = object->id;
    m["g"] = object->generation;
    m["s"] = snapshot(*object, false);
    send(object->context, std::move(m));
  }
  flush();
}

// ---- DRM agents ---------------------------------------------------------------

void PageObjects::drm_call(int context, int id, const std::string& method, const Json::Value& args) {
  auto it = drm_.find({context, id});
  DrmObject* object = it != drm_.end() ? it->second.get() : nullptr;
  const std::string name = "drm" + std::to_string(id);
  if (object == nullptr) {
    if (drm_.size() >= 64) return;
    void* agent = nullptr;
    const int made = Pavo_DrmAgent_Create(&agent);
    timeline_.line("call", name + ": Pavo_DrmAgent_Create " + std::to_string(made));
    if (made != 0 || agent == nullptr) return;
    auto owned = std::make_unique<DrmObject>();
    object = owned.get();
    object->serial = next_serial_++;
    object->context = context;
    object->id = id;
    object->agent = agent;
    drm_[{context, id}] = std::move(owned);
    drm_by_serial_[object->serial] = object;
    Pavo_DrmAgent_RegisterCallback(agent, on_drm_callback, serial_data(object->serial));
  }
  Json::Value answer;
  answer["o"] = id;
  answer["g"] = 0;
  if (method == "send") {
    const auto page_id = text_arg(args, 0, 64);
    const auto type = text_arg(args, 1, 256);
    const auto msg = text_arg(args, 2, 8192);
    const auto system = text_arg(args, 3, 256);
    if (!page_id || !type || !msg || !system) return;
    char msg_id[65] = {};
    const int r = Pavo_DrmAgent_sendDRMMessage(object->agent, type->c_str(), msg->c_str(), system->c_str(), msg_id,
                                               sizeof msg_id - 1);
    note("call", name + ".sendDRMMessage(" + short_text(*type) + ", " + short_text(*system) + ") -> " + *page_id +
              ", Pavo_DrmAgent_sendDRMMessage " + std::to_string(r) + " (id \"" + msg_id + "\")");
    if (r == 0) {
      drm_messages_[msg_id] = {object->serial, *page_id};
      if (drm_messages_.size() > 256) drm_messages_.erase(drm_messages_.begin());
    } else {
      answer["e"] = "result";
      answer["id"] = *page_id;
      answer["msg"] = "";
      answer["code"] = 2;  // cannot process the request
      send(context, std::move(answer));
    }
    return;
  }
  const auto first = text_arg(args, 0, 4096);
  if (!first) return;
  if (method == "status") {
    int status = 1;
    const int r = Pavo_DrmAgent_DRMSystemStatus(object->agent, first->c_str(), &status);
    if (r != 0) status = 1;
    note("call", name + ".DRMSystemStatus(" + short_text(*first) + ") -> " + std::to_string(status) + " (" +
              plugin::drm_status_name(status) + ")");
    answer["e"] = "answer";
    answer["key"] = "status|" + *first;
    answer["v"] = status;
    send(context, std::move(answer));
  } else if (method == "play" || method == "record") {
    const auto system = text_arg(args, 1, 256);
    if (!system) return;
    bool allowed = false;
    const int r = method == "play"
                      ? Pavo_DrmAgent_canPlayContent(object->agent, first->c_str(), system->c_str(), &allowed)
                      : Pavo_DrmAgent_canRecordContent(object->agent, first->c_str(), system->c_str(), &allowed);
    note("call", name + ".can" + (method == "play" ? "Play" : "Record") + "Content(" + short_text(*system) + ") -> " +
              (r == 0 && allowed ? "true" : "false"));
    answer["e"] = "answer";
    answer["key"] = method + "|" + *first + "|" + *system;
    answer["v"] = r == 0 && allowed;
    send(context, std::move(answer));
  } else if (method == "active") {
    note("call", name + ".setActiveDRM(" + short_text(*first) + ")");
  }
}

void PageObjects::on_drm_event(uint64_t serial, const plugin::DrmEvent& event) {
  note("event", "drm: " + plugin::describe(event));
  uint64_t target = serial;
  Json::Value m;
  if (event.event == PAVO_DRM_EVENT_MESSAGE_RESULT) {
    auto it = drm_messages_.find(event.msg_id);
    if (it == drm_messages_.end()) return;
    target = it->second.first;
    m["e"] = "result";
    m["id"] = it->second.second;
    m["msg"] = event.message;
    m["code"] = event.result_code;
    drm_messages_.erase(it);
  } else if (event.event == PAVO_DRM_EVENT_SYSTEM_MESSAGE) {
    m["e"] = "system";
    m["msg"] = event.message;
    m["sys"] = event.system;
  } else if (event.event == PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE) {
    m["e"] = "status";
    m["sys"] = event.system;
  } else {
    return;
  }
  auto it = drm_by_serial_.find(target);
  if (it == drm_by_serial_.end()) return;
  m["o"] = it->second->id;
  m["g"] = 0;
  send(it->second->context, std::move(m));
}

// ---- Ends ---------------------------------------------------------------------

void PageObjects::context_gone(int context) {
  for (auto it = av_.begin(); it != av_.end();) {
    if (it->first.first != context) {
      ++it;
      continue;
    }
    destroy_player(*it->second);
    av_by_serial_.erase(it->second->serial);
    it = av_.erase(it);
  }
  for (auto it = drm_.begin(); it != drm_.end();) {
    if (it->first.first != context) {
      ++it;
      continue;
    }
    Pavo_DrmAgent_UnregisterCallback(it->second->agent);
    timeline_.line("call", "drm" + std::to_string(it->second->id) + ": Pavo_DrmAgent_Destroy " +
              std::to_string(Pavo_DrmAgent_Destroy(it->second->agent)));
    drm_by_serial_.erase(it->second->serial);
    it = drm_.erase(it);
  }
  outbox_.erase(context);
  budgets_.erase(context);
  gone_contexts_.insert(context);
  if (gone_contexts_.size() > 4096) gone_contexts_.erase(gone_contexts_.begin());
}

void PageObjects::close_all() {
  std::vector<int> contexts;
  for (const auto& [key, object] : av_) contexts.push_back(key.first);
  for (const auto& [key, object] : drm_) contexts.push_back(key.first);
  for (int context : contexts) context_gone(context);
}

std::size_t PageObjects::live_objects() const {
  std::size_t n = 0;
  for (const auto& [key, object] : av_) n += object->handle != nullptr ? 1 : 0;
  return n;
}

}  // namespace pavo::hbbtv
