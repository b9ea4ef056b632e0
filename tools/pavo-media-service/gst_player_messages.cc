#include "pavo-media-service/gst_player.h"

#include <algorithm>
#include <cmath>

#include "pavo-media-service/console.h"
#include "pavo-media-service/gst_network.h"

namespace pavo::service {

void GstPlayer::advance(Clock::time_point now, Outbox* out) {
  if (pipeline_ == nullptr || now < next_poll_) return;
  next_poll_ = Clock::time_point::max();
  while (true) {
    const MessagePtr message(gst_bus_pop(bus_));
    if (!message) break;
    handle(message.get(), out);
  }
  watch_phase(now, out);
  if (selection_waits_ && now >= selection_settles_) send_selection();
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
  buffering_ = heading_playing_ = false;
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
      on_buffering(percent, is_adaptive_demuxer(GST_MESSAGE_SRC(message)), out);
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
    case GST_MESSAGE_ELEMENT:
      // Without a decoder for its audio or video the stream cannot play;
      // the pipeline might still pre-roll the rest and report playing.
      if (lacks_decoder(message)) {
        trace("player %u: no decoder for a stream: error %d", id_, kDecoderError);
        fail(kDecoderError, out);
      }
      break;
    default:
      break;
  }
}

void GstPlayer::on_error(GstMessage* message, Outbox* out) {
  GError* error = nullptr;
  gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  int code = error != nullptr ? media_error(error) : kFormatError;
  // The network source's stream failures are the connection's: libsoup's
  // refused connection or a server gone mid-stream arrive as a failed
  // stream ("Internal data stream error"), not as a resource error.
  if (error != nullptr && error->domain == GST_STREAM_ERROR && reads_network(GST_MESSAGE_SRC(message))) {
    code = kNetworkError;
  }
  trace("player %u: pipeline error (%s, debug: %s): error %d", id_,
        error != nullptr ? error->message : "?", debug != nullptr ? debug : "-", code);
  if (error != nullptr) g_error_free(error);
  g_free(debug);
  fail(code, out);
}

void GstPlayer::fail(int code, Outbox* out) {
  held_position_ = query_position();
  change_state(GST_STATE_NULL, true);
  phase_ = Phase::kNone;
  seek_pending_ = buffering_ = heading_playing_ = false;
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

void GstPlayer::on_buffering(int percent, bool adaptive, Outbox* out) {
  if (adaptive) adaptive_percent_ = percent;
  if (percent < 100) {
    if (buffering_) return;
    if (phase_ == Phase::kConnecting) {
      phase_ = Phase::kPrerolling;
      set_state(kBuffering, out);
    }
    // An adaptive stream plays on while its demuxer holds enough; during
    // the pre-roll of a load its end decides (on_async_done).
    if (adaptive && (percent >= kAdaptivePlayPercent || (first_preroll_ && phase_ == Phase::kPrerolling))) return;
    if (state_ == kPlaying || phase_ == Phase::kStarting) {
      // Network buffering: wait with a paused pipeline.
      buffering_ = true;
      play_wanted_ = true;
      phase_ = Phase::kNone;
      change_state(GST_STATE_PAUSED);
      set_state(kBuffering, out);
    } else if (phase_ == Phase::kPrerolling) {
      buffering_ = true;
      hold_preroll();  // playback starts at 100 %
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
  for (std::size_t i = 0; i < tracks_.size(); ++i) trace("player %u: stream %s", id_, stream_ids_[i].c_str());
  if (phase_ == Phase::kConnecting) {
    phase_ = Phase::kPrerolling;
    set_state(kBuffering, out);
  }
  for (int kind = kVideoTrack; kind <= kSubtitleTrack; ++kind) {
    emit(kComponentUpdatedEvent, 0, kind, 0.0, out);
  }
  // One track of each kind, the first unless the page chose before: the
  // pipeline picks one of each kind, and is told otherwise once pre-rolled
  // (a selection sent while it sets its streams up can hang it). The text
  // track is carried whether subtitles are shown or not.
  for (int k = kVideoTrack; k <= kSubtitleTrack; ++k) {
    if (wanted_[k] >= track_count(k) || (k == kSubtitleTrack && wanted_[k] < 0)) {
      wanted_[k] = track_count(k) > 0 ? 0 : -1;
    }
  }
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
  // are taken silently; what the page asked for is reported: a change, or
  // the page's choice in effect (a report that changes nothing, when the
  // page asked for what the pipeline had chosen itself).
  for (int kind = kVideoTrack; kind <= kSubtitleTrack; ++kind) {
    const bool changed = selected[kind] != active_[kind];
    active_[kind] = selected[kind];
    if (announce_[kind] && (changed || active_[kind] == wanted_[kind])) {
      emit(kTrackChangeEvent, 0, kind, 0.0, out);
      if (changed) selection_settles_ = Clock::now() + kSelectionSettle;
    }
    if (active_[kind] == wanted_[kind]) announce_[kind] = false;
  }
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
  start_playing(out);
}

void GstPlayer::on_async_done(Outbox* out) {
  switch (phase_) {
    case Phase::kConnecting:
    case Phase::kPrerolling: {
      if (!buffering_ && adaptive_percent_ >= 0 && adaptive_percent_ < kAdaptivePlayPercent) {
        // Pre-rolled with too little buffered: playback waits for the buffer.
        buffering_ = true;
        if (heading_playing_) change_state(GST_STATE_PAUSED);
      }
      heading_playing_ = false;  // the pipeline goes on to PLAYING by itself
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

}  // namespace pavo::service
