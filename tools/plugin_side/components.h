// Components of an A/V control object as the plug-in reads them through the
// library, shared by pavo-avctl and pavo-hbbtv-browser.
//
// Thread safety: each function makes blocking library requests on the
// caller's thread; any thread may call them.
#ifndef PAVO_TOOLS_PLUGIN_SIDE_COMPONENTS_H
#define PAVO_TOOLS_PLUGIN_SIDE_COMPONENTS_H

#include <string>
#include <vector>

#include "pavo_avctrl.h"

namespace pavo::plugin {

// One component of the stream.
struct Component {
  PavoAVCtrlTrackInfo track{};
  std::string language;  // three-letter code, lower case ("" for video)
};

// The three-letter code that the library's component records carry for a
// track's language ("de" -> "ger"); longer texts unchanged.
std::string three_letter(const std::string& language);

// Reads every component of `type` (at most PAVO_AVCTRL_MAX_COMPONENTS).
// Returns 0 and fills `out`; otherwise the failing call's result with its
// name in `failed` (`out` then holds what was read before).
int read_components(void* handle, PavoAVComponentType type, std::vector<Component>& out, std::string& failed);

}  // namespace pavo::plugin

#endif  // PAVO_TOOLS_PLUGIN_SIDE_COMPONENTS_H
