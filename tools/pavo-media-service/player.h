// One player of the service: the model engine, the state machine of a real
// player driven by commands and by the clock, over a virtual media item of
// the catalogue.
//
// Time is handed in (`now`) and never read here, so the model is plain data;
// the service calls advance() when next_deadline() has come. Every change
// that a real player would report appends its event to the outbox.
// Not thread-safe: the service's lock guards every player.
#ifndef PAVO_MEDIA_SERVICE_PLAYER_H
#define PAVO_MEDIA_SERVICE_PLAYER_H

#include <chrono>
#include <string>
#include <vector>

#include "pavo-media-service/catalogue.h"
#include "pavo-media-service/engine.h"
#include "pavo-media-service/events.h"

namespace pavo::service {

// Delays of a real player at time scale 1.
struct PlayerTimings {
  std::chrono::milliseconds connecting{200};
  std::chrono::milliseconds buffering{300};
  std::chrono::milliseconds seeking{100};
};

class Player : public PlayerEngine {
 public:
  // `time_scale` > 0: the media clock and every delay run that much faster.
  Player(unsigned id, double time_scale, const PlayerTimings& timings = PlayerTimings());

  unsigned id() const override { return id_; }
  int state() const override { return state_; }
  const MediaItem* item() const override { return item_; }
  const std::string& url() const override { return url_; }
  PlayerSettings& settings() override { return settings_; }

  // Commands. Each returns the reply's "ret": 0, or -1 when the player
  // cannot do it in its state or the argument is out of range.
  int load(const std::string& url, Clock::time_point now, Outbox* out) override;
  int play(Clock::time_point now, Outbox* out) override;
  int pause(Clock::time_point now, Outbox* out) override;
  int stop(Clock::time_point now, Outbox* out) override;
  int seek(double seconds, Clock::time_point now, Outbox* out) override;
  int set_rate(double thousandths, Clock::time_point now, Outbox* out) override;

  // Seconds; kUnknownDuration for a live item, 0 with nothing loaded.
  double duration() const override;
  // Seconds; the target of a seek in progress.
  double position(Clock::time_point now) const override;
  // Speed in thousandths (1000 normal).
  double rate() const override { return speed_ * 1000.0; }

  // Tracks of one kind (0 video, 1 audio, 2 subtitle); other kinds have none.
  int track_count(int kind) const override;
  // The index-th track of `kind`, or null.
  const Track* track(int kind, int index) const override;
  bool track_active(int kind, int index) const override;
  // Index of the selected track of `kind`; -1 when none is.
  int active_index(int kind) const override;
  int select_track(int kind, int index, Outbox* out) override;
  int unselect_track(int kind, int index, Outbox* out) override;
  int enable_subtitles(bool enable, Outbox* out) override;
  // An external subtitle track handed over by the page.
  int add_subtitle(const std::string& url, const std::string& language, const std::string& label,
                   Outbox* out) override;

  // When advance() has work; Clock::time_point::max() when nothing is due.
  Clock::time_point next_deadline() const override;
  // Makes every step that is due at `now` (load phases, seek completion,
  // end of stream, start reached while rewinding).
  void advance(Clock::time_point now, Outbox* out) override;

 private:
  enum class Phase { kNone, kConnecting, kBuffering, kSeeking };

  void set_state(int state, Outbox* out);
  void emit(int event, int sub_event, int data1, double data2, Outbox* out) const;
  void freeze(Clock::time_point now);
  Clock::time_point after(std::chrono::milliseconds delay, Clock::time_point now) const;
  Clock::time_point edge_time() const;  // when playback reaches an end
  std::vector<const Track*> tracks_of(int kind) const;
  void complete_phase(Clock::time_point at, Outbox* out);

  unsigned id_;
  double scale_;
  PlayerTimings timings_;
  int state_ = 0;
  const MediaItem* item_ = nullptr;
  std::string url_;
  std::vector<Track> tracks_;
  int active_[3] = {0, 0, -1};
  bool subtitles_enabled_ = false;
  PlayerSettings settings_;
  int loops_left_ = 0;

  Phase phase_ = Phase::kNone;
  Clock::time_point phase_end_ = Clock::time_point::max();
  bool play_wanted_ = true;       // where a load or seek ends: playing or paused
  bool seek_pending_ = false;     // a seek waits for the end of the phase
  double seek_target_ = 0.0;

  double speed_ = 1.0;            // factor; negative rewinds
  double anchor_position_ = 0.0;  // position at anchor_time_
  Clock::time_point anchor_time_{};
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_PLAYER_H
