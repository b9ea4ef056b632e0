#include "plugin_side/service_probe.h"

#include "pavo_avctrl.h"

namespace pavo::plugin {

bool service_answers(int* result) {
  void* probe = nullptr;
  int got = -4;
  if (Pavo_AVCtrl_Create(nullptr, &probe) == 0 && probe != nullptr) {
    bool full_screen = false;
    got = Pavo_AVCtrl_GetFullScreen(probe, &full_screen);
    Pavo_AVCtrl_Destroy(probe);
  }
  if (result != nullptr) *result = got;
  return got != -1 && got != -3 && got != -4;
}

}  // namespace pavo::plugin
