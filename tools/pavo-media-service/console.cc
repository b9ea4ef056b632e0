#include "pavo-media-service/console.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace pavo::service {
namespace {

bool g_verbose = false;

void line(FILE* stream, const char* prefix, const char* format, va_list args) {
  char text[2048];
  std::vsnprintf(text, sizeof text, format, args);
  // One call per line, so that lines of several threads do not mix.
  std::fprintf(stream, "%s%s\n", prefix, text);
  std::fflush(stream);
}

}  // namespace

void set_verbose(bool verbose) { g_verbose = verbose; }
bool verbose() { return g_verbose; }

void say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  line(stdout, "", format, args);
  va_end(args);
}

void trace(const char* format, ...) {
  if (!g_verbose) return;
  va_list args;
  va_start(args, format);
  line(stdout, "", format, args);
  va_end(args);
}

void complain(const char* format, ...) {
  va_list args;
  va_start(args, format);
  line(stderr, "pavo-media-service: ", format, args);
  va_end(args);
}

}  // namespace pavo::service
