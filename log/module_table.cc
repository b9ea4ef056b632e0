#include "log/module_table.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace pavo::log {
namespace {

// Empty before any code runs; never destroyed, so that a listener still
// running while the process exits finds it intact.
static_assert(std::is_trivially_destructible_v<ModuleTable>);
ModuleTable process_table;

}  // namespace

ModuleTable& module_table() { return process_table; }

int effective_level_of(int stored_level) {
  if (stored_level == 0) return kLevelNothing;
  return stored_level == 1 ? kLevelAll : kLevelErrors;
}

ModuleTable::StoreResult ModuleTable::store(const char* name, size_t length, int level) {
  char key[kMaxNameLength + 1] = {};
  std::memcpy(key, name, length);

  std::lock_guard<std::mutex> guard(lock_);
  if (level != 0 && count_ == kMaxModules) return StoreResult::kTableFull;
  Entry* const end = entries_ + count_;
  Entry* const at = std::lower_bound(entries_, end, key, [](const Entry& e, const char* k) {
    return std::strcmp(e.name, k) < 0;
  });
  const bool present = at != end && std::strcmp(at->name, key) == 0;
  if (level == 0) {
    if (!present) return StoreResult::kDone;
    std::move(at + 1, end, at);
    --count_;
  } else if (present) {
    if (at->stored_level == level) return StoreResult::kDone;
    at->stored_level = level;
  } else {
    std::move_backward(at, end, end + 1);
    std::memcpy(at->name, key, sizeof key);
    at->stored_level = level;
    ++count_;
  }
  publish_locked();
  return StoreResult::kDone;
}

void ModuleTable::clear() {
  std::lock_guard<std::mutex> guard(lock_);
  if (count_ == 0) return;
  count_ = 0;
  publish_locked();
}

size_t ModuleTable::list_names(char (&out)[PAVO_LOG_MODULES_LIST_SIZE]) const {
  // At most 20 names of 32 characters and 19 separators: 659 characters.
  static_assert(kMaxModules * (kMaxNameLength + 1) < PAVO_LOG_MODULES_LIST_SIZE);
  std::lock_guard<std::mutex> guard(lock_);
  if (count_ == 0) return 0;
  std::memset(out, 0, sizeof out);
  char* next = out;
  for (size_t i = 0; i < count_; ++i) {
    if (i != 0) *next++ = '|';
    const size_t length = std::strlen(entries_[i].name);
    std::memcpy(next, entries_[i].name, length);
    next += length;
  }
  return count_;
}

void ModuleTable::publish_locked() {
  ModuleLevel levels[kMaxModules];
  for (size_t i = 0; i < count_; ++i) {
    std::memcpy(levels[i].name, entries_[i].name, sizeof levels[i].name);
    levels[i].level = effective_level_of(entries_[i].stored_level);
  }
  published_.publish(levels, count_);
}

}  // namespace pavo::log
