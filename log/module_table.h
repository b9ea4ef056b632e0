// The process-wide module table: which modules are switched on, at which
// stored level, and what that means for each log call.
#ifndef PAVO_LOG_MODULE_TABLE_H
#define PAVO_LOG_MODULE_TABLE_H

#include <cstddef>
#include <mutex>

#include "log/published_levels.h"

namespace pavo::log {

// The effective level that a stored level gives: 1 switches a module to
// every line, 0 to nothing, anything else to error lines only.
int effective_level_of(int stored_level);

// The table holds at most kMaxModules modules in ascending byte order of
// their names (at most kMaxNameLength characters each); a stored level of 0
// is never kept.
//
// The writers' copy lives under `lock_`, which only the table operations
// take and which is never held while anything is printed. Every change is
// then published whole to `published_`, where logging threads look levels
// up without any lock.
//
// The empty table is built at compile time and nothing in it needs
// destroying, so the static instance is usable from the first log call of
// the process to the last, the listener's included.
//
// Thread safety: every member may be called from any thread.
class ModuleTable {
 public:
  enum class StoreResult { kDone, kTableFull };

  // Lock-free; see PublishedLevels::lookup.
  int effective_level(const char* module) const noexcept { return published_.lookup(module); }

  // Stores `level` for the module named by the `length` bytes at `name`;
  // level 0 removes it. A nonzero level meets kTableFull whenever the table
  // holds kMaxModules modules, even for one of them: nothing is changed.
  // REQUIRES: 1 <= length <= kMaxNameLength; no NUL among the bytes.
  StoreResult store(const char* name, size_t length, int level);

  void clear();

  // Writes the names joined by '|' into `out`, NUL-padded to
  // PAVO_LOG_MODULES_LIST_SIZE bytes, unless the table is empty. Returns the
  // number of modules.
  size_t list_names(char (&out)[PAVO_LOG_MODULES_LIST_SIZE]) const;

 private:
  struct Entry {
    char name[kMaxNameLength + 1];  // NUL-padded
    int stored_level;               // never 0
  };

  void publish_locked();

  mutable std::mutex lock_;
  Entry entries_[kMaxModules] = {};  // ascending by name; guarded by lock_
  size_t count_ = 0;                 // guarded by lock_
  PublishedLevels published_;        // written only under lock_
};

// The table of the process.
ModuleTable& module_table();

}  // namespace pavo::log

#endif  // PAVO_LOG_MODULE_TABLE_H
