// Development stand-in of the HbbTV plug-in library: records every call.
#include <mutex>

#include "hbbtv_plugin_impl.h"
#include "hbbtv_plugin_impl_standin.h"

namespace pavo::standin {
namespace {

std::mutex g_mutex;
std::vector<HbbtvCall> g_calls;  // guarded by g_mutex
int g_display_source_result = 0;  // guarded by g_mutex

int record(const char* function, const void* pointer, const void* user_data = nullptr, int value = 0) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_calls.push_back(HbbtvCall{function, pointer, user_data, value});
  return 0;
}

template <typename Fn>
const void* as_pointer(Fn fn) {
  return reinterpret_cast<const void*>(fn);
}

}  // namespace

std::vector<HbbtvCall> hbbtv_calls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_calls;
}

void hbbtv_reset() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_calls.clear();
  g_display_source_result = 0;
}

void hbbtv_set_display_source_result(int result) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_display_source_result = result;
}

}  // namespace pavo::standin

using pavo::standin::as_pointer;
using pavo::standin::record;

int Pavo_HbbTV_PAC_Platform_subtitle_enable_RegisterCallback(PavoPlatformSubtitleEnableFn cb) {
  return record(__func__, as_pointer(cb));
}
int Pavo_HbbTV_PAC_Platform_Get_Track_Number_RegisterCallback(PavoPlatformGetTrackNumberFn cb) {
  return record(__func__, as_pointer(cb));
}
int Pavo_HbbTV_PAC_Platform_Get_Track_By_Index_RegisterCallback(PavoPlatformGetTrackByIndexFn cb) {
  return record(__func__, as_pointer(cb));
}
int Pavo_HbbTV_PAC_Platform_Select_Track_RegisterCallback(PavoPlatformSelectTrackFn cb) {
  return record(__func__, as_pointer(cb));
}
int Pavo_HbbTV_PAC_Platform_Unselect_Track_RegisterCallback(PavoPlatformUnselectTrackFn cb) {
  return record(__func__, as_pointer(cb));
}
int Pavo_HbbTV_PAC_Platform_Get_Current_Track_RegisterCallback(PavoPlatformGetCurrentTrackFn cb) {
  return record(__func__, as_pointer(cb));
}
int Pavo_HbbTV_PAC_AvControl_RegisterCallback(PavoTVAvControlCallback cb, const void* user_data) {
  return record(__func__, as_pointer(cb), user_data);
}
int Pavo_HbbTV_PAC_AvControl_UnregisterCallback(void* handle) { return record(__func__, handle); }

int Pavo_Hbbtv_PAC_VB_ChangeDisplaySource(int source) {
  record(__func__, nullptr, nullptr, source);
  std::lock_guard<std::mutex> lock(pavo::standin::g_mutex);
  return pavo::standin::g_display_source_result;
}
