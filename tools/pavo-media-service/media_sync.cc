#include "pavo-media-service/media_sync.h"

#include <chrono>

#include "pavo-media-service/player.h"

namespace pavo::service {

uint64_t MediaSync::units_per_second(const std::string& selector) {
  // Presentation time stamps tick at 90 kHz; the other timelines in ms.
  return selector == "urn:dvb:css:timeline:pts" ? 90000 : 1000;
}

void MediaSync::start(const PlayerEngine& player, Outbox* out) {
  State& s = state_[player.id()];
  s.started = true;
  if (player.item() != nullptr && player.item()->content_id[0] != '\0') {
    SyncInfoChange change;
    change.content_id_changed = true;
    change.content_id = player.item()->content_id;
    change.content_id_status = kContentIdFinal;
    change.mrs_url_changed = true;
    change.mrs_url = player.item()->mrs_url;
    out->push_back(sync_info_event(player.id(), change));
  }
  if (!s.selector.empty()) out->push_back(timeline_available_event(player.id(), true));
}

void MediaSync::stop(unsigned player, Outbox* out) {
  State& s = state_[player];
  if (s.started && !s.selector.empty()) out->push_back(timeline_available_event(player, false));
  s.started = false;
}

void MediaSync::select_timeline(const PlayerEngine& player, const std::string& selector, Outbox* out) {
  State& s = state_[player.id()];
  s.selector = selector;
  if (!s.started) return;
  SyncInfoChange change;
  change.timeline_changed = true;
  change.timeline_selector = selector;
  change.units_per_tick = 1;
  out->push_back(sync_info_event(player.id(), change));
  out->push_back(timeline_available_event(player.id(), !selector.empty()));
}

void MediaSync::speed_changed(unsigned player, double speed, Outbox* out) const {
  auto it = state_.find(player);
  if (it != state_.end() && it->second.started) out->push_back(sync_speed_event(player, speed));
}

TimelineValues MediaSync::timeline(unsigned player, double position_seconds) const {
  TimelineValues v;
  auto it = state_.find(player);
  const std::string selector = it == state_.end() ? std::string() : it->second.selector;
  v.units_per_tick = 1;
  v.units_per_second = units_per_second(selector);
  v.content_time = static_cast<uint64_t>(position_seconds * static_cast<double>(v.units_per_second));
  v.wallclock_time = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                               std::chrono::system_clock::now().time_since_epoch())
                                               .count());
  return v;
}

}  // namespace pavo::service
