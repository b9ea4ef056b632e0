// The log records of the media-player client and the DRM agent: Enter,
// Leave and error records of one operation, module "PAC_PLUGIN", named by
// the operation's exported name. The file and line default to the caller's.
#ifndef PAVO_MEDIAPLAYER_IPC_LOG_RECORDS_H
#define PAVO_MEDIAPLAYER_IPC_LOG_RECORDS_H

#include "pavo_log.h"

namespace pavo::mediaplayer {

inline constexpr char kLogModule[] = "PAC_PLUGIN";

inline void log_enter(const char* function, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) {
  pavo_log_print(PAVO_LOG_TYPE_ENTER, kLogModule, file, function, line, nullptr, nullptr);
}

inline void log_leave(const char* function, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) {
  pavo_log_print(PAVO_LOG_TYPE_LEAVE, kLogModule, file, function, line, nullptr, nullptr);
}

// `line` is the line that failed.
inline void log_error(const char* function, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) {
  pavo_log_print(PAVO_LOG_TYPE_ERROR, kLogModule, file, function, line, nullptr, nullptr);
}

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_LOG_RECORDS_H
