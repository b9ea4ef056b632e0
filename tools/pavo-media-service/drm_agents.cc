#include "pavo-media-service/drm_agents.h"

#include <cstdio>

namespace pavo::service {
namespace {
const char kSystemId[] = "19188";
}  // namespace

bool DrmAgents::known_system(const std::string& system_id) {
  return system_id == kSystemId || system_id == std::string("urn:dvb:casystemid:") + kSystemId;
}

std::string DrmAgents::create() {
  char text[32];
  std::snprintf(text, sizeof text, "0x%lx", next_);
  next_ += 0x10;
  agents_[text] = Agent();
  return text;
}

DrmAgents::Agent* DrmAgents::find(const std::string& handle) {
  auto it = agents_.find(handle);
  return it == agents_.end() ? nullptr : &it->second;
}

const DrmAgents::Agent* DrmAgents::find(const std::string& handle) const {
  auto it = agents_.find(handle);
  return it == agents_.end() ? nullptr : &it->second;
}

int DrmAgents::destroy(const std::string& handle) { return agents_.erase(handle) == 1 ? 0 : -1; }

int DrmAgents::register_callback(const std::string& handle, const std::string& context) {
  Agent* agent = find(handle);
  if (agent == nullptr) return -1;
  agent->registered = true;
  agent->context = context;
  return 0;
}

int DrmAgents::unregister_callback(const std::string& handle) {
  Agent* agent = find(handle);
  if (agent == nullptr) return -1;
  agent->registered = false;
  agent->context.clear();
  return 0;
}

int DrmAgents::send_message(const std::string& handle, const std::string& type,
                            const std::string& message, const std::string& system_id,
                            std::string* msg_id, Outbox* out) {
  Agent* agent = find(handle);
  if (agent == nullptr) return -1;
  *msg_id = std::to_string(++agent->messages);
  if (!agent->registered) return 0;
  const bool known = system_id.empty() || known_system(system_id);
  // The answer names what was understood, so that a user can tell messages apart.
  const std::string result = known ? "<ack type=\"" + type + "\" bytes=\"" +
                                         std::to_string(message.size()) + "\"/>"
                                   : "";
  out->push_back(drm_message_result_event(agent->context, *msg_id, result,
                                          known ? kDrmResultSuccess : kDrmResultUnknownSystem));
  return 0;
}

int DrmAgents::system_status(const std::string& handle, const std::string& system_id,
                             int* status) const {
  if (find(handle) == nullptr) return -1;
  *status = known_system(system_id) ? kDrmStatusReady : kDrmStatusUnknown;
  return 0;
}

int DrmAgents::can_play(const std::string& handle, const std::string& private_data,
                        const std::string& system_id, bool* support) const {
  if (find(handle) == nullptr) return -1;
  *support = known_system(system_id) && !private_data.empty();
  return 0;
}

int DrmAgents::can_record(const std::string& handle, const std::string&, const std::string&,
                          bool* support) const {
  if (find(handle) == nullptr) return -1;
  *support = false;  // the licences of this system never allow recording
  return 0;
}

int DrmAgents::clear_licence(const std::string& handle, Outbox* out) {
  Agent* agent = find(handle);
  if (agent == nullptr) return -1;
  if (agent->registered) out->push_back(drm_status_change_event(agent->context, kSystemId));
  return 0;
}

}  // namespace pavo::service
