// The DRM agent: the exported Pavo_DrmAgent_* functions, which check their
// arguments, and the commands 200 to 208 that they run
// (Pavo_MediaPlayer_IPC_DrmAgent_*). The service's DRM events come back
// through event_reception.cc.
#include <cstdio>
#include <cstring>
#include <string>

#include "base/result_codes.h"
#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/registry.h"
#include "mediaplayer_ipc/request_frame.h"
#include "pavo_drm_agent.h"
#include "pavo_mediaplayer_ipc.h"

using pavo::mediaplayer::Command;
using pavo::mediaplayer::PointerText;
using pavo::mediaplayer::refuse_null_argument;

namespace {

const char* or_empty(const char* text) { return text != nullptr ? text : ""; }

// Commands of one agent that send texts and read one out-argument; a null
// `private_data` means the command has no such member.
template <typename T>
int ask(const char* function, int event_type, void* handle, const char* private_data,
        const char* system_id, const char* member, T* out, const char* file = __builtin_FILE(),
        int line = __builtin_LINE()) {
  if (system_id == nullptr || out == nullptr) return refuse_null_argument(function, file, line);
  Command command(function, event_type, file, line);
  const PointerText in_handle(handle);
  command.with("in_handle", in_handle).with("system_id", system_id);
  if (private_data != nullptr) command.with("private_data", private_data);
  return command.read(member, out).run();
}

}  // namespace

// ---- Commands (200 to 208) ---------------------------------------------------
// The agent handle travels as its "%p" text in "in_handle". Null texts and
// out-arguments are refused with -1 (the Pavo_DrmAgent_* checks keep them
// away), except where sendDRMMessage says otherwise.

// The handle is read back from the "%p" text of "out_handle"; a reply
// without one (or with text that is no pointer) stores null.
int Pavo_MediaPlayer_IPC_DrmAgent_Create(void** handle) {
  if (handle == nullptr) return refuse_null_argument(__func__);
  std::string text;
  Command command(__func__, 200);
  const int result = command.read("out_handle", &text).run();
  if (command.replied()) {
    void* created = nullptr;
    std::sscanf(text.c_str(), "%p", &created);
    *handle = created;
  }
  return result;
}

// The agent's context is forgotten first: its events are no longer handed
// its user data.
int Pavo_MediaPlayer_IPC_DrmAgent_Destroy(void* handle) {
  pavo::mediaplayer::forget_drm_context(handle);
  return Command(__func__, 201).with("in_handle", PointerText(handle)).run();
}

// The callback replaces that of every agent before the request, whatever the
// request returns; the user data travels as "context" and comes back with
// each of the agent's events, which hand it on only while it is the
// registered context of an agent (registry.h).
int Pavo_MediaPlayer_IPC_DrmAgent_RegisterCallback(void* handle, PavoDrmCallback cb,
                                                   const void* user_data) {
  pavo::mediaplayer::set_drm_callback(cb);
  if (!pavo::mediaplayer::remember_drm_context(handle, user_data)) {
    pavo::mediaplayer::log_error(__func__);
    return pavo::kNoMemory;
  }
  return Command(__func__, 202)
      .with("in_handle", PointerText(handle))
      .with("context", PointerText(user_data))
      .run();
}

// Clears the callback of every agent, and this agent's context, before the
// request.
int Pavo_MediaPlayer_IPC_DrmAgent_UnregisterCallback(void* handle) {
  pavo::mediaplayer::forget_drm_context(handle);
  pavo::mediaplayer::set_drm_callback(nullptr);
  return Command(__func__, 203).with("in_handle", PointerText(handle)).run();
}

// Null texts are sent as empty strings. The id is copied with strncpy over
// exactly `msg_id_len` bytes, if a buffer is given.
int Pavo_MediaPlayer_IPC_DrmAgent_sendDRMMessage(void* handle, const char* msg_type, const char* msg,
                                                 const char* system_id, char* msg_id,
                                                 unsigned msg_id_len) {
  std::string id;
  const PointerText in_handle(handle);
  Command command(__func__, 204);
  command.with("in_handle", in_handle)
      .with("msg_type", or_empty(msg_type))
      .with("msg", or_empty(msg))
      .with("system_id", or_empty(system_id))
      .with("msg_id_len", msg_id_len);
  if (msg_id != nullptr) command.read("msg_id", &id);
  const int result = command.run();
  if (command.replied() && msg_id != nullptr) std::strncpy(msg_id, id.c_str(), msg_id_len);
  return result;
}

int Pavo_MediaPlayer_IPC_DrmAgent_DRMSystemStatus(void* handle, const char* system_id, int* status) {
  return ask(__func__, 205, handle, nullptr, system_id, "status", status);
}

int Pavo_MediaPlayer_IPC_DrmAgent_canPlayContent(void* handle, const char* private_data,
                                                 const char* system_id, bool* result) {
  if (private_data == nullptr) return refuse_null_argument(__func__);
  return ask(__func__, 206, handle, private_data, system_id, "support", result);
}

int Pavo_MediaPlayer_IPC_DrmAgent_canRecordContent(void* handle, const char* private_data,
                                                   const char* system_id, bool* result) {
  if (private_data == nullptr) return refuse_null_argument(__func__);
  return ask(__func__, 207, handle, private_data, system_id, "support", result);
}

int Pavo_MediaPlayer_IPC_DrmAgent_clearLicense(void* handle) {
  return Command(__func__, 208).with("in_handle", PointerText(handle)).run();
}

// ---- Exported agent functions: argument checks, then the command -------------

extern "C" {

int Pavo_DrmAgent_Create(void** handle) {
  if (handle == nullptr) return pavo::kBadArgument;
  return Pavo_MediaPlayer_IPC_DrmAgent_Create(handle);
}

int Pavo_DrmAgent_Destroy(void* handle) {
  if (handle == nullptr) return pavo::kBadArgument;
  return Pavo_MediaPlayer_IPC_DrmAgent_Destroy(handle);
}

int Pavo_DrmAgent_RegisterCallback(void* handle, PavoDrmCallback callback, const void* user_data) {
  if (handle == nullptr || user_data == nullptr) return pavo::kBadArgument;
  return Pavo_MediaPlayer_IPC_DrmAgent_RegisterCallback(handle, callback, user_data);
}

int Pavo_DrmAgent_UnregisterCallback(void* handle) {
  if (handle == nullptr) return pavo::kBadArgument;
  return Pavo_MediaPlayer_IPC_DrmAgent_UnregisterCallback(handle);
}

int Pavo_DrmAgent_sendDRMMessage(void* handle, const char* msg_type, const char* msg,
                                 const char* system_id, char* msg_id, unsigned msg_id_len) {
  if (handle == nullptr || msg_type == nullptr || msg == nullptr || msg_id == nullptr) {
    return pavo::kBadArgument;
  }
  return Pavo_MediaPlayer_IPC_DrmAgent_sendDRMMessage(handle, msg_type, msg, system_id, msg_id,
                                                      msg_id_len);
}

int Pavo_DrmAgent_DRMSystemStatus(void* handle, const char* system_id, int* status) {
  if (handle == nullptr || system_id == nullptr || status == nullptr) return pavo::kBadArgument;
  return Pavo_MediaPlayer_IPC_DrmAgent_DRMSystemStatus(handle, system_id, status);
}

int Pavo_DrmAgent_canPlayContent(void* handle, const char* private_data, const char* system_id,
                                 bool* result) {
  if (handle == nullptr || private_data == nullptr || system_id == nullptr || result == nullptr) {
    return pavo::kBadArgument;
  }
  return Pavo_MediaPlayer_IPC_DrmAgent_canPlayContent(handle, private_data, system_id, result);
}

int Pavo_DrmAgent_canRecordContent(void* handle, const char* private_data, const char* system_id,
                                   bool* result) {
  if (handle == nullptr || private_data == nullptr || system_id == nullptr || result == nullptr) {
    return pavo::kBadArgument;
  }
  return Pavo_MediaPlayer_IPC_DrmAgent_canRecordContent(handle, private_data, system_id, result);
}

int Pavo_DrmAgent_clearLicense(void* handle) {
  if (handle == nullptr) return pavo::kBadArgument;
  return Pavo_MediaPlayer_IPC_DrmAgent_clearLicense(handle);
}

}  // extern "C"
