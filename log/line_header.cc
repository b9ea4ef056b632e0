#include "log/line_header.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "log/published_levels.h"

namespace pavo::log {

const char* level_name(int effective_level) {
  switch (effective_level) {
    case kLevelErrors:
      return "error";
    case kLevelAll:
      return "info";
    default:
      return "unknown";
  }
}

void format_header(char (&out)[kHeaderSize], int effective_level) {
  const time_t now = std::time(nullptr);
  struct tm local = {};
  localtime_r(&now, &local);  // per call: no broken-down time shared between threads
  const int written = std::snprintf(
      out, sizeof out, "time=%d/%d/%d %d:%d:%d,timestamp=%ld,pid=%d,tid=%ld,logtype=%s",
      local.tm_mday, local.tm_mon + 1, local.tm_year + 1900, local.tm_hour, local.tm_min,
      local.tm_sec, static_cast<long>(now), static_cast<int>(getpid()),
      static_cast<long>(syscall(SYS_gettid)), level_name(effective_level));
  if (written < 0) out[0] = '\0';
}

const char* file_name_of(const char* path) {
  if (path == nullptr) return "(null)";
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace pavo::log
