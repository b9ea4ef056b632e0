#include "mediaplayer_ipc/event_reception.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "hbbtv_plugin_impl.h"
#include "mediaplayer_ipc/json_input.h"
#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/registry.h"
#include "mediaplayer_ipc/service_monitor.h"
#include "mediaplayer_ipc/styled_object.h"

namespace pavo::mediaplayer {
namespace {

constexpr char kEventCallback[] = "MediaPlayerIPCAsyncCallback";
constexpr char kRequestCallback[] = "MediaPlayerIPCCallback";

enum EventFamily { kPlayerEvent = 0, kMediaSyncMessage = 1, kDrmEvent = 3 };
constexpr int kChangeDisplaySource = 2;

// Members read from every event before its family is looked at.
struct EventHeader {
  unsigned player_id = 0;
  int event_type = 0;
  int event = 0;
  int sub_event = 0;
};

// Whether a message is one after which the transport ends the receive
// thread that delivered it (a one-way message beginning with "exit"; on the
// request server a request beginning so is taken for one too).
bool ends_receive_thread(const pavo_ipc_msg* message) {
  return message != nullptr && message->data != nullptr &&
         std::strncmp(message->data, "exit", 4) == 0;
}

// Parses a received text: it ends at its NUL, and never beyond `len`.
bool parse_message(const pavo_ipc_msg* message, Json::Value* root) {
  if (message == nullptr || message->data == nullptr || message->len == 0) return false;
  return parse_object(message->data, strnlen(message->data, message->len), root);
}

// Each returns false for an unreadable event or a callback that threw (the
// caller logs it).
bool deliver_player_event(const Json::Value& event, const EventHeader& h, const char* function) {
  int data1 = 0;
  double data2 = 0.0;
  if (!read_int(event, "data1", &data1) || !read_double(event, "data2", &data2)) return false;
  const Dispatch outcome =
      dispatch_player_event(h.player_id, static_cast<PavoMediaPluginEvent>(h.event),
                            static_cast<PavoMediaError>(h.sub_event), data1, data2);
  if (outcome == Dispatch::kNoEntry) log_error(function);  // the event is lost
  return outcome != Dispatch::kCallbackThrew;
}

bool deliver_media_sync_message(const Json::Value& message, const EventHeader& h) {
  if (!media_sync_registered()) return true;  // dropped without a record
  PavoMSEventInfo info;
  std::memset(&info, 0, sizeof info);
  // The texts live until the callback has returned.
  std::string selector;
  std::string content_id;
  std::string mrs_url;
  switch (h.event) {
    case PAVO_MEDIA_SYNC_MSG_TIMELINE_AVAILABLE:
      if (!read_bool(message, "timelineAvailable", &info.available.timelineAvailable)) return false;
      break;
    case PAVO_MEDIA_SYNC_MSG_SPEED_CHANGE:
      if (!read_double(message, "speed", &info.speedChange.speed)) return false;
      break;
    case PAVO_MEDIA_SYNC_MSG_INFO_CHANGE: {
      auto& change = info.infoChange;
      if (!read_bool(message, "bTimelineOptionsChange", &change.bTimelineOptionsChange)) return false;
      if (change.bTimelineOptionsChange) {
        unsigned units_per_tick = 0;
        if (!read_string(message, "timelineSelector", &selector) ||
            !read_uint(message, "unitsPerTick", &units_per_tick)) {
          return false;
        }
        change.timelineSelector = selector.c_str();
        change.unitsPerTick = units_per_tick;
      }
      if (!read_bool(message, "bContentIdChange", &change.bContentIdChange)) return false;
      if (change.bContentIdChange) {
        int status = 0;
        if (!read_string(message, "contentId", &content_id) ||
            !read_int(message, "contentIdStatus", &status)) {
          return false;
        }
        change.contentId = content_id.c_str();
        change.contentIdStatus = static_cast<PavoContentIdStatus>(status);
      }
      if (!read_bool(message, "bMrsUrlChange", &change.bMrsUrlChange)) return false;
      if (change.bMrsUrlChange) {
        if (!read_string(message, "mrsUrl", &mrs_url)) return false;
        change.mrsUrl = mrs_url.c_str();
      }
      break;
    }
    default:
      break;  // other message types are delivered with nothing filled
  }
  return dispatch_media_sync(static_cast<PavoMediaSyncMsgType>(h.event), info) !=
         Dispatch::kCallbackThrew;
}

bool deliver_drm_event(const Json::Value& event, const EventHeader& h, const char* function) {
  std::string context;
  if (!read_string(event, "context", &context)) return false;
  // The user data travels as its "%p" text; text that is no pointer
  // (such as "(nil)") gives null. Only a context registered in this process
  // is handed on as a pointer (registry.h): any other text is a forgery.
  void* claimed = nullptr;
  std::sscanf(context.c_str(), "%p", &claimed);

  PavoDrmEventInfo info;
  std::memset(&info, 0, sizeof info);
  std::string first;   // msg_id or msg
  std::string second;  // result_msg or sys_id
  switch (h.event) {
    case PAVO_DRM_EVENT_MESSAGE_RESULT: {
      int code = 0;
      if (!read_string(event, "msg_id", &first) || !read_string(event, "result_msg", &second) ||
          !read_int(event, "result_code", &code)) {
        return false;
      }
      info.messageResult = {first.c_str(), second.c_str(), code};
      break;
    }
    case PAVO_DRM_EVENT_SYSTEM_MESSAGE:
      if (!read_string(event, "msg", &first) || !read_string(event, "sys_id", &second)) return false;
      info.systemMessage = {first.c_str(), second.c_str()};
      break;
    case PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE:
      if (!read_string(event, "sys_id", &second)) return false;
      info.statusChange = {second.c_str()};
      break;
    default:
      log_error(function);  // not a DRM event: no call
      return true;
  }
  bool foreign = false;
  const Dispatch outcome = dispatch_drm(static_cast<PavoDrmEvent>(h.event), info, claimed, &foreign);
  if (foreign) log_error(function);  // delivered with null user data
  return outcome != Dispatch::kCallbackThrew;
}

// Returns false for an unreadable event.
bool receive_event(const pavo_ipc_msg* message) {
  Json::Value event;
  if (!parse_message(message, &event)) return false;
  EventHeader h;
  if (!read_uint(event, "player_id", &h.player_id) || !read_int(event, "event_type", &h.event_type) ||
      !read_int(event, "event", &h.event) || !read_int(event, "sub_event", &h.sub_event)) {
    return false;
  }
  switch (h.event_type) {
    case kPlayerEvent: return deliver_player_event(event, h, kEventCallback);
    case kMediaSyncMessage: return deliver_media_sync_message(event, h);
    case kDrmEvent: return deliver_drm_event(event, h, kEventCallback);
    default: return true;  // not a family of ours: ignored
  }
}

// Returns the reply text, or false for an unreadable request.
bool answer_request(const pavo_ipc_msg* request, std::string* reply_text) {
  Json::Value body;
  if (!parse_message(request, &body)) return false;
  int request_type = 0;
  if (!read_int(body, "event_type", &request_type)) return false;
  int result = 0;
  if (request_type == kChangeDisplaySource) {
    int source = 0;
    if (!read_int(body, "source", &source)) return false;
    result = Pavo_Hbbtv_PAC_VB_ChangeDisplaySource(source);
  }
  StyledObject reply;
  reply.add_int("ret", result);
  reply.render(reply_text);
  return true;
}

}  // namespace

pavo_ipc_msg* MediaPlayerIPCAsyncCallback(pavo_ipc_msg* message, void*) {
  log_enter(kEventCallback);
  // Out of memory drops the message; the forced unwind of a cancelled thread
  // is no std::exception and passes on to the thread's start.
  try {
    if (!receive_event(message)) log_error(kEventCallback);
  } catch (const std::exception&) {
    log_error(kEventCallback);
  }
  if (ends_receive_thread(message)) note_exit_message(Server::kEvent);
  return nullptr;
}

pavo_ipc_msg* MediaPlayerIPCCallback(pavo_ipc_msg* request, void*) {
  log_enter(kRequestCallback);
  if (ends_receive_thread(request)) {
    note_exit_message(Server::kRequest);
    log_error(kRequestCallback);
    return nullptr;
  }
  try {
    std::string text;
    if (!answer_request(request, &text)) {
      log_error(kRequestCallback);
      return nullptr;
    }
    char* data = strdup(text.c_str());
    auto* reply = data == nullptr ? nullptr : new (std::nothrow) pavo_ipc_msg;
    if (reply == nullptr) {
      std::free(data);
      log_error(kRequestCallback);
      return nullptr;
    }
    reply->len = static_cast<uint32_t>(text.size());
    reply->data = data;
    log_leave(kRequestCallback);
    return reply;
  } catch (const std::exception&) {  // out of memory
    log_error(kRequestCallback);
    return nullptr;
  }
}

}  // namespace pavo::mediaplayer
