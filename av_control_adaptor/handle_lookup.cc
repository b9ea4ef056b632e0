// Pavo_AVCtrl_GetHandle: answers only while exactly one object exists and
// none has been destroyed since it was made.
#include "av_control_adaptor/handle_lookup.h"

#include "av_control_adaptor/media_log.h"
#include "pavo_avctrl.h"

std::atomic<int32_t> g_avctrl_count{0};
std::atomic<PavoAVCtrlContext*> g_avctrl_handle{nullptr};

void* Pavo_AVCtrl_GetHandle() {
  const int32_t count = g_avctrl_count.load();
  if (count != 1) {
    AVCTRL_LOG("Error: initialized the avc %d times.", static_cast<int>(count));
    return nullptr;
  }
  return g_avctrl_handle.load();
}
