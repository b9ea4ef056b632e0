// Media synchronisation per player: whether it runs, the chosen timeline,
// and the messages a running synchroniser sends (timeline available, speed,
// content identifier and MRS URL changes).
// Not thread-safe: the service's lock guards it.
#ifndef PAVO_MEDIA_SERVICE_MEDIA_SYNC_H
#define PAVO_MEDIA_SERVICE_MEDIA_SYNC_H

#include <cstdint>
#include <map>
#include <string>

#include "pavo-media-service/events.h"

namespace pavo::service {

class PlayerEngine;

// Content-identifier status reported with every content identifier: the
// identifier is final (this service's numbering: 0 partial, 1 final).
constexpr int kContentIdFinal = 1;

struct TimelineValues {
  uint64_t units_per_tick = 0, units_per_second = 0, content_time = 0, wallclock_time = 0;
};

class MediaSync {
 public:
  void set_registered(unsigned player, bool registered) { state_[player].registered = registered; }
  // Starts the synchroniser: content identifier and MRS URL are announced,
  // and the timeline when one is selected.
  void start(const PlayerEngine& player, Outbox* out);
  void stop(unsigned player, Outbox* out);
  void select_timeline(const PlayerEngine& player, const std::string& selector, Outbox* out);
  void enable_multi_stream(unsigned player, bool enable) { state_[player].multi_stream = enable; }
  // A running synchroniser reports every speed change (factor).
  void speed_changed(unsigned player, double speed, Outbox* out) const;
  // Current values of the selected timeline at `position` seconds.
  TimelineValues timeline(unsigned player, double position_seconds) const;
  void forget(unsigned player) { state_.erase(player); }

 private:
  struct State {
    bool registered = false, started = false, multi_stream = false;
    std::string selector;
  };
  static uint64_t units_per_second(const std::string& selector);

  std::map<unsigned, State> state_;
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_MEDIA_SYNC_H
