// What plays one player's media: the interface behind which the request
// dispatch and the clock drive a player, whatever does the playing. Two
// implementations: the model player (player.h), a state machine over the
// virtual media of the catalogue, and, where the build has it, the
// GStreamer engine (gst_player.h), which plays the URL through a pipeline.
//
// Every implementation reports what it does as protocol events appended to
// an outbox, and is driven by the service's clock: the service calls
// advance() once next_deadline() has come. Implementations are not
// thread-safe: the service's lock guards every player.
#ifndef PAVO_MEDIA_SERVICE_ENGINE_H
#define PAVO_MEDIA_SERVICE_ENGINE_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "pavo-media-service/catalogue.h"
#include "pavo-media-service/events.h"
#include "pavo-media-service/protocol.h"

namespace pavo::service {

using Clock = std::chrono::steady_clock;

// Fastest trick play that an engine accepts, either direction.
constexpr double kMaxSpeed = 64.0;

// Whether `kind` is a track kind that a page selects (video, audio, subtitles).
inline bool valid_track_kind(int kind) { return kind >= kVideoTrack && kind <= kSubtitleTrack; }

// What the page has set on the player; kept and reported back, otherwise
// without effect on the virtual media.
struct PlayerSettings {
  int full_screen = 0;
  int rect[4] = {0, 0, 0, 0};
  std::string mime_type, licence_server_url, custom_data, font_file, cookie;
  int loop_count = 0;  // further passes after the first; negative: endless
};

class PlayerEngine {
 public:
  virtual ~PlayerEngine() = default;

  virtual unsigned id() const = 0;
  // The player state the protocol reports (PlayerState of protocol.h).
  virtual int state() const = 0;
  // The catalogue item played; null with nothing loaded and for engines
  // that play real media.
  virtual const MediaItem* item() const = 0;
  virtual const std::string& url() const = 0;
  virtual PlayerSettings& settings() = 0;

  // Commands. Each returns the reply's "ret": 0, or -1 when the player
  // cannot do it in its state or the argument is out of range.
  virtual int load(const std::string& url, Clock::time_point now, Outbox* out) = 0;
  virtual int play(Clock::time_point now, Outbox* out) = 0;
  virtual int pause(Clock::time_point now, Outbox* out) = 0;
  virtual int stop(Clock::time_point now, Outbox* out) = 0;
  virtual int seek(double seconds, Clock::time_point now, Outbox* out) = 0;
  virtual int set_rate(double thousandths, Clock::time_point now, Outbox* out) = 0;

  // Seconds; kUnknownDuration for a live item, 0 with nothing loaded.
  virtual double duration() const = 0;
  // Seconds; the target of a seek in progress.
  virtual double position(Clock::time_point now) const = 0;
  // Speed in thousandths (1000 normal).
  virtual double rate() const = 0;

  // Tracks of one kind (0 video, 1 audio, 2 subtitle); other kinds have none.
  virtual int track_count(int kind) const = 0;
  // The index-th track of `kind`, or null. Valid until the next call on
  // this player.
  virtual const Track* track(int kind, int index) const = 0;
  virtual bool track_active(int kind, int index) const = 0;
  // Index of the selected track of `kind`; -1 when none is.
  virtual int active_index(int kind) const = 0;
  virtual int select_track(int kind, int index, Outbox* out) = 0;
  virtual int unselect_track(int kind, int index, Outbox* out) = 0;
  virtual int enable_subtitles(bool enable, Outbox* out) = 0;
  // An external subtitle track handed over by the page.
  virtual int add_subtitle(const std::string& url, const std::string& language,
                           const std::string& label, Outbox* out) = 0;

  // When advance() has work; Clock::time_point::max() when nothing is due.
  virtual Clock::time_point next_deadline() const = 0;
  // Makes every step that is due at `now`.
  virtual void advance(Clock::time_point now, Outbox* out) = 0;
};

// Makes the player with the given id; never returns null.
using EngineFactory = std::function<std::unique_ptr<PlayerEngine>(unsigned id)>;

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_ENGINE_H
