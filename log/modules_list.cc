// The table operations of the log interface, for the listener and for
// callers of the library.
#include <climits>
#include <cstdio>
#include <cstring>

#include "log/module_table.h"
#include "pavo_log.h"

using pavo::log::kMaxModules;
using pavo::log::kMaxNameLength;
using pavo::log::module_table;
using pavo::log::ModuleTable;

namespace {

// Precision for printing a name of `length` bytes with "%.*s" (the names are
// not NUL-terminated inside the caller's string).
int printable_length(size_t length) {
  return length > INT_MAX ? INT_MAX : static_cast<int>(length);
}

}  // namespace

int pavo_log_getLevel(const char* module) { return module_table().effective_level(module); }

int insert_modules_list(const char* names, int level) {
  if (names == nullptr) return -1;
  // Each name is applied (and published) on its own, so that the table's
  // lock is never held while a refusal is printed.
  const char* cursor = names;
  while (*cursor != '\0') {
    const size_t length = std::strcspn(cursor, "|");
    const char* const name = cursor;
    cursor += length;
    if (*cursor == '|') ++cursor;
    if (length == 0) continue;
    if (length > kMaxNameLength) {
      std::printf("module:%.*s set error, length is %zu, out of max length:%d\n",
                  printable_length(length), name, length, static_cast<int>(kMaxNameLength));
      continue;
    }
    if (module_table().store(name, length, level) == ModuleTable::StoreResult::kTableFull) {
      std::printf("module:%.*s set error, module_list map has number:%zu\n",
                  printable_length(length), name, kMaxModules);
      break;
    }
  }
  return 0;
}

int clear_modules_list(void) {
  module_table().clear();
  return 0;
}

int get_modules_list(char* out) {
  if (out == nullptr) return -1;
  char text[PAVO_LOG_MODULES_LIST_SIZE];
  const size_t count = module_table().list_names(text);
  if (count != 0) std::memcpy(out, text, sizeof text);
  return static_cast<int>(count);
}
