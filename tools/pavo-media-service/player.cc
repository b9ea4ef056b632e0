#include "pavo-media-service/player.h"

#include <algorithm>
#include <cmath>

#include "pavo-media-service/protocol.h"

namespace pavo::service {
Player::Player(unsigned id, double time_scale, const PlayerTimings& timings)
    : id_(id), scale_(time_scale), timings_(timings) {}

void Player::emit(int event, int sub_event, int data1, double data2, Outbox* out) const {
  out->push_back(player_event(id_, event, sub_event, data1, data2));
}

void Player::set_state(int state, Outbox* out) {
  if (state == state_) return;
  state_ = state;
  emit(kStateChangeEvent, 0, state, 0.0, out);
}

Clock::time_point Player::after(std::chrono::milliseconds delay, Clock::time_point now) const {
  const auto scaled = std::chrono::duration<double, std::milli>(delay.count() / scale_);
  return now + std::chrono::duration_cast<Clock::duration>(scaled);
}

double Player::duration() const { return item_ == nullptr ? 0.0 : item_->duration; }

double Player::position(Clock::time_point now) const {
  if (phase_ == Phase::kSeeking || seek_pending_) return seek_target_;
  if (state_ != kPlaying) return anchor_position_;
  const double elapsed = std::chrono::duration<double>(now - anchor_time_).count();
  double p = anchor_position_ + elapsed * speed_ * scale_;
  if (p < 0) p = 0;
  if (!item_->live && p > item_->duration) p = item_->duration;
  return p;
}

void Player::freeze(Clock::time_point now) {
  anchor_position_ = position(now);
  anchor_time_ = now;
}

int Player::load(const std::string& url, Clock::time_point now, Outbox* out) {
  item_ = &find_media(url);
  url_ = url;
  tracks_ = item_->tracks;
  active_[kVideoTrack] = 0;
  active_[kAudioTrack] = 0;
  active_[kSubtitleTrack] = subtitles_enabled_ && track_count(kSubtitleTrack) > 0 ? 0 : -1;
  loops_left_ = settings_.loop_count;
  speed_ = 1.0;
  anchor_position_ = 0.0;
  anchor_time_ = now;
  seek_pending_ = false;
  play_wanted_ = true;
  phase_ = Phase::kConnecting;
  phase_end_ = after(timings_.connecting, now);
  if (state_ == kConnecting) state_ = kLoaded;  // a reload reports connecting again
  set_state(kConnecting, out);
  return 0;
}

int Player::play(Clock::time_point now, Outbox* out) {
  switch (state_) {
    case kConnecting:
    case kBuffering:
    case kSeeking:
      play_wanted_ = true;
      return 0;
    case kPlaying:
      return 0;
    case kPaused:
      freeze(now);
      if (speed_ == 0.0) {
        speed_ = 1.0;
        emit(kSpeedChangeEvent, 0, 1000, 0.0, out);
      }
      set_state(kPlaying, out);
      return 0;
    case kFinished:
      // At the end a new pass starts from the beginning; where a rewind
      // stopped, playback goes on from there.
      if (speed_ > 0 && !item_->live && anchor_position_ >= item_->duration) anchor_position_ = 0.0;
      anchor_time_ = now;
      set_state(kPlaying, out);
      return 0;
    case kStopped:
      if (item_ == nullptr || item_->load_error >= 0) return -1;
      anchor_position_ = 0.0;
      anchor_time_ = now;
      play_wanted_ = true;
      phase_ = Phase::kBuffering;
      phase_end_ = after(timings_.buffering, now);
      set_state(kBuffering, out);
      return 0;
    default:  // idle, error
      return -1;
  }
}

int Player::pause(Clock::time_point now, Outbox* out) {
  switch (state_) {
    case kConnecting:
    case kBuffering:
    case kSeeking:
      play_wanted_ = false;
      return 0;
    case kPlaying:
      freeze(now);
      set_state(kPaused, out);
      return 0;
    case kPaused:
    case kFinished:
      return 0;
    default:
      return -1;
  }
}

int Player::stop(Clock::time_point now, Outbox* out) {
  if (state_ == kIdle) return 0;
  phase_ = Phase::kNone;
  phase_end_ = Clock::time_point::max();
  seek_pending_ = false;
  anchor_position_ = 0.0;
  anchor_time_ = now;
  set_state(kStopped, out);
  return 0;
}

int Player::seek(double seconds, Clock::time_point now, Outbox* out) {
  if (item_ == nullptr || !std::isfinite(seconds)) return -1;
  if (state_ == kIdle || state_ == kStopped || state_ == kError) return -1;
  seconds = std::max(seconds, 0.0);
  if (!item_->live) seconds = std::min(seconds, item_->duration);
  if (state_ == kConnecting || state_ == kBuffering || state_ == kSeeking) {
    // Completed at the end of the load or of the seek under way.
    seek_target_ = seconds;
    seek_pending_ = state_ != kSeeking;
    return 0;
  }
  play_wanted_ = state_ == kPlaying;
  freeze(now);
  seek_target_ = seconds;
  phase_ = Phase::kSeeking;
  phase_end_ = after(timings_.seeking, now);
  set_state(kSeeking, out);
  return 0;
}

int Player::set_rate(double thousandths, Clock::time_point now, Outbox* out) {
  const double speed = thousandths / 1000.0;
  if (!std::isfinite(speed) || std::fabs(speed) > kMaxSpeed) return -1;
  if (item_ != nullptr && item_->live && speed > 1.0) return -1;  // nothing beyond the live edge
  freeze(now);
  speed_ = speed;
  emit(kSpeedChangeEvent, 0, static_cast<int>(std::lround(thousandths)), 0.0, out);
  if (speed == 0.0 && state_ == kPlaying) set_state(kPaused, out);
  return 0;
}

std::vector<const Track*> Player::tracks_of(int kind) const {
  std::vector<const Track*> found;
  for (const Track& t : tracks_) {
    if (t.kind == kind) found.push_back(&t);
  }
  return found;
}

int Player::track_count(int kind) const { return static_cast<int>(tracks_of(kind).size()); }

const Track* Player::track(int kind, int index) const {
  const std::vector<const Track*> found = tracks_of(kind);
  if (index < 0 || index >= static_cast<int>(found.size())) return nullptr;
  return found[static_cast<std::size_t>(index)];
}

bool Player::track_active(int kind, int index) const {
  return valid_track_kind(kind) && active_[kind] == index;
}

int Player::active_index(int kind) const { return valid_track_kind(kind) ? active_[kind] : -1; }

int Player::select_track(int kind, int index, Outbox* out) {
  if (!valid_track_kind(kind) || track(kind, index) == nullptr) return -1;
  if (active_[kind] == index) return 0;
  active_[kind] = index;
  if (kind == kSubtitleTrack) subtitles_enabled_ = true;
  emit(kTrackChangeEvent, 0, kind, 0.0, out);
  return 0;
}

int Player::unselect_track(int kind, int index, Outbox* out) {
  if (!valid_track_kind(kind) || track(kind, index) == nullptr) return -1;
  if (active_[kind] != index) return 0;
  active_[kind] = -1;
  emit(kTrackChangeEvent, 0, kind, 0.0, out);
  return 0;
}

int Player::enable_subtitles(bool enable, Outbox* out) {
  subtitles_enabled_ = enable;
  const int wanted = enable && track_count(kSubtitleTrack) > 0 ? std::max(active_[kSubtitleTrack], 0) : -1;
  if (wanted != active_[kSubtitleTrack]) {
    active_[kSubtitleTrack] = wanted;
    emit(kTrackChangeEvent, 0, kSubtitleTrack, 0.0, out);
  }
  return 0;
}

int Player::add_subtitle(const std::string& url, const std::string& language, const std::string& label,
                         Outbox* out) {
  if (item_ == nullptr) return -1;
  Track t;
  t.kind = kSubtitleTrack;
  t.track_id = 100 + static_cast<int>(tracks_.size());
  t.encoding = "application/ttml+xml";
  t.url = url;
  t.language = language;
  t.label = label;
  tracks_.push_back(t);
  emit(kComponentUpdatedEvent, 0, kSubtitleTrack, 0.0, out);
  return 0;
}

Clock::time_point Player::edge_time() const {
  if (state_ != kPlaying || speed_ == 0.0) return Clock::time_point::max();
  double seconds;  // media seconds to the end that playback runs towards
  if (speed_ > 0) {
    if (item_->live) return Clock::time_point::max();
    seconds = (item_->duration - anchor_position_) / speed_;
  } else {
    seconds = anchor_position_ / -speed_;
  }
  const auto wall = std::chrono::duration<double>(std::max(seconds, 0.0) / scale_);
  return anchor_time_ + std::chrono::duration_cast<Clock::duration>(wall);
}

Clock::time_point Player::next_deadline() const { return std::min(phase_end_, edge_time()); }

void Player::complete_phase(Clock::time_point at, Outbox* out) {
  const Phase done = phase_;
  phase_ = Phase::kNone;
  phase_end_ = Clock::time_point::max();
  if (done == Phase::kConnecting) {
    if (item_->load_error >= 0) {
      emit(kErrorEvent, item_->load_error, item_->drm_error_code, 0.0, out);
      set_state(kError, out);
      return;
    }
    phase_ = Phase::kBuffering;
    phase_end_ = after(timings_.buffering, at);
    set_state(kBuffering, out);
    return;
  }
  // Buffering after a load or a seek: the media is there.
  anchor_time_ = at;
  if (done == Phase::kSeeking || seek_pending_) {
    seek_pending_ = false;
    anchor_position_ = seek_target_;
    emit(kSeekCompletedEvent, 0, 0, seek_target_, out);
  }
  const bool plays = play_wanted_ && speed_ != 0.0;
  // Playback that starts reports its speed first, as a real player does.
  if (plays && done == Phase::kBuffering) {
    emit(kSpeedChangeEvent, 0, static_cast<int>(std::lround(speed_ * 1000.0)), 0.0, out);
  }
  set_state(plays ? kPlaying : kPaused, out);
}

void Player::advance(Clock::time_point now, Outbox* out) {
  for (int guard = 0; guard < 8; ++guard) {
    if (phase_end_ <= now) {
      complete_phase(phase_end_, out);
      continue;
    }
    const Clock::time_point edge = edge_time();
    if (edge > now) return;
    if (speed_ > 0 && loops_left_ != 0) {
      // Another pass: start over without a report, as a looping player does.
      if (loops_left_ > 0) --loops_left_;
      anchor_position_ = 0.0;
      anchor_time_ = edge;
      continue;
    }
    anchor_position_ = speed_ > 0 ? item_->duration : 0.0;
    anchor_time_ = edge;
    set_state(kFinished, out);
  }
}

}  // namespace pavo::service
