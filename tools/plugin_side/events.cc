#include "plugin_side/events.h"

#include <cstdio>

#include "plugin_side/timeline.h"

namespace pavo::plugin {
namespace {

const char* or_empty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

const char* play_state_name(int state) {
  static const char* const kNames[] = {"stopped", "playing", "paused", "connecting",
                                       "buffering", "finished", "error"};
  return state >= 0 && state <= 6 ? kNames[state] : "?";
}

const char* component_type_text(int type) {
  switch (type) {
    case PAVO_AV_COMPONENT_TYPE_VIDEO: return "video";
    case PAVO_AV_COMPONENT_TYPE_AUDIO: return "audio";
    case PAVO_AV_COMPONENT_TYPE_SUBTITLE: return "subtitle";
    case PAVO_AV_COMPONENT_TYPE_OTHER: return "other";
    default: return "?";
  }
}

const char* error_name(int code) {
  switch (code) {
    case PAVO_AVCTRL_ERROR_NONE: return "none";
    case PAVO_AVCTRL_ERROR_FORMAT: return "format";
    case PAVO_AVCTRL_ERROR_CONNECTION: return "connection";
    case 2: return "unidentified";
    case 3: return "insufficient resources";
    case PAVO_AVCTRL_ERROR_CORRUPT: return "corrupt";
    case PAVO_AVCTRL_ERROR_NOT_AVAILABLE: return "not-available";
    default: return "?";
  }
}

// DRMSystemStatus values of the OIPF DRM agent.
const char* drm_status_name(int status) {
  switch (status) {
    case 0: return "ready";
    case 1: return "unknown";
    case 2: return "initialising";
    case 3: return "error";
    default: return "?";
  }
}

AvEvent av_event_of(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info) {
  AvEvent out;
  out.event = event;
  const PavoAVCtrlEventInfo zero{};
  const PavoAVCtrlEventInfo& record = info != nullptr ? *info : zero;
  switch (event) {
    case PAVO_AVCTRL_EVENT_SPEEDCHANGE:
    case PAVO_AVCTRL_EVENT_POSITIONCHANGE:
      out.double_value = record.value.doubleValue;
      break;
    case PAVO_AVCTRL_EVENT_PLAYSTATECHANGE:
    case PAVO_AVCTRL_EVENT_COMPONENTCHANGE:
    case PAVO_AVCTRL_EVENT_DRMERROR:
    case PAVO_AVCTRL_EVENT_MEDIAERROR:
      out.int_value = record.value.intValue;
      break;
    default:
      out.int_value = record.value.intValue;
      out.known = false;
      break;
  }
  return out;
}

std::string describe(const AvEvent& e) {
  char text[160];
  switch (e.event) {
    case PAVO_AVCTRL_EVENT_PLAYSTATECHANGE:
      std::snprintf(text, sizeof text, "play state -> %s", play_state_name(e.int_value));
      break;
    case PAVO_AVCTRL_EVENT_SPEEDCHANGE:
      std::snprintf(text, sizeof text, "speed -> %g", e.double_value);
      break;
    case PAVO_AVCTRL_EVENT_POSITIONCHANGE:
      std::snprintf(text, sizeof text, "position -> %.0f ms (%s)", e.double_value,
                    clock_text(e.double_value).c_str());
      break;
    case PAVO_AVCTRL_EVENT_COMPONENTCHANGE:
      std::snprintf(text, sizeof text, "component change: %s", component_type_text(e.int_value));
      break;
    case PAVO_AVCTRL_EVENT_DRMERROR:
      std::snprintf(text, sizeof text, "DRM error %d", e.int_value);
      break;
    case PAVO_AVCTRL_EVENT_MEDIAERROR:
      std::snprintf(text, sizeof text, "media error");
      break;
    default:
      std::snprintf(text, sizeof text, "unknown event %d (value %d)", static_cast<int>(e.event), e.int_value);
      break;
  }
  return text;
}

DrmEvent drm_event_of(PavoDrmEvent event, const PavoDrmEventInfo* info) {
  DrmEvent out;
  out.event = event;
  if (info == nullptr) {
    out.known = false;
    return out;
  }
  switch (event) {
    case PAVO_DRM_EVENT_MESSAGE_RESULT:
      out.msg_id = or_empty(info->messageResult.msgId);
      out.message = or_empty(info->messageResult.resultMsg);
      out.result_code = info->messageResult.resultCode;
      break;
    case PAVO_DRM_EVENT_SYSTEM_MESSAGE:
      out.message = or_empty(info->systemMessage.msg);
      out.system = or_empty(info->systemMessage.sysId);
      break;
    case PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE:
      out.system = or_empty(info->statusChange.sysId);
      break;
    default:
      out.known = false;
      break;
  }
  return out;
}

std::string describe(const DrmEvent& e) {
  switch (e.event) {
    case PAVO_DRM_EVENT_MESSAGE_RESULT:
      return "DRM message result: id \"" + e.msg_id + "\", code " + std::to_string(e.result_code) + ", \"" +
             e.message + "\"";
    case PAVO_DRM_EVENT_SYSTEM_MESSAGE:
      return "DRM system message from \"" + e.system + "\": \"" + e.message + "\"";
    case PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE:
      return "DRM system status change: \"" + e.system + "\"";
    default:
      return "unknown DRM event " + std::to_string(static_cast<int>(e.event));
  }
}

}  // namespace pavo::plugin
