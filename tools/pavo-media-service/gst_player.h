// The GStreamer engine's player: one playbin3 pipeline per player.
//
// Mapping between the protocol and the pipeline:
//   load       the URL (or a file name, made a file URI) is set on the
//              pipeline, which goes to PAUSED: state connecting; the stream
//              collection (the demuxer has read the headers) turns it into
//              buffering; async-done (pre-rolled) ends the load: paused, or
//              playing reported when the pipeline has reached PLAYING. A load
//              plays unless a pause came first; while nothing stands before
//              playback (a pause, a speed other than 1, a seek, network
//              buffering), the pipeline is asked for PLAYING at once, as a
//              bare playbin3 is, and a pause, seek or speed that comes during
//              the pre-roll takes it back to PAUSED.
//   buffering  messages below 100 % pause a playing pipeline (state
//              buffering) until 100 %; an adaptive demuxer's, below
//              kAdaptivePlayPercent only, and a load of an adaptive stream
//              plays at the end of its pre-roll when that much is in
//              (gst_network.h).
//   seek       a flushing, accurate seek (state seeking); its async-done
//              gives the seek-completed event with the position reached.
//              Seeks that come while one is under way wait for it.
//   rate       a flushing seek at the new rate from the current position;
//              backwards from 0 to it. A seek the pipeline refuses fails the
//              request; 0 pauses.
//   position   and duration from queries; the seek target while seeking.
//   EOS        finished, or a new pass while loops are left.
//   errors     an error event with the protocol's number (resource errors,
//              and stream failures of the HTTP source: network; stream type
//              and demux errors: format; codec, decode and library errors,
//              and a missing audio or video decoder: decoder; decryption:
//              encrypted), then the error state, and the pipeline is shut.
//   tracks     the stream collection: kind, caps name as encoding, the
//              language as GStreamer's two-letter code, channels, size;
//              an audio rendition not fetched yet gets its encoding and
//              channels from the manifest (gst_manifest.h);
//              selection through select-streams, with the track-change
//              event once the pipeline reports the streams selected; a
//              change asked for within kSelectionSettle of the last one
//              the pipeline reported waits until then.
//   subtitles  on and off show and hide them on the picture; the text
//              track stays selected (subtitles_enabled_, gst_streams.h).
//
// The bus is polled from advance() every kPollInterval while the pipeline
// runs (kStartPollInterval while playback starts, where every millisecond
// of latency delays the first picture): every call of the engine, bus
// handling included, runs under the service's lock, so no GStreamer thread
// ever waits for that lock (a bus handler on a streaming thread could,
// while a flushing seek under the lock waits for that thread).
//
// Nothing that can wait on a streaming thread runs under that lock either:
// state changes, seeks, queries and events go to the player's pipeline
// thread (gst_pipeline_thread.h), and the engine waits for their result a
// bounded time only. A flushing seek can deadlock inside GStreamer (the seek
// holds the sink bin's lock while its flush waits for a streaming thread
// that waits for that lock in a pad probe); a caller stuck there would hold
// the service's lock for good, and the service would not even stop. A seek
// that does not end in time is given up: when the pipeline thread is stuck
// in it, the pipeline is left to itself and a new one seeks to the target.
//
// gst_player.cc holds the pipeline's life and the protocol's commands;
// gst_player_messages.cc the bus messages and the phases they end.
#ifndef PAVO_MEDIA_SERVICE_GST_PLAYER_H
#define PAVO_MEDIA_SERVICE_GST_PLAYER_H

#include <gst/gst.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "pavo-media-service/engine.h"
#include "pavo-media-service/gst_manifest.h"
#include "pavo-media-service/gst_pipeline_thread.h"
#include "pavo-media-service/gst_streams.h"
#include "pavo-media-service/protocol.h"

namespace pavo::service {

struct EngineConfig {
  bool fake_sinks;  // fakesink for video and audio instead of the desktop's output
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
  // Subtitles count as active only while shown.
  bool track_active(int kind, int index) const override {
    return valid_track_kind(kind) && index >= 0 && active_index(kind) == index;
  }
  int active_index(int kind) const override {
    if (!valid_track_kind(kind)) return -1;
    return kind == kSubtitleTrack && !subtitles_enabled_ ? -1 : active_[kind];
  }
  int select_track(int kind, int index, Outbox* out) override;
  int unselect_track(int kind, int index, Outbox* out) override;
  int enable_subtitles(bool enable, Outbox* out) override;
  int add_subtitle(const std::string&, const std::string&, const std::string&, Outbox*) override {
    return -1;  // external subtitle files are not played by this engine
  }

  Clock::time_point next_deadline() const override { return next_poll_; }
  void advance(Clock::time_point now, Outbox* out) override;

 private:
  static constexpr auto kPollInterval = std::chrono::milliseconds(10);
  static constexpr auto kStartPollInterval = std::chrono::milliseconds(2);
  // How long the engine waits for the pipeline thread's answer before it goes
  // on without it (state changes and seeks: taken as under way; queries: the
  // last value known).
  static constexpr auto kCallWait = std::chrono::milliseconds(500);
  static constexpr auto kQueryWait = std::chrono::milliseconds(200);
  // How long a position is carried on without an answer from the pipeline.
  static constexpr double kCarryLimit = 5.0;  // seconds
  // A seek or rate change without its async-done after this is given up.
  static constexpr auto kSeekLimit = std::chrono::seconds(5);
  // How long after a switch that the pipeline reported a new selection
  // waits: the adaptive demuxer reports a switch when it hands the new
  // track on, and the switch reaches the decoders about kAdaptiveQueueTime
  // later; a second switch made by the demuxer while decodebin3 turns its
  // output to the first can hang both for good (GStreamer 1.22, seen when
  // a page toggles the audio track at once).
  static constexpr auto kSelectionSettle = std::chrono::milliseconds(350);

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
  void poll_soon(Clock::time_point now) {
    const bool starting =
        phase_ == Phase::kConnecting || phase_ == Phase::kPrerolling || phase_ == Phase::kStarting;
    next_poll_ = now + (starting ? kStartPollInterval : kPollInterval);
  }
  // Pre-rolls towards PLAYING when playback may start at once, else PAUSED.
  void preroll();
  // Takes a pre-roll that heads for PLAYING back to PAUSED.
  void hold_preroll();
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
  // The error event with `code`, then the error state; the pipeline is shut.
  void fail(int code, Outbox* out);
  void on_eos(Outbox* out);
  // `adaptive`: the message comes from an adaptive demuxer, whose buffer
  // is played on down to kAdaptivePlayPercent.
  void on_buffering(int percent, bool adaptive, Outbox* out);
  void on_collection(GstStreamCollection* collection, Outbox* out);
  void on_streams_selected(GstMessage* message, Outbox* out);
  void read_tracks();
  int change_selection(int kind, int index, Outbox* out);
  // Subtitles shown or hidden: the page's wish, applied to the pipeline's
  // rendering, with a track change when what the page sees changes.
  void show_subtitles(bool shown, Outbox* out);
  void send_selection();
  // send_selection() now, or once kSelectionSettle has passed (advance()).
  void send_selection_settled();
  bool selection_differs() const;

  unsigned id_;
  EngineConfig config_;
  int state_ = kIdle;
  std::string url_;
  PlayerSettings settings_;

  GstElement* pipeline_ = nullptr;  // owned; made at the first load
  GstBus* bus_ = nullptr;           // owned
  std::unique_ptr<PipelineThread> worker_;  // beside pipeline_: its blocking calls
  std::shared_ptr<ManifestCopy> manifest_;  // beside pipeline_: what its adaptive demuxer read
  mutable double last_position_ = 0.0;      // the last position a query gave
  mutable Clock::time_point last_position_at_;  // when the pipeline gave it
  Phase watched_phase_ = Phase::kNone;      // the phase phase_since_ dates
  Clock::time_point phase_since_;
  CollectionPtr collection_;
  std::vector<Track> tracks_;
  std::vector<std::string> stream_ids_;  // beside tracks_
  int wanted_[3] = {0, 0, -1};           // selection asked of the pipeline
  int active_[3] = {0, 0, -1};           // selection the pipeline reported
  // Subtitles shown. Hidden ones stay selected in the pipeline (wanted_ and
  // active_ keep the text track) and are only not drawn (gst_streams.h):
  // taking a text track of an adaptive stream out of the selection and back
  // in later leaves the demuxer unable to complete that or any later
  // selection (GStreamer 1.22), so an audio switch after subtitles off and
  // on would never happen.
  bool subtitles_enabled_ = false;
  bool announce_[3] = {false, false, false};  // the page asked: report what the pipeline selects
  Clock::time_point selection_settles_;  // a new selection waits until then
  bool selection_waits_ = false;         // a selection waits for selection_settles_

  Phase phase_ = Phase::kNone;
  bool first_preroll_ = false;     // the preroll of a load or of a play after stop
  bool announce_speed_ = false;    // the next start of playback reports the speed first
  bool play_wanted_ = true;        // where a load or seek ends: playing or paused
  bool heading_playing_ = false;   // the pre-roll under way was asked for PLAYING
  bool seek_pending_ = false;      // a seek waits for the phase under way
  bool seek_reported_ = false;     // the seek under way ends with seek-completed
  double seek_target_ = 0.0;
  bool rate_pending_ = false;      // speed_ waits for the next seek
  bool buffering_ = false;         // paused for network buffering
  int adaptive_percent_ = -1;      // the adaptive demuxer's last buffering level; -1 none yet
  bool at_edge_ = false;           // finished at an end of the stream
  double speed_ = 1.0;             // factor; 0 paused by rate
  double pipeline_rate_ = 1.0;     // rate of the pipeline's segment
  double duration_ = 0.0;
  double held_position_ = 0.0;     // reported while no query applies
  int loops_left_ = 0;
  Clock::time_point next_poll_ = Clock::time_point::max();
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_GST_PLAYER_H
