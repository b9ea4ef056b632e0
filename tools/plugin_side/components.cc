#include "plugin_side/components.h"

#include <cstring>

#include "av_control_adaptor/components.h"

namespace pavo::plugin {

std::string three_letter(const std::string& language) {
  if (language.size() > 3) return language;
  char code[4] = {};
  std::memcpy(code, language.data(), language.size());
  pavo::avctrl::normalise_language(code);
  return code;
}

int read_components(void* handle, PavoAVComponentType type, std::vector<Component>& out, std::string& failed) {
  unsigned count = 0;
  const int result = Pavo_AVCtrl_GetAVComponentNum(handle, type, &count);
  if (result != 0) {
    failed = "Pavo_AVCtrl_GetAVComponentNum";
    return result;
  }
  for (unsigned i = 0; i < count && i < PAVO_AVCTRL_MAX_COMPONENTS; ++i) {
    Component c;
    const int got = Pavo_AVCtrl_GetAVComponentByIndex(handle, type, i, &c.track);
    if (got != 0) {
      failed = "Pavo_AVCtrl_GetAVComponentByIndex";
      return got;
    }
    if (type == PAVO_AV_COMPONENT_TYPE_AUDIO) c.language = three_letter(c.track.audio.language);
    if (type == PAVO_AV_COMPONENT_TYPE_SUBTITLE) c.language = three_letter(c.track.subtitle.language);
    out.push_back(std::move(c));
  }
  return 0;
}

}  // namespace pavo::plugin
