// The two printing entry points. Each decides from the module's effective
// level whether its line is printed before it reads the clock, builds the
// header or formats anything, and prints a line with exactly one printf call
// so that stdio's stream lock keeps lines of different threads apart.
#include <cstdarg>
#include <cstdio>

#include "log/line_header.h"
#include "log/module_table.h"
#include "pavo_log.h"

using pavo::log::file_name_of;
using pavo::log::format_header;
using pavo::log::kHeaderSize;
using pavo::log::kLevelAll;
using pavo::log::kLevelErrors;
using pavo::log::module_table;

namespace {

// Longest text that pavo_log formats, terminating NUL included.
constexpr int kTextSize = 2048;

bool prints(int log_type, int effective_level) {
  switch (log_type) {
    case PAVO_LOG_TYPE_ERROR:
      return effective_level == kLevelErrors || effective_level == kLevelAll;
    case PAVO_LOG_TYPE_ENTER:
    case PAVO_LOG_TYPE_LEAVE:
    case PAVO_LOG_TYPE_INT:
    case PAVO_LOG_TYPE_STRING:
      return effective_level == kLevelAll;
    default:
      return false;
  }
}

const char* text_or_null(const char* text) { return text != nullptr ? text : "(null)"; }

}  // namespace

void pavo_log_print(int log_type, const char* module, const char* file, const char* function,
                    int line, const char* name, const void* value) {
  if (log_type > PAVO_LOG_TYPE_MAX) {
    std::puts("log type set err, out of max enum value");
    return;
  }
  const int level = module_table().effective_level(module);
  if (!prints(log_type, level)) return;

  char header[kHeaderSize];
  format_header(header, level);
  const char* const file_name = file_name_of(file);
  function = text_or_null(function);
  switch (log_type) {
    case PAVO_LOG_TYPE_ENTER:
      std::printf("\033[32m%s File: %s Function: %s() Enter!\n\033[0m", header, file_name,
                  function);
      break;
    case PAVO_LOG_TYPE_LEAVE:
      std::printf("\033[32m%s File: %s Function: %s() Leave!\n\033[0m", header, file_name,
                  function);
      break;
    case PAVO_LOG_TYPE_ERROR:
      std::printf("\033[31m%s File:%s Function: %s(), line: %d\n\033[0m", header, file_name,
                  function, line);
      break;
    case PAVO_LOG_TYPE_INT:
      if (value != nullptr) {
        std::printf("\033[32m%s File:%s Function: %s(), line: %d, %s:%d\n\033[0m", header,
                    file_name, function, line, text_or_null(name),
                    *static_cast<const int*>(value));
      } else {
        // No integer to show: say so the way a null string is shown.
        std::printf("\033[32m%s File:%s Function: %s(), line: %d, %s:%s\n\033[0m", header,
                    file_name, function, line, text_or_null(name), "(null)");
      }
      break;
    case PAVO_LOG_TYPE_STRING:
      std::printf("\033[32m%s File:%s Function: %s(), line: %d, %s:%s\n\033[0m", header,
                  file_name, function, line, text_or_null(name),
                  text_or_null(static_cast<const char*>(value)));
      break;
    default:
      break;
  }
}

void pavo_log(const char* module, const char* file, const char* function, int line,
              const char* format, ...) {
  const int level = module_table().effective_level(module);
  if (level != kLevelAll) return;

  char header[kHeaderSize];
  format_header(header, level);
  char text[kTextSize] = "";
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
  }
  std::printf("%s File:%s Function: %s(), line: %d, %s", header, file_name_of(file),
              text_or_null(function), line, text);
}
