#include "pavo-media-service/gst_player.h"
#include "pavo-media-service/gst_frame_preview.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>

#include "pavo-media-service/gst_manifest.h"
#include "pavo-media-service/gst_network.h"

namespace pavo::service {

bool GstPlayer::make_pipeline() {
  if (pipeline_ != nullptr) return true;
  GstElement* playbin = gst_element_factory_make("playbin3", nullptr);
  if (playbin == nullptr) return false;
  if (config_.fake_sinks) {
    // Fake sinks; video and audio still wait for the clock, so that
    // playback takes the media's time. The text sink shows nothing: it
    // takes cues as they come and is no sink that the end of the stream or
    // a pre-roll waits for. As a sink, the text stream of an HLS stream
    // (WebVTT) held the end back by 3.5 s after a seek (GStreamer 1.22, a
    // bare playbin3 alike).
    for (const char* property : {"video-sink", "audio-sink", "text-sink"}) {
      GstElement* sink = gst_element_factory_make("fakesink", nullptr);
      if (sink == nullptr) {
        gst_object_unref(gst_object_ref_sink(playbin));
        return false;
      }
      const bool text = std::strcmp(property, "text-sink") == 0;
      g_object_set(sink, "sync", !text, "async", !text, nullptr);
      if (text) GST_OBJECT_FLAG_UNSET(sink, GST_ELEMENT_FLAG_SINK);
      g_object_set(playbin, property, sink, nullptr);
    }
  }
  watch_text(playbin, subtitles_enabled_);
  tune_adaptive_demuxers(playbin);
  shorten_audio_queue(playbin);
  buffer_progressive_downloads(playbin);
  manifest_ = std::make_shared<ManifestCopy>();
  copy_manifests(playbin, manifest_);
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
  frame_preview_watch(pipeline_, url);
  return true;
}

void GstPlayer::close_pipeline(Clock::duration wait) {
  if (pipeline_ == nullptr) return;
  frame_preview_forget(pipeline_);
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
        // Forwards the stop is set to none (the end): a rewind before left
        // its start position as the segment's stop.
        return rate > 0 ? gst_element_seek(pipeline, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, at,
                                           GST_SEEK_TYPE_SET, GST_CLOCK_TIME_NONE)
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
  std::fill(std::begin(announce_), std::end(announce_), false);
  selection_waits_ = false;
  selection_settles_ = Clock::time_point();
  loops_left_ = settings_.loop_count;
  play_wanted_ = true;
  seek_pending_ = seek_reported_ = buffering_ = at_edge_ = false;
  adaptive_percent_ = -1;
  rate_pending_ = speed_ != 1.0;
  pipeline_rate_ = 1.0;
  duration_ = held_position_ = last_position_ = 0.0;
  last_position_at_ = now;
  phase_ = Phase::kConnecting;
  first_preroll_ = true;
  announce_speed_ = true;
  if (state_ == kConnecting) state_ = kLoaded;  // a reload reports connecting again
  set_state(kConnecting, out);
  // A failure shows as an error message on the bus.
  preroll();
  poll_soon(now);
  return 0;
}

void GstPlayer::preroll() {
  heading_playing_ = play_wanted_ && speed_ != 0.0 && !rate_pending_ && !seek_pending_ && !buffering_;
  change_state(heading_playing_ ? GST_STATE_PLAYING : GST_STATE_PAUSED);
}

void GstPlayer::hold_preroll() {
  if (!heading_playing_) return;
  heading_playing_ = false;
  if (phase_ == Phase::kConnecting || phase_ == Phase::kPrerolling) change_state(GST_STATE_PAUSED);
}

void GstPlayer::start_playing(Outbox* out) {
  phase_ = Phase::kStarting;
  if (announce_speed_) {
    // Playback that starts (after a load, or a play after stop) reports its
    // speed first, whichever way it got there (pre-roll or buffering).
    announce_speed_ = false;
    emit(kSpeedChangeEvent, 0, static_cast<int>(std::lround(speed_ * 1000.0)), 0.0, out);
  }
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
      if ((phase_ == Phase::kConnecting || phase_ == Phase::kPrerolling) && !heading_playing_) preroll();
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
      announce_speed_ = true;
      adaptive_percent_ = -1;
      rate_pending_ = speed_ != 1.0 && speed_ != 0.0;
      pipeline_rate_ = 1.0;
      set_state(kBuffering, out);
      preroll();
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
      hold_preroll();
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
  seek_pending_ = buffering_ = at_edge_ = heading_playing_ = false;
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
    hold_preroll();
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
  // A live stream plays at its edge: nothing lies ahead to play faster.
  if (speed > 1.0 && duration_ == kUnknownDuration && prerolled()) return -1;
  poll_soon(now);
  const int reported = static_cast<int>(std::lround(thousandths));
  if (speed == 0.0) {
    speed_ = 0.0;
    hold_preroll();
    emit(kSpeedChangeEvent, 0, reported, 0.0, out);
    if (state_ == kPlaying || phase_ == Phase::kStarting) pause(now, out);
    return 0;
  }
  if (!prerolled() || phase_ == Phase::kSeeking || phase_ == Phase::kRateChange) {
    // Applied with the seek that ends the phase under way.
    if (speed != 1.0) hold_preroll();
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
  const std::vector<Rendition> renditions = audio_renditions(manifest_ ? manifest_->text() : std::string());
  const guint n = gst_stream_collection_get_size(collection_.get());
  for (guint i = 0; i < n; ++i) {
    GstStream* stream = gst_stream_collection_get_stream(collection_.get(), i);
    const int kind = kind_of(gst_stream_get_stream_type(stream));
    if (!valid_track_kind(kind)) continue;
    Track t = describe_stream(stream, kind, static_cast<int>(i) + 1);
    if (kind == kAudioTrack) complete_audio_track(renditions, counts[kind], &t);
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
  send_selection_settled();
  if (active_[kind] == index) {
    // Already what the pipeline reports (its own choice, whose correction
    // may still be on the way): in effect now, and the selection sent keeps
    // it so.
    emit(kTrackChangeEvent, 0, kind, 0.0, out);
    announce_[kind] = false;
    return 0;
  }
  // The track change follows when the pipeline reports the selection.
  announce_[kind] = true;
  return 0;
}

void GstPlayer::send_selection_settled() {
  if (Clock::now() >= selection_settles_) {
    send_selection();
    return;
  }
  selection_waits_ = true;
  next_poll_ = std::min(next_poll_, selection_settles_);
}

// The event's result is not the selection's: an adaptive demuxer takes the
// event from its first pad and answers false on the others, and playbin3
// passes that on. streams-selected tells what the pipeline did.
void GstPlayer::send_selection() {
  selection_waits_ = false;
  std::vector<std::string> wanted;
  for (int k = kVideoTrack; k <= kSubtitleTrack; ++k) {
    int seen = 0;
    for (std::size_t i = 0; i < tracks_.size(); ++i) {
      if (tracks_[i].kind == k && seen++ == wanted_[k]) wanted.push_back(stream_ids_[i]);
    }
  }
  worker_->post([wanted](GstElement* pipeline) {
    GList* ids = nullptr;
    for (const std::string& id : wanted) ids = g_list_append(ids, const_cast<char*>(id.c_str()));
    gst_element_send_event(pipeline, gst_event_new_select_streams(ids));
    g_list_free(ids);
  });
}

bool GstPlayer::selection_differs() const {
  return !std::equal(std::begin(wanted_), std::end(wanted_), std::begin(active_));
}

int GstPlayer::select_track(int kind, int index, Outbox* out) {
  if (!valid_track_kind(kind) || track(kind, index) == nullptr) return -1;
  if (kind == kSubtitleTrack) show_subtitles(true, out);
  if (wanted_[kind] == index) return 0;
  return change_selection(kind, index, out);
}

int GstPlayer::unselect_track(int kind, int index, Outbox* out) {
  if (!valid_track_kind(kind) || track(kind, index) == nullptr) return -1;
  if (wanted_[kind] != index) return 0;
  if (kind == kSubtitleTrack) {
    show_subtitles(false, out);  // the text track stays in the pipeline, hidden
    return 0;
  }
  return change_selection(kind, -1, out);
}

int GstPlayer::enable_subtitles(bool enable, Outbox* out) {
  show_subtitles(enable, out);
  return 0;
}

void GstPlayer::show_subtitles(bool shown, Outbox* out) {
  const int before = active_index(kSubtitleTrack);
  subtitles_enabled_ = shown;
  if (worker_) worker_->post([shown](GstElement* pipeline) { show_text(pipeline, shown); });
  if (active_index(kSubtitleTrack) != before) {
    emit(kTrackChangeEvent, 0, kSubtitleTrack, 0.0, out);
  } else if (shown && wanted_[kSubtitleTrack] >= 0 && active_[kSubtitleTrack] != wanted_[kSubtitleTrack]) {
    announce_[kSubtitleTrack] = true;  // shown once the pipeline carries the track
  }
}

}  // namespace pavo::service
