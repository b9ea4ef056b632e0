// The file name under which the media service offers the current frame of
// the media at `url`, and under which a browser launcher looks for it: both
// sides derive it from the URL the page gave, so neither needs the other's
// player numbers. FNV-1a (64 bits) of the URL in hex, then ".jpg".
#ifndef PAVO_TOOLS_FRAME_PREVIEW_NAME_H
#define PAVO_TOOLS_FRAME_PREVIEW_NAME_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace pavo::frame_preview {

inline std::string file_name(const std::string& url) {
  uint64_t hash = 1469598103934665603ull;
  for (unsigned char c : url) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  char name[32];
  std::snprintf(name, sizeof name, "%016llx.jpg", static_cast<unsigned long long>(hash));
  return name;
}

// The environment variable that names the directory of the offered frames.
constexpr const char* kDirectoryVariable = "PAVO_FRAME_PREVIEW_DIR";

}  // namespace pavo::frame_preview

#endif  // PAVO_TOOLS_FRAME_PREVIEW_NAME_H
