// The plug-in's side of the library's callbacks, shared by pavo-avctl and
// pavo-hbbtv-browser: what an A/V control or DRM agent callback received,
// as a plain value that can be queued and printed, and the names of the
// interface's numbers.
//
// Thread safety: plain functions and values; the translations may run on
// the library's event thread.
#ifndef PAVO_TOOLS_PLUGIN_SIDE_EVENTS_H
#define PAVO_TOOLS_PLUGIN_SIDE_EVENTS_H

#include <string>

#include "pavo_avctrl_types.h"
#include "pavo_drm_types.h"

namespace pavo::plugin {

// One A/V control callback: the event and its value as the event defines it
// (play state, component type and DRM error in int_value; speed and
// position in double_value).
struct AvEvent {
  PavoAVCtrlEvent event = PAVO_AVCTRL_EVENT_PLAYSTATECHANGE;
  int int_value = 0;
  double double_value = 0;
  bool known = true;  // false for an event number the interface does not name
};

// Reads the callback's record (null: a zero record).
AvEvent av_event_of(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info);
// "play state -> playing", "speed -> 2", "position -> 30000 ms (00:30.0)", ...
std::string describe(const AvEvent& event);

// One DRM agent callback, its texts copied (the record's are valid only
// during the callback).
struct DrmEvent {
  PavoDrmEvent event = PAVO_DRM_EVENT_MESSAGE_RESULT;
  std::string msg_id;   // message result: the id the send returned
  std::string message;  // message result: the result text; system message: the message
  std::string system;   // system message, status change: the DRM system id
  int result_code = 0;  // message result
  bool known = true;
};

DrmEvent drm_event_of(PavoDrmEvent event, const PavoDrmEventInfo* info);
std::string describe(const DrmEvent& event);

// Names for printing; "?" for values outside the interface's tables.
const char* play_state_name(int state);
const char* component_type_text(int type);
const char* error_name(int code);
const char* drm_status_name(int status);

}  // namespace pavo::plugin

#endif  // PAVO_TOOLS_PLUGIN_SIDE_EVENTS_H
