// Inspection of the development stand-in of the HbbTV plug-in library, for
// tests: what it was given, in order. Not part of the real platform.
#ifndef PAVO_PLATFORM_HBBTV_PLUGIN_IMPL_STANDIN_H
#define PAVO_PLATFORM_HBBTV_PLUGIN_IMPL_STANDIN_H

#include <string>
#include <vector>

namespace pavo::standin {

struct HbbtvCall {
  std::string function;          // the stand-in function's name
  const void* pointer = nullptr;  // callback or handle it was given
  const void* user_data = nullptr;
  int value = 0;                  // the display source
};

// Every call since the last reset, oldest first.
std::vector<HbbtvCall> hbbtv_calls();
void hbbtv_reset();
// What Pavo_Hbbtv_PAC_VB_ChangeDisplaySource returns from now on (0 at start).
void hbbtv_set_display_source_result(int result);

}  // namespace pavo::standin

#endif  // PAVO_PLATFORM_HBBTV_PLUGIN_IMPL_STANDIN_H
