// The service's DRM agents: created and destroyed on request, each with the
// context text its user registered, answering DRM messages with a
// message-result event that carries that context.
//
// One DRM system is known: "19188" (also written "urn:dvb:casystemid:19188"),
// the system of drm.mp4. Not thread-safe: the service's lock guards it.
#ifndef PAVO_MEDIA_SERVICE_DRM_AGENTS_H
#define PAVO_MEDIA_SERVICE_DRM_AGENTS_H

#include <map>
#include <string>

#include "pavo-media-service/events.h"

namespace pavo::service {

// Answers of the OIPF DRM agent API that this service gives.
constexpr int kDrmResultSuccess = 0;
constexpr int kDrmResultUnknownSystem = 5;
constexpr int kDrmStatusReady = 0;
constexpr int kDrmStatusUnknown = 1;

class DrmAgents {
 public:
  // A new agent; its handle is the text of a pointer ("0x..."), as the
  // library carries it.
  std::string create();
  // 0, or -1 for an unknown handle.
  int destroy(const std::string& handle);
  int register_callback(const std::string& handle, const std::string& context);
  int unregister_callback(const std::string& handle);
  // Answers a message: writes the new message id and appends the result
  // event (when the agent has a registered context). 0 or -1.
  int send_message(const std::string& handle, const std::string& type, const std::string& message,
                   const std::string& system_id, std::string* msg_id, Outbox* out);
  // System status: 0 or -1; writes *status.
  int system_status(const std::string& handle, const std::string& system_id, int* status) const;
  // Whether content with this private data may be played / recorded.
  int can_play(const std::string& handle, const std::string& private_data, const std::string& system_id,
               bool* support) const;
  int can_record(const std::string& handle, const std::string& private_data,
                 const std::string& system_id, bool* support) const;
  // Drops the agent's licences; its status-change event follows.
  int clear_licence(const std::string& handle, Outbox* out);

  static bool known_system(const std::string& system_id);

 private:
  struct Agent {
    bool registered = false;
    std::string context;
    unsigned messages = 0;
  };
  Agent* find(const std::string& handle);
  const Agent* find(const std::string& handle) const;

  std::map<std::string, Agent> agents_;
  unsigned long next_ = 0x5a000010;
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_DRM_AGENTS_H
