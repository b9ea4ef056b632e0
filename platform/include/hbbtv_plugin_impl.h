// The HbbTV plug-in library's functions that the back end calls: it hands the
// plug-in its handle-less platform callbacks and the TV-side A/V control
// callback, and asks it to switch the display source.
#ifndef PAVO_PLATFORM_HBBTV_PLUGIN_IMPL_H
#define PAVO_PLATFORM_HBBTV_PLUGIN_IMPL_H

#include "pavo_avctrl_types.h"

typedef int (*PavoPlatformSubtitleEnableFn)(bool enable);
typedef int (*PavoPlatformGetTrackNumberFn)(PavoAVComponentType type, unsigned* count);
typedef int (*PavoPlatformGetTrackByIndexFn)(PavoAVComponentType type, unsigned index,
                                              PavoAVCtrlTrackInfo* info);
typedef int (*PavoPlatformSelectTrackFn)(PavoAVComponentType type, int index);
typedef int (*PavoPlatformUnselectTrackFn)(PavoAVComponentType type, int index);
typedef int (*PavoPlatformGetCurrentTrackFn)(PavoAVComponentType type, int* index);

int Pavo_HbbTV_PAC_Platform_subtitle_enable_RegisterCallback(PavoPlatformSubtitleEnableFn cb);
int Pavo_HbbTV_PAC_Platform_Get_Track_Number_RegisterCallback(PavoPlatformGetTrackNumberFn cb);
int Pavo_HbbTV_PAC_Platform_Get_Track_By_Index_RegisterCallback(PavoPlatformGetTrackByIndexFn cb);
int Pavo_HbbTV_PAC_Platform_Select_Track_RegisterCallback(PavoPlatformSelectTrackFn cb);
int Pavo_HbbTV_PAC_Platform_Unselect_Track_RegisterCallback(PavoPlatformUnselectTrackFn cb);
int Pavo_HbbTV_PAC_Platform_Get_Current_Track_RegisterCallback(PavoPlatformGetCurrentTrackFn cb);

// The TV side's A/V control callback and its user data.
int Pavo_HbbTV_PAC_AvControl_RegisterCallback(PavoTVAvControlCallback cb, const void* user_data);
// Unregisters it; handed the A/V control handle.
int Pavo_HbbTV_PAC_AvControl_UnregisterCallback(void* handle);

// Switches the receiver's display to `source`; returns the platform's status.
int Pavo_Hbbtv_PAC_VB_ChangeDisplaySource(int source);

#endif  // PAVO_PLATFORM_HBBTV_PLUGIN_IMPL_H
