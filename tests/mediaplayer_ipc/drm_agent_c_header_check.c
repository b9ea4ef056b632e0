/* Compiled as C: the DRM agent's public header is a C interface. */
#include "pavo_drm_agent.h"

static void on_event(PavoDrmEvent event, const PavoDrmEventInfo* info, const void* user_data) {
  (void)event, (void)info, (void)user_data;
}

int pavo_drm_agent_header_is_c(void) {
  PavoDrmCallback callback = on_event;
  int (*can_play)(void*, const char*, const char*, bool*) = Pavo_DrmAgent_canPlayContent;
  return callback != 0 && can_play != 0 && PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE == 2 && sizeof(PavoDrmEvent) == 4;
}
