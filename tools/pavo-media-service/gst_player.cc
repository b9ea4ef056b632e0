// The GStreamer engine: one playbin3 pipeline per player.
//
// Mapping between the protocol and the pipeline:
//   load       the URL (or a file name, made a file URI) is set on the
//              pipeline, which goes to PAUSED: state connecting; the stream
//              collection (the demuxer has read the headers) turns it into
//              buffering; async-done (pre-rolled) ends the load: paused, or
//              PLAYING asked for and playing reported when the pipeline has
//              reached it. A load plays unless a pause came first.
//   buffering  messages below 100 % pause a playing pipeline (state
//              buffering) until 100 %.
//   seek       a flushing, accurate seek (state seeking); its async-done
//              gives the seek-completed event with the position reached.
//              Seeks that come while one is under way wait for it.
//   rate       a flushing seek at the new rate from the current position;
//              backwards from 0 to it. A seek the pipeline refuses fails the
//              request; 0 pauses.
//   position   and duration from queries; the seek target while seeking.
//   EOS        finished, or a new pass while loops are left.
//   errors     an error event with the protocol's number (resource errors:
//              network; stream type and demux errors: format; codec, decode
//              and library errors: decoder; decryption: encrypted), then
//              the error state, and the pipeline is shut.
//   tracks     the stream collection: kind, caps name as encoding, the
//              language tag as the container gives it, channels, size;
//              selection through select-streams, with the track-change
//              event once the pipeline reports the streams selected.
//
// The bus is polled from advance() every kPollInterval while the pipeline
// runs: every call of the engine, bus handling included, runs under the
// service's lock, so no GStreamer thread ever waits for that lock (a bus
// handler on a streaming thread could, while a flushing seek under the
// lock waits for that thread).
//
// Nothing that can wait on a streaming thread runs under that lock either:
// state changes, seeks, queries and events go to the player's pipeline
// thread (PipelineThread), and the engine waits for their result a bounded
// time only. A flushing seek can deadlock inside GStreamer (the seek holds
// the sink bin's lock while its flush waits for a streaming thread that
// waits for that lock in a pad probe); a caller stuck there would hold the
// service's lock for good, and the service would not even stop. A seek that
// does not end in time is given up: when the pipeline thread is stuck in
// it, the pipeline is left to itself and a new one seeks to the target.
#include <gst/gst.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pavo-media-service/console.h"
#include "pavo-media-service/gst_engine.h"
#include "pavo-media-service/protocol.h"

namespace pavo::service {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(10);
// How long the engine waits for the pipeline thread's answer before it goes
// on without it (state changes and seeks: taken as under way; queries: the
// last value known).
constexpr auto kCallWait = std::chrono::milliseconds(500);
constexpr auto kQueryWait = std::chrono::milliseconds(200);
// How long a position is carried on without an answer from the pipeline.
constexpr double kCarryLimit = 5.0;  // seconds
// A seek or rate change without its async-done after this is given up.
constexpr auto kSeekLimit = std::chrono::seconds(5);
// How long closing a pipeline may take before it is left to its thread.
constexpr auto kShutWait = std::chrono::seconds(2);
constexpr double kMaxSpeed = 64.0;

bool valid_kind(int kind) { return kind >= kVideoTrack && kind <= kSubtitleTrack; }

// Owners of GStreamer references.
struct GstObjectUnref {
  void operator()(gpointer object) const { gst_object_unref(object); }
};
struct GstMessageUnref {
  void operator()(GstMessage* message) const { gst_message_unref(message); }
};
struct GstCapsUnref {
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
struct GstTagListUnref {
  void operator()(GstTagList* tags) const { gst_tag_list_unref(tags); }
};
struct GFreeDeleter {
  void operator()(gpointer p) const { g_free(p); }
};
using MessagePtr = std::unique_ptr<GstMessage, GstMessageUnref>;
using CollectionPtr = std::unique_ptr<GstStreamCollection, GstObjectUnref>;
using GCharPtr = std::unique_ptr<gchar, GFreeDeleter>;

// The protocol's error number for a pipeline error.
int media_error(const GError* error) {
  if (error->domain == GST_RESOURCE_ERROR) return kNetworkError;
  if (error->domain == GST_STREAM_ERROR) {
    switch (error->code) {
      case GST_STREAM_ERROR_CODEC_NOT_FOUND:
      case GST_STREAM_ERROR_DECODE:
        return kDecoderError;
      case GST_STREAM_ERROR_DECRYPT:
      case GST_STREAM_ERROR_DECRYPT_NOKEY:
        return kEncryptedError;
      default:  // type not found, wrong type, demux, format, failed
        return kFormatError;
    }
  }
  if (error->domain == GST_LIBRARY_ERROR) return kDecoderError;
  if (error->domain == GST_CORE_ERROR && error->code == GST_CORE_ERROR_MISSING_PLUGIN) {
    return kDecoderError;
  }
  return kFormatError;
}

int kind_of(GstStreamType type) {
  if (type & GST_STREAM_TYPE_VIDEO) return kVideoTrack;
  if (type & GST_STREAM_TYPE_AUDIO) return kAudioTrack;
  if (type & GST_STREAM_TYPE_TEXT) return kSubtitleTrack;
  return kOtherTrack;
}

// One track record from a stream of the collection.
Track describe_stream(GstStream* stream, int kind, int number) {
  Track t;
  t.kind = kind;
  t.track_id = number;
  const std::unique_ptr<GstCaps, GstCapsUnref> caps(gst_stream_get_caps(stream));
  if (caps && gst_caps_get_size(caps.get()) > 0) {
    const GstStructure* s = gst_caps_get_structure(caps.get(), 0);
    t.encoding = gst_structure_get_name(s);
    t.encrypted = t.encoding == "application/x-cenc";
    gst_structure_get_int(s, "width", &t.width);
    gst_structure_get_int(s, "height", &t.height);
    gst_structure_get_int(s, "channels", &t.audio_channels);
  }
  const std::unique_ptr<GstTagList, GstTagListUnref> tags(gst_stream_get_tags(stream));
  if (tags) {
    gchar* text = nullptr;
    if (gst_tag_list_get_string(tags.get(), GST_TAG_LANGUAGE_CODE, &text)) {
      t.language = text;
      g_free(text);
    }
    if (gst_tag_list_get_string(tags.get(), GST_TAG_TITLE, &text)) {
      t.label = text;
      g_free(text);
    }
  }
  return t;
}

struct EngineConfig {
  bool fake_sinks;
};

// The thread that makes one pipeline's blocking calls, in the order posted.
// Closing it sets the pipeline to NULL and waits for that kShutWait at most
// (none when abandoned): a thread stuck in GStreamer is left behind with
// its own reference to the pipeline, so that no caller waits for it.
class PipelineThread {
 public:
  using Op = std::function<void(GstElement*)>;

  explicit PipelineThread(GstElement* pipeline) : shared_(std::make_shared<Shared>()) {
    shared_->pipeline = GST_ELEMENT(gst_object_ref(pipeline));
    finished_ = shared_->finished.get_future();
    thread_ = std::thread(run, shared_);
  }
  ~PipelineThread() { close(kShutWait); }
  PipelineThread(const PipelineThread&) = delete;
  PipelineThread& operator=(const PipelineThread&) = delete;

  void post(Op op) {
    {
      std::lock_guard<std::mutex> lock(shared_->mu);
      shared_->ops.push_back(std::move(op));
    }
    shared_->cv.notify_one();
  }

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
  bool stuck(Clock::duration limit) const {
    std::lock_guard<std::mutex> lock(shared_->mu);
    return shared_->running && Clock::now() - shared_->since > limit;
  }

  // Shuts the pipeline; waits for that `wait` at most.
  void close(Clock::duration wait) {
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

 private:
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

  static void run(std::shared_ptr<Shared> shared) {
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

  std::shared_ptr<Shared> shared_;
  std::future<void> finished_;
  std::thread thread_;
};

class GstPlayer final : public PlayerEngine {
 public:
  GstPlayer(unsigned id, EngineConfig config) : id_(id), config_(config) {}
  ~GstPlayer() override { close_pipeline(); }
  GstPlayer(const GstPlayer&) = delete;
  GstPlayer& operator=(const GstPlayer&) = delete;

  unsigned id() const override { return id_; }
  int state() const override { return state_; }
  const MediaItem* item() const override { return nullptr; }
  const std::string& url() const override { return url_; }
  PlayerSettings& settings() override { return settings_; }

  int load(const std::string& url, Clock::time_point now, Outbox* out) override;
  int play(Clock::time_point now, Outbox* out) override;
  int pause(Clock::time_point now, Outbox* out) override;
  int stop(Clock::time_point now, Outbox* out) override;
  int seek(double seconds, Clock::time_point now, Outbox* out) override;
  int set_rate(double thousandths, Clock::time_point now, Outbox* out) override;

  double duration() const override { return duration_; }
  double position(Clock::time_point now) const override;
  double rate() const override { return speed_ * 1000.0; }

  int track_count(int kind) const override;
  const Track* track(int kind, int index) const override;
  bool track_active(int kind, int index) const override {
    return valid_kind(kind) && index >= 0 && active_[kind] == index;
  }
  int active_index(int kind) const override { return valid_kind(kind) ? active_[kind] : -1; }
  int select_track(int kind, int index, Outbox* out) override;
  int unselect_track(int kind, int index, Outbox* out) override;
  int enable_subtitles(bool enable, Outbox* out) override;
  int add_subtitle(const std::string&, const std::string&, const std::string&, Outbox*) override {
    return -1;  // external subtitle files are not played by this engine
  }

  Clock::time_point next_deadline() const override { return next_poll_; }
  void advance(Clock::time_point now, Outbox* out) override;

 private:
  // What the pipeline is doing on the way to a reported state.
  enum class Phase {
    kNone,
    kConnecting,  // load: until the stream collection
    kPrerolling,  // load or play after stop: until async-done
    kSeeking,     // a flushing seek: until async-done
    kRateChange,  // a flushing seek at a new rate: until async-done, unreported
    kStarting,    // PLAYING asked for: until the pipeline is there
  };

  bool make_pipeline();
  bool open_pipeline(const std::string& url);
  void close_pipeline(Clock::duration wait = kShutWait);
  void change_state(GstState state, bool drop_messages = false);
  void watch_phase(Clock::time_point now, Outbox* out);
  void give_up_seek(Outbox* out);
  void emit(int event, int sub_event, int data1, double data2, Outbox* out) const {
    out->push_back(player_event(id_, event, sub_event, data1, data2));
  }
  void set_state(int state, Outbox* out);
  void poll_soon(Clock::time_point now) { next_poll_ = now + kPollInterval; }
  bool flush_seek(double rate, double seconds);
  double query_position() const;
  bool seek_under_way() const { return phase_ == Phase::kSeeking || seek_pending_; }
  bool prerolled() const;
  void start_playing(Outbox* out);
  void finish_preroll(bool first, Outbox* out);
  void run_waiting_seek();
  void handle(GstMessage* message, Outbox* out);
  void on_async_done(Outbox* out);
  void on_error(GstMessage* message, Outbox* out);
  void on_eos(Outbox* out);
  void on_buffering(int percent, Outbox* out);
  void on_collection(GstStreamCollection* collection, Outbox* out);
  void on_streams_selected(GstMessage* message, Outbox* out);
  void read_tracks();
  int change_selection(int kind, int index, Outbox* out);
  bool send_selection();
  bool selection_differs() const;

  unsigned id_;
  EngineConfig config_;
  int state_ = kIdle;
  std::string url_;
  PlayerSettings settings_;

  GstElement* pipeline_ = nullptr;  // owned; made at the first load
  GstBus* bus_ = nullptr;           // owned
  std::unique_ptr<PipelineThread> worker_;  // beside pipeline_: its blocking calls
  mutable double last_position_ = 0.0;      // the last position a query gave
  mutable Clock::time_point last_position_at_;  // when the pipeline gave it
  Phase watched_phase_ = Phase::kNone;      // the phase phase_since_ dates
  Clock::time_point phase_since_;
  CollectionPtr collection_;
  std::vector<Track> tracks_;
  std::vector<std::string> stream_ids_;  // beside tracks_
  int wanted_[3] = {0, 0, -1};           // selection asked of the pipeline
  int active_[3] = {0, 0, -1};           // selection the pipeline reported
  bool subtitles_enabled_ = false;
  bool announce_selection_ = false;      // the page asked: report what the pipeline selects

  Phase phase_ = Phase::kNone;
  bool first_preroll_ = false;     // the preroll of a load or of a play after stop
  bool play_wanted_ = true;        // where a load or seek ends: playing or paused
  bool seek_pending_ = false;      // a seek waits for the phase under way
  bool seek_reported_ = false;     // the seek under way ends with seek-completed
  double seek_target_ = 0.0;
  bool rate_pending_ = false;      // speed_ waits for the next seek
  bool buffering_ = false;         // paused for network buffering
  bool at_edge_ = false;           // finished at an end of the stream
  double speed_ = 1.0;             // factor; 0 paused by rate
  double pipeline_rate_ = 1.0;     // rate of the pipeline's segment
  double duration_ = 0.0;
  double held_position_ = 0.0;     // reported while no query applies
  int loops_left_ = 0;
  Clock::time_point next_poll_ = Clock::time_point::max();
};

bool GstPlayer::make_pipeline() {
  if (pipeline_ != nullptr) return true;
  GstElement* playbin = gst_element_factory_make("playbin3", nullptr);
  if (playbin == nullptr) return false;
  if (config_.fake_sinks) {
    // Fake sinks that still wait for the clock, so that playback takes the
    // media's time.
    for (const char* property : {"video-sink", "audio-sink", "text-sink"}) {
      GstElement* sink = gst_element_factory_make("fakesink", nullptr);
      if (sink == nullptr) {
        gst_object_unref(gst_object_ref_sink(playbin));
        return false;
      }
      g_object_set(sink, "sync", TRUE, nullptr);
      g_object_set(playbin, property, sink, nullptr);
    }
  }
  pipeline_ = GST_ELEMENT(gst_object_ref_sink(playbin));
  bus_ = gst_element_get_bus(pipeline_);
  worker_ = std::make_unique<PipelineThread>(pipeline_);
  return true;
}

// A new pipeline for `url` (or a file name, made a file URI), still in NULL.
bool GstPlayer::open_pipeline(const std::string& url) {
  close_pipeline();
  if (!make_pipeline()) return false;
  std::string uri = url;
  if (!gst_uri_is_valid(url.c_str())) {
    const GCharPtr made(gst_filename_to_uri(url.c_str(), nullptr));
    if (made == nullptr) return false;
    uri = made.get();
  }
  g_object_set(pipeline_, "uri", uri.c_str(), nullptr);
  return true;
}

void GstPlayer::close_pipeline(Clock::duration wait) {
  if (pipeline_ == nullptr) return;
  collection_.reset();
  worker_->close(wait);
  worker_.reset();
  gst_object_unref(bus_);
  gst_object_unref(pipeline_);
  bus_ = nullptr;
  pipeline_ = nullptr;
}

// Asks the pipeline for `state`; with drop_messages, the bus is emptied once
// it is there (what the pipeline said before is void).
void GstPlayer::change_state(GstState state, bool drop_messages) {
  worker_->call<bool>(
      [state, drop_messages](GstElement* pipeline) {
        gst_element_set_state(pipeline, state);
        if (drop_messages) {
          GstBus* bus = gst_element_get_bus(pipeline);
          gst_bus_set_flushing(bus, TRUE);
          gst_bus_set_flushing(bus, FALSE);
          gst_object_unref(bus);
        }
        return true;
      },
      false, kCallWait);
}

void GstPlayer::set_state(int state, Outbox* out) {
  if (state == state_) return;
  state_ = state;
  emit(kStateChangeEvent, 0, state, 0.0, out);
}

// A seek whose answer does not come in time is taken as made: its
// async-done, or the watch on the phase, ends it.
bool GstPlayer::flush_seek(double rate, double seconds) {
  const gint64 at = static_cast<gint64>(std::max(seconds, 0.0) * GST_SECOND);
  const bool ok = worker_->call<bool>(
      [rate, at](GstElement* pipeline) -> bool {
        const auto flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
        return rate > 0 ? gst_element_seek(pipeline, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, at,
                                           GST_SEEK_TYPE_NONE, GST_CLOCK_TIME_NONE)
                        : gst_element_seek(pipeline, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, 0,
                                           GST_SEEK_TYPE_SET, at);
      },
      true, kCallWait);
  if (ok) {
    at_edge_ = false;
    pipeline_rate_ = rate;
    last_position_ = std::max(seconds, 0.0);  // where the pipeline goes
    last_position_at_ = Clock::now();
  }
  return ok;
}

// The pipeline's position; held_position_ when it has none. While the
// pipeline thread hangs in a call or is slow to answer: the last one known
// (a seek's target after a seek), carried on at the playing rate
// (kCarryLimit at most).
double GstPlayer::query_position() const {
  if (pipeline_ == nullptr) return held_position_;
  using Answer = std::pair<double, Clock::time_point>;
  const Answer answer =
      worker_->stuck(kQueryWait)
          ? Answer{-2.0, Clock::time_point()}
          : worker_->call<Answer>(
                [](GstElement* pipeline) {
                  gint64 ns = 0;
                  const bool known = gst_element_query_position(pipeline, GST_FORMAT_TIME, &ns) && ns >= 0;
                  return Answer{known ? static_cast<double>(ns) / GST_SECOND : -1.0, Clock::now()};
                },
                Answer{-2.0, Clock::time_point()}, kQueryWait);
  if (answer.first >= -1.0) {
    last_position_ = answer.first >= 0 ? answer.first : held_position_;
    last_position_at_ = answer.second;
    return last_position_;
  }
  if (state_ != kPlaying || phase_ != Phase::kNone) return last_position_;
  const double since = std::chrono::duration<double>(Clock::now() - last_position_at_).count();
  const double carried = last_position_ + std::clamp(since, 0.0, kCarryLimit) * pipeline_rate_;
  return duration_ > 0 ? std::clamp(carried, 0.0, duration_) : std::max(carried, 0.0);
}

double GstPlayer::position(Clock::time_point) const {
  if (seek_under_way()) return seek_target_;
  switch (state_) {
    case kPlaying:
    case kPaused:
    case kBuffering:
      return phase_ == Phase::kRateChange ? held_position_ : query_position();
    default:
      return held_position_;
  }
}

bool GstPlayer::prerolled() const {
  return phase_ != Phase::kConnecting && phase_ != Phase::kPrerolling &&
         (state_ == kPlaying || state_ == kPaused || state_ == kSeeking || state_ == kFinished ||
          (state_ == kBuffering && buffering_));
}

int GstPlayer::load(const std::string& url, Clock::time_point now, Outbox* out) {
  if (url.empty()) return -1;
  // A new pipeline for every load: one that ended in an error does not
  // always take a new URI.
  if (!open_pipeline(url)) return -1;
  url_ = url;
  collection_.reset();
  tracks_.clear();
  stream_ids_.clear();
  wanted_[kVideoTrack] = active_[kVideoTrack] = 0;
  wanted_[kAudioTrack] = active_[kAudioTrack] = 0;
  wanted_[kSubtitleTrack] = active_[kSubtitleTrack] = -1;
  announce_selection_ = false;
  loops_left_ = settings_.loop_count;
  play_wanted_ = true;
  seek_pending_ = seek_reported_ = buffering_ = at_edge_ = false;
  rate_pending_ = speed_ != 1.0;
  pipeline_rate_ = 1.0;
  duration_ = held_position_ = last_position_ = 0.0;
  last_position_at_ = now;
  phase_ = Phase::kConnecting;
  first_preroll_ = true;
  if (state_ == kConnecting) state_ = kLoaded;  // a reload reports connecting again
  set_state(kConnecting, out);
  // A failure shows as an error message on the bus.
  change_state(GST_STATE_PAUSED);
  poll_soon(now);
  return 0;
}

void GstPlayer::start_playing(Outbox* out) {
  phase_ = Phase::kStarting;
  // Playing at once (no state-changed message follows) when it already was.
  const bool there = worker_->call<bool>(
      [](GstElement* pipeline) {
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstState current = GST_STATE_VOID_PENDING, pending = GST_STATE_VOID_PENDING;
        gst_element_get_state(pipeline, &current, &pending, 0);
        return current == GST_STATE_PLAYING && pending == GST_STATE_VOID_PENDING;
      },
      false, kCallWait);
  if (there) {
    phase_ = Phase::kNone;
    set_state(kPlaying, out);
  }
}

int GstPlayer::play(Clock::time_point now, Outbox* out) {
  poll_soon(now);
  switch (state_) {
    case kConnecting:
    case kBuffering:
    case kSeeking:
      play_wanted_ = true;
      return 0;
    case kPlaying:
      return 0;
    case kPaused:
      if (phase_ == Phase::kStarting) return 0;
      play_wanted_ = true;
      if (speed_ == 0.0) {
        speed_ = 1.0;
        emit(kSpeedChangeEvent, 0, 1000, 0.0, out);
        if (pipeline_rate_ != 1.0) {
          held_position_ = query_position();
          if (!flush_seek(1.0, held_position_)) return -1;
          phase_ = Phase::kRateChange;
          return 0;  // playing once the rate change is through
        }
      }
      if (phase_ == Phase::kRateChange) return 0;
      start_playing(out);
      return 0;
    case kFinished:
      play_wanted_ = true;
      if (at_edge_ && speed_ > 0) {
        // A new pass from the start, reported as playing once under way.
        held_position_ = 0.0;
        change_state(GST_STATE_PAUSED);
        if (!flush_seek(speed_, 0.0)) return -1;
        seek_reported_ = false;
        phase_ = Phase::kSeeking;
        seek_target_ = 0.0;
        return 0;
      }
      start_playing(out);
      return 0;
    case kStopped:
      if (url_.empty()) return -1;
      play_wanted_ = true;
      held_position_ = 0.0;
      phase_ = Phase::kPrerolling;
      first_preroll_ = true;
      rate_pending_ = speed_ != 1.0 && speed_ != 0.0;
      pipeline_rate_ = 1.0;
      set_state(kBuffering, out);
      change_state(GST_STATE_PAUSED);
      return 0;
    default:  // idle, error
      return -1;
  }
}

int GstPlayer::pause(Clock::time_point now, Outbox* out) {
  poll_soon(now);
  if (phase_ == Phase::kStarting) {
    phase_ = Phase::kNone;
    play_wanted_ = false;
    change_state(GST_STATE_PAUSED);
    set_state(kPaused, out);
    return 0;
  }
  switch (state_) {
    case kConnecting:
    case kBuffering:
    case kSeeking:
      play_wanted_ = false;
      return 0;
    case kPlaying:
      play_wanted_ = false;
      change_state(GST_STATE_PAUSED);
      set_state(kPaused, out);
      return 0;
    case kPaused:
    case kFinished:
      return 0;
    default:
      return -1;
  }
}

int GstPlayer::stop(Clock::time_point, Outbox* out) {
  if (state_ == kIdle) return 0;
  if (pipeline_ != nullptr) {
    change_state(GST_STATE_READY, true);
  }
  phase_ = Phase::kNone;
  seek_pending_ = buffering_ = at_edge_ = false;
  held_position_ = 0.0;
  next_poll_ = Clock::time_point::max();
  set_state(kStopped, out);
  return 0;
}

int GstPlayer::seek(double seconds, Clock::time_point now, Outbox* out) {
  if (pipeline_ == nullptr || !std::isfinite(seconds)) return -1;
  if (state_ == kIdle || state_ == kStopped || state_ == kError) return -1;
  seconds = std::max(seconds, 0.0);
  if (duration_ > 0) seconds = std::min(seconds, duration_);
  poll_soon(now);
  if (phase_ == Phase::kConnecting || phase_ == Phase::kPrerolling || phase_ == Phase::kSeeking ||
      phase_ == Phase::kRateChange) {
    // Made once the phase under way is through.
    seek_target_ = seconds;
    seek_pending_ = true;
    if (phase_ == Phase::kRateChange) {
      play_wanted_ = state_ == kPlaying;
      set_state(kSeeking, out);
    }
    return 0;
  }
  const bool playing = state_ == kPlaying || phase_ == Phase::kStarting;
  if (state_ == kFinished) change_state(GST_STATE_PAUSED);
  const double rate = speed_ != 0.0 ? speed_ : pipeline_rate_;
  if (!flush_seek(rate, seconds)) return -1;
  play_wanted_ = playing;
  seek_target_ = seconds;
  seek_reported_ = true;
  phase_ = Phase::kSeeking;
  set_state(kSeeking, out);
  return 0;
}

int GstPlayer::set_rate(double thousandths, Clock::time_point now, Outbox* out) {
  const double speed = thousandths / 1000.0;
  if (!std::isfinite(speed) || std::fabs(speed) > kMaxSpeed) return -1;
  poll_soon(now);
  const int reported = static_cast<int>(std::lround(thousandths));
  if (speed == 0.0) {
    speed_ = 0.0;
    emit(kSpeedChangeEvent, 0, reported, 0.0, out);
    if (state_ == kPlaying || phase_ == Phase::kStarting) pause(now, out);
    return 0;
  }
  if (!prerolled() || phase_ == Phase::kSeeking || phase_ == Phase::kRateChange) {
    // Applied with the seek that ends the phase under way.
    speed_ = speed;
    rate_pending_ = speed != pipeline_rate_;
    emit(kSpeedChangeEvent, 0, reported, 0.0, out);
    return 0;
  }
  const double from = position(now);
  if (state_ == kFinished) change_state(GST_STATE_PAUSED);
  if (!flush_seek(speed, from)) return -1;  // the demuxer cannot play at this rate
  speed_ = speed;
  held_position_ = from;
  phase_ = Phase::kRateChange;
  emit(kSpeedChangeEvent, 0, reported, 0.0, out);
  return 0;
}

void GstPlayer::read_tracks() {
  tracks_.clear();
  stream_ids_.clear();
  if (!collection_) return;
  int counts[3] = {0, 0, 0};
  const guint n = gst_stream_collection_get_size(collection_.get());
  for (guint i = 0; i < n; ++i) {
    GstStream* stream = gst_stream_collection_get_stream(collection_.get(), i);
    const int kind = kind_of(gst_stream_get_stream_type(stream));
    if (!valid_kind(kind)) continue;
    Track t = describe_stream(stream, kind, static_cast<int>(i) + 1);
    t.priority = ++counts[kind];
    tracks_.push_back(std::move(t));
    const char* sid = gst_stream_get_stream_id(stream);
    stream_ids_.emplace_back(sid == nullptr ? "" : sid);
  }
}

int GstPlayer::track_count(int kind) const {
  return static_cast<int>(std::count_if(tracks_.begin(), tracks_.end(),
                                        [kind](const Track& t) { return t.kind == kind; }));
}

const Track* GstPlayer::track(int kind, int index) const {
  int seen = 0;
  for (const Track& t : tracks_) {
    if (t.kind == kind && seen++ == index) return &t;
  }
  return nullptr;
}

int GstPlayer::change_selection(int kind, int index, Outbox* out) {
  wanted_[kind] = index;
  if (collection_ && (phase_ == Phase::kConnecting || phase_ == Phase::kPrerolling)) {
    return 0;  // sent once pre-rolled
  }
  const bool running = collection_ && (state_ == kPlaying || state_ == kPaused || state_ == kBuffering ||
                                       state_ == kSeeking || state_ == kFinished);
  if (!running) {
    // Nothing to switch: the selection applies to the next stream.
    if (active_[kind] != index) {
      active_[kind] = index;
      emit(kTrackChangeEvent, 0, kind, 0.0, out);
    }
    return 0;
  }
  // The track change follows when the pipeline reports the selection.
  announce_selection_ = true;
  return send_selection() ? 0 : -1;
}

bool GstPlayer::send_selection() {
  std::vector<std::string> wanted;
  for (int k = kVideoTrack; k <= kSubtitleTrack; ++k) {
    int seen = 0;
    for (std::size_t i = 0; i < tracks_.size(); ++i) {
      if (tracks_[i].kind == k && seen++ == wanted_[k]) wanted.push_back(stream_ids_[i]);
    }
  }
  return worker_->call<bool>(
      [wanted](GstElement* pipeline) -> bool {
        GList* ids = nullptr;
        for (const std::string& id : wanted) ids = g_list_append(ids, const_cast<char*>(id.c_str()));
        const bool sent = gst_element_send_event(pipeline, gst_event_new_select_streams(ids));
        g_list_free(ids);
        return sent;
      },
      true, kCallWait);
}

bool GstPlayer::selection_differs() const {
  return !std::equal(std::begin(wanted_), std::end(wanted_), std::begin(active_));
}

int GstPlayer::select_track(int kind, int index, Outbox* out) {
  if (!valid_kind(kind) || track(kind, index) == nullptr) return -1;
  if (kind == kSubtitleTrack) subtitles_enabled_ = true;
  if (wanted_[kind] == index) return 0;
  return change_selection(kind, index, out);
}

int GstPlayer::unselect_track(int kind, int index, Outbox* out) {
  if (!valid_kind(kind) || track(kind, index) == nullptr) return -1;
  if (wanted_[kind] != index) return 0;
  return change_selection(kind, -1, out);
}

int GstPlayer::enable_subtitles(bool enable, Outbox* out) {
  subtitles_enabled_ = enable;
  const int wanted =
      enable && track_count(kSubtitleTrack) > 0 ? std::max(wanted_[kSubtitleTrack], 0) : -1;
  return wanted == wanted_[kSubtitleTrack] ? 0 : change_selection(kSubtitleTrack, wanted, out);
}

void GstPlayer::advance(Clock::time_point now, Outbox* out) {
  if (pipeline_ == nullptr || now < next_poll_) return;
  next_poll_ = Clock::time_point::max();
  while (true) {
    const MessagePtr message(gst_bus_pop(bus_));
    if (!message) break;
    handle(message.get(), out);
  }
  watch_phase(now, out);
  if (state_ != kIdle && state_ != kStopped && state_ != kError) poll_soon(now);
}

// Seeks and rate changes end with an async-done; one that has not come
// after kSeekLimit never will, or the pipeline is wedged in the seek.
void GstPlayer::watch_phase(Clock::time_point now, Outbox* out) {
  if (phase_ != watched_phase_) {
    watched_phase_ = phase_;
    phase_since_ = now;
    return;
  }
  if ((phase_ != Phase::kSeeking && phase_ != Phase::kRateChange) || now - phase_since_ < kSeekLimit) return;
  watched_phase_ = Phase::kNone;  // a new watch from here
  give_up_seek(out);
}

void GstPlayer::give_up_seek(Outbox* out) {
  if (!worker_->stuck(kSeekLimit / 2)) {
    // The pipeline runs, only the async-done is missing: take it as come.
    trace("player %u: no async-done for the seek: taken as done", id_);
    on_async_done(out);
    return;
  }
  // The pipeline thread hangs in GStreamer: leave that pipeline behind and
  // seek on a new one, which ends the seek or rate change as if nothing
  // happened.
  const bool rate_change = phase_ == Phase::kRateChange && !seek_pending_;
  complain("player %u: the pipeline hangs in a seek: a new one goes to %.3f s", id_,
           rate_change ? held_position_ : seek_target_);
  const std::string url = url_;
  close_pipeline(Clock::duration::zero());
  if (!open_pipeline(url)) {
    phase_ = Phase::kNone;
    seek_pending_ = false;
    emit(kErrorEvent, kFormatError, 0, 0.0, out);
    set_state(kError, out);
    return;
  }
  if (rate_change) {
    play_wanted_ = state_ == kPlaying || (state_ == kPaused && play_wanted_);
    rate_pending_ = true;  // from held_position_ at speed_
  } else {
    seek_pending_ = true;  // to seek_target_
  }
  pipeline_rate_ = 1.0;
  buffering_ = false;
  first_preroll_ = true;  // the selection goes again to the new pipeline
  phase_ = Phase::kPrerolling;
  change_state(GST_STATE_PAUSED);
}

void GstPlayer::handle(GstMessage* message, Outbox* out) {
  const bool from_pipeline = GST_MESSAGE_SRC(message) == GST_OBJECT(pipeline_);
  switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR:
      on_error(message, out);
      break;
    case GST_MESSAGE_EOS:
      on_eos(out);
      break;
    case GST_MESSAGE_ASYNC_DONE:
      if (from_pipeline) on_async_done(out);
      break;
    case GST_MESSAGE_STATE_CHANGED:
      if (from_pipeline && phase_ == Phase::kStarting) {
        GstState old_state, new_state, pending;
        gst_message_parse_state_changed(message, &old_state, &new_state, &pending);
        if (new_state == GST_STATE_PLAYING) {
          phase_ = Phase::kNone;
          set_state(kPlaying, out);
        }
      }
      break;
    case GST_MESSAGE_BUFFERING: {
      gint percent = 100;
      gst_message_parse_buffering(message, &percent);
      on_buffering(percent, out);
      break;
    }
    case GST_MESSAGE_STREAM_COLLECTION: {
      GstStreamCollection* collection = nullptr;
      gst_message_parse_stream_collection(message, &collection);
      if (collection != nullptr) on_collection(collection, out);
      break;
    }
    case GST_MESSAGE_STREAMS_SELECTED:
      on_streams_selected(message, out);
      break;
    default:
      break;
  }
}

void GstPlayer::on_error(GstMessage* message, Outbox* out) {
  GError* error = nullptr;
  gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  const int code = error != nullptr ? media_error(error) : kFormatError;
  trace("player %u: pipeline error (%s, debug: %s): error %d", id_,
        error != nullptr ? error->message : "?", debug != nullptr ? debug : "-", code);
  if (error != nullptr) g_error_free(error);
  g_free(debug);
  held_position_ = query_position();
  change_state(GST_STATE_NULL, true);
  phase_ = Phase::kNone;
  seek_pending_ = buffering_ = false;
  emit(kErrorEvent, code, 0, 0.0, out);
  set_state(kError, out);
}

void GstPlayer::on_eos(Outbox* out) {
  if (speed_ > 0 && loops_left_ != 0 && duration_ > 0) {
    // Another pass, without a report, as a looping player does.
    if (loops_left_ > 0) --loops_left_;
    if (flush_seek(speed_, 0.0)) return;
  }
  held_position_ = speed_ < 0 ? 0.0 : std::max(query_position(), duration_);
  at_edge_ = true;
  phase_ = Phase::kNone;
  seek_pending_ = false;
  set_state(kFinished, out);
}

void GstPlayer::on_buffering(int percent, Outbox* out) {
  if (percent < 100) {
    if (buffering_) return;
    if (phase_ == Phase::kConnecting) {
      phase_ = Phase::kPrerolling;
      set_state(kBuffering, out);
    }
    if (state_ == kPlaying || phase_ == Phase::kStarting) {
      // Network buffering: wait with a paused pipeline.
      buffering_ = true;
      play_wanted_ = true;
      phase_ = Phase::kNone;
      change_state(GST_STATE_PAUSED);
      set_state(kBuffering, out);
    } else if (phase_ == Phase::kPrerolling) {
      buffering_ = true;
    }
    return;
  }
  if (!buffering_) return;
  buffering_ = false;
  if (phase_ == Phase::kNone && state_ == kBuffering) {
    if (play_wanted_ && speed_ != 0.0) {
      start_playing(out);
    } else {
      set_state(kPaused, out);
    }
  } else if (phase_ == Phase::kNone && state_ == kPaused && play_wanted_) {
    start_playing(out);  // pre-rolled while the buffer was still filling
  }
}

void GstPlayer::on_collection(GstStreamCollection* collection, Outbox* out) {
  collection_.reset(collection);
  read_tracks();
  if (phase_ == Phase::kConnecting) {
    phase_ = Phase::kPrerolling;
    set_state(kBuffering, out);
  }
  for (int kind = kVideoTrack; kind <= kSubtitleTrack; ++kind) {
    emit(kComponentUpdatedEvent, 0, kind, 0.0, out);
  }
  // Subtitles only when asked for; the pipeline picks one of each kind,
  // and is told otherwise once pre-rolled (a selection sent while it sets
  // its streams up can hang it).
  for (int k = kVideoTrack; k <= kSubtitleTrack; ++k) {
    if (wanted_[k] >= track_count(k)) wanted_[k] = track_count(k) > 0 ? 0 : -1;
  }
  if (!subtitles_enabled_) wanted_[kSubtitleTrack] = -1;
}

void GstPlayer::on_streams_selected(GstMessage* message, Outbox* out) {
  int selected[3] = {-1, -1, -1};
  const guint n = gst_message_streams_selected_get_size(message);
  for (guint i = 0; i < n; ++i) {
    GstStream* stream = gst_message_streams_selected_get_stream(message, i);
    const char* sid = stream != nullptr ? gst_stream_get_stream_id(stream) : nullptr;
    if (sid != nullptr) {
      int seen[3] = {0, 0, 0};
      for (std::size_t t = 0; t < tracks_.size(); ++t) {
        const int kind = tracks_[t].kind;
        if (stream_ids_[t] == sid) selected[kind] = seen[kind];
        ++seen[kind];
      }
    }
    if (stream != nullptr) gst_object_unref(stream);
  }
  // The pipeline's own choice, and the engine's first correction of it,
  // are taken silently; what the page asked for is reported.
  for (int kind = kVideoTrack; kind <= kSubtitleTrack; ++kind) {
    if (selected[kind] != active_[kind]) {
      active_[kind] = selected[kind];
      if (announce_selection_) emit(kTrackChangeEvent, 0, kind, 0.0, out);
    }
  }
  if (!selection_differs()) announce_selection_ = false;
}

void GstPlayer::run_waiting_seek() {
  // A seek, or a rate, that came while the pipeline was busy.
  const double target = seek_pending_ ? seek_target_ : held_position_;
  const double rate = speed_ != 0.0 ? speed_ : pipeline_rate_;
  seek_reported_ = seek_reported_ || seek_pending_;
  seek_pending_ = rate_pending_ = false;
  seek_target_ = target;
  phase_ = Phase::kSeeking;
  watched_phase_ = Phase::kNone;  // a new seek: a new watch
  if (!flush_seek(rate, target) && rate != pipeline_rate_) {
    flush_seek(pipeline_rate_, target);  // the rate is refused: keep the one that plays
  }
}

void GstPlayer::finish_preroll(bool first, Outbox* out) {
  phase_ = Phase::kNone;
  if (first && collection_ && selection_differs()) send_selection();
  if (buffering_) return;  // playback starts at 100 %
  const bool plays = play_wanted_ && speed_ != 0.0;
  if (!plays) {
    set_state(kPaused, out);
    return;
  }
  // Playback that starts reports its speed first.
  if (first) emit(kSpeedChangeEvent, 0, static_cast<int>(std::lround(speed_ * 1000.0)), 0.0, out);
  start_playing(out);
}

void GstPlayer::on_async_done(Outbox* out) {
  switch (phase_) {
    case Phase::kConnecting:
    case Phase::kPrerolling: {
      duration_ = worker_->call<double>(
          [](GstElement* pipeline) {
            gint64 length = 0;
            return gst_element_query_duration(pipeline, GST_FORMAT_TIME, &length) && length >= 0
                       ? static_cast<double>(length) / GST_SECOND
                       : kUnknownDuration;
          },
          kUnknownDuration, kCallWait);
      read_tracks();  // the tags are in by now
      if (state_ == kConnecting) set_state(kBuffering, out);
      if (seek_pending_ || rate_pending_) {
        run_waiting_seek();
        return;
      }
      first_preroll_ = false;
      finish_preroll(true, out);
      return;
    }
    case Phase::kSeeking: {
      if (seek_pending_ || rate_pending_) {
        run_waiting_seek();
        return;
      }
      if (seek_reported_) {
        seek_reported_ = false;
        emit(kSeekCompletedEvent, 0, 0, query_position(), out);
      }
      const bool first = first_preroll_;
      first_preroll_ = false;
      finish_preroll(first, out);
      return;
    }
    case Phase::kRateChange:
      phase_ = Phase::kNone;
      if (seek_pending_) {
        run_waiting_seek();
      } else if (state_ == kPlaying || (state_ == kPaused && play_wanted_)) {
        start_playing(out);
      }
      return;
    default:
      return;
  }
}

bool have_display() {
  const char* x11 = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

}  // namespace

bool gstreamer_engine(const std::string& sinks, EngineFactory* factory, std::string* error) {
  GError* init_error = nullptr;
  if (!gst_init_check(nullptr, nullptr, &init_error)) {
    *error = std::string("GStreamer does not start: ") +
             (init_error != nullptr ? init_error->message : "unknown reason");
    if (init_error != nullptr) g_error_free(init_error);
    return false;
  }
  const EngineConfig config{sinks == "fake" || (sinks.empty() && !have_display())};
  for (const char* needed : {"playbin3", config.fake_sinks ? "fakesink" : "playbin3"}) {
    GstElementFactory* found = gst_element_factory_find(needed);
    if (found == nullptr) {
      *error = std::string("GStreamer has no ") + needed + " (package gstreamer1.0-plugins-base)";
      return false;
    }
    gst_object_unref(found);
  }
  guint major = 0, minor = 0, micro = 0, nano = 0;
  gst_version(&major, &minor, &micro, &nano);
  trace("gstreamer engine: GStreamer %u.%u.%u, %s sinks", major, minor, micro,
        config.fake_sinks ? "fake" : "desktop");
  *factory = [config](unsigned id) { return std::make_unique<GstPlayer>(id, config); };
  return true;
}

}  // namespace pavo::service
