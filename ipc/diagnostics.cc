#include "ipc/diagnostics.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace pavo::ipc {
namespace {

std::atomic<DiagnosticSink> g_sink{nullptr};

}  // namespace

void report(Stream stream, const char* format, ...) {
  char line[256];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (n < 0) return;
  if (DiagnosticSink sink = g_sink.load(std::memory_order_acquire)) {
    sink(stream, line);
    return;
  }
  const std::size_t length = static_cast<std::size_t>(n) < sizeof line ? static_cast<std::size_t>(n)
                                                                       : sizeof line - 1;
  std::FILE* out = stream == Stream::kOut ? stdout : stderr;
  std::fwrite(line, 1, length, out);
  if (stream == Stream::kOut) std::fflush(out);
}

void set_diagnostic_sink_for_testing(DiagnosticSink sink) { g_sink.store(sink, std::memory_order_release); }

}  // namespace pavo::ipc
