#include "pavo-media-service/events.h"

#include "pavo-media-service/protocol.h"

namespace pavo::service {
namespace {

Json::Value family(int event_type, int event) {
  Json::Value v(Json::objectValue);
  v["event_type"] = event_type;
  v["event"] = event;
  return v;
}

}  // namespace

Json::Value player_event(unsigned player_id, int event, int sub_event, int data1, double data2) {
  Json::Value v = family(kPlayerEvent, event);
  v["sub_event"] = sub_event;
  v["player_id"] = player_id;
  v["data1"] = data1;
  v["data2"] = data2;
  return v;
}

Json::Value timeline_available_event(unsigned player_id, bool available) {
  Json::Value v = family(kMediaSyncEvent, kTimelineAvailable);
  v["player_id"] = player_id;
  v["timelineAvailable"] = available;
  return v;
}

Json::Value sync_speed_event(unsigned player_id, double speed) {
  Json::Value v = family(kMediaSyncEvent, kSyncSpeedChange);
  v["player_id"] = player_id;
  v["speed"] = speed;
  return v;
}

Json::Value sync_info_event(unsigned player_id, const SyncInfoChange& change) {
  Json::Value v = family(kMediaSyncEvent, kSyncInfoChange);
  v["player_id"] = player_id;
  v["bTimelineOptionsChange"] = change.timeline_changed;
  if (change.timeline_changed) {
    v["timelineSelector"] = change.timeline_selector;
    v["unitsPerTick"] = change.units_per_tick;
  }
  v["bContentIdChange"] = change.content_id_changed;
  if (change.content_id_changed) {
    v["contentId"] = change.content_id;
    v["contentIdStatus"] = change.content_id_status;
  }
  v["bMrsUrlChange"] = change.mrs_url_changed;
  if (change.mrs_url_changed) v["mrsUrl"] = change.mrs_url;
  return v;
}

Json::Value drm_message_result_event(const std::string& context, const std::string& msg_id,
                                     const std::string& result_msg, int result_code) {
  Json::Value v = family(kDrmEvent, kDrmMessageResult);
  v["context"] = context;
  v["msg_id"] = msg_id;
  v["result_msg"] = result_msg;
  v["result_code"] = result_code;
  return v;
}

Json::Value drm_system_message_event(const std::string& context, const std::string& msg,
                                     const std::string& sys_id) {
  Json::Value v = family(kDrmEvent, kDrmSystemMessage);
  v["context"] = context;
  v["msg"] = msg;
  v["sys_id"] = sys_id;
  return v;
}

Json::Value drm_status_change_event(const std::string& context, const std::string& sys_id) {
  Json::Value v = family(kDrmEvent, kDrmStatusChange);
  v["context"] = context;
  v["sys_id"] = sys_id;
  return v;
}

}  // namespace pavo::service
