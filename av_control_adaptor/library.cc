// Library start and stop: the plug-in library is handed the platform
// callbacks, and the media-player client is started and stopped.
#include "hbbtv_plugin_impl.h"
#include "pavo_avctrl.h"
#include "pavo_mediaplayer_adaptor.h"

int Pavo_AVCtrl_Initialize() {
  Pavo_HbbTV_PAC_Platform_subtitle_enable_RegisterCallback(Pavo_Platform_SubtitleEnable);
  Pavo_HbbTV_PAC_Platform_Get_Track_Number_RegisterCallback(Pavo_Platform_Get_Track_Number);
  Pavo_HbbTV_PAC_Platform_Get_Track_By_Index_RegisterCallback(Pavo_Platform_Get_Track_By_Index);
  Pavo_HbbTV_PAC_Platform_Select_Track_RegisterCallback(Pavo_Platform_Select_Track);
  Pavo_HbbTV_PAC_Platform_Unselect_Track_RegisterCallback(Pavo_Platform_Unselect_Track);
  Pavo_HbbTV_PAC_Platform_Get_Current_Track_RegisterCallback(Pavo_Platform_Get_Current_Track);
  mediaplayer_initialize();
  return 0;
}

int Pavo_AVCtrl_Finalize() {
  mediaplayer_finalize();
  return 0;
}
