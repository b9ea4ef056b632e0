// The process-wide lookup of "the" A/V control object, for the plug-in's
// platform callbacks, which carry no handle (Pavo_AVCtrl_GetHandle).
#ifndef PAVO_AV_CONTROL_ADAPTOR_HANDLE_LOOKUP_H
#define PAVO_AV_CONTROL_ADAPTOR_HANDLE_LOOKUP_H

#include <atomic>
#include <cstdint>

#include "av_control_adaptor/object.h"

// The number of objects alive, and the object made last (null after any
// destruction). Changed by Create and Destroy only; atomics, because the
// platform callbacks and the event translation read them on other threads.
extern std::atomic<int32_t> g_avctrl_count;
extern std::atomic<PavoAVCtrlContext*> g_avctrl_handle;

#endif  // PAVO_AV_CONTROL_ADAPTOR_HANDLE_LOOKUP_H
