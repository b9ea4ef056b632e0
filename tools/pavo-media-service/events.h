// Builders of the event texts that the service sends on the event queue, one
// function per family. Members are top-level, as the protocol tables list
// them.
#ifndef PAVO_MEDIA_SERVICE_EVENTS_H
#define PAVO_MEDIA_SERVICE_EVENTS_H

#include <json/json.h>

#include <string>
#include <vector>

namespace pavo::service {

// Events produced while the service's lock is held, sent in order after.
using Outbox = std::vector<Json::Value>;

// Family 0: {"event_type":0,"event","sub_event","player_id","data1","data2"}.
Json::Value player_event(unsigned player_id, int event, int sub_event, int data1, double data2);

// Family 1, message 0 and 1.
Json::Value timeline_available_event(unsigned player_id, bool available);
Json::Value sync_speed_event(unsigned player_id, double speed);

// Family 1, message 2: each part is sent only with its flag set.
struct SyncInfoChange {
  bool timeline_changed = false;
  std::string timeline_selector;
  unsigned units_per_tick = 0;
  bool content_id_changed = false;
  std::string content_id;
  int content_id_status = 0;
  bool mrs_url_changed = false;
  std::string mrs_url;
};
Json::Value sync_info_event(unsigned player_id, const SyncInfoChange& change);

// Family 3: "context" is the text the agent registered.
Json::Value drm_message_result_event(const std::string& context, const std::string& msg_id,
                                     const std::string& result_msg, int result_code);
Json::Value drm_system_message_event(const std::string& context, const std::string& msg,
                                     const std::string& sys_id);
Json::Value drm_status_change_event(const std::string& context, const std::string& sys_id);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_EVENTS_H
