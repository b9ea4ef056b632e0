// Capture of the development stand-in of the platform media log, for tests.
// Not part of the real platform.
#ifndef PAVO_PLATFORM_MEDIA_LOG_STANDIN_H
#define PAVO_PLATFORM_MEDIA_LOG_STANDIN_H

#include <string>
#include <vector>

namespace pavo::standin {

struct MediaLogLine {
  int level = 0;
  std::string function;
  std::string text;  // the formatted text alone
};

// While capturing, every line is also recorded (oldest first).
void media_log_capture(bool on);
std::vector<MediaLogLine> media_log_lines();
void media_log_clear();

}  // namespace pavo::standin

#endif  // PAVO_PLATFORM_MEDIA_LOG_STANDIN_H
