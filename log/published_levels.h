// The module table as the logging threads read it: effective levels by module
// name, readable from any number of threads without a lock.
#ifndef PAVO_LOG_PUBLISHED_LEVELS_H
#define PAVO_LOG_PUBLISHED_LEVELS_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "pavo_log.h"

namespace pavo::log {

inline constexpr size_t kMaxModules = PAVO_LOG_MAX_MODULES;
inline constexpr size_t kMaxNameLength = PAVO_LOG_MAX_MODULE_NAME;

// Effective levels.
inline constexpr int kLevelNothing = 0;
inline constexpr int kLevelErrors = 1;
inline constexpr int kLevelAll = 2;

// One module as the writer hands it over.
struct ModuleLevel {
  char name[kMaxNameLength + 1];  // NUL-padded
  int level;                      // effective level
};

// Every log call looks its module up here, so a lookup must be short (with
// an empty table, two loads and a branch; otherwise a pass over at most 20
// one-word tags and a word-wise compare of the one that matches), must never
// block, and must never wait for a writer that has been preempted halfway
// through a change (a receiver's logging threads may run at a higher
// priority than the listener that writes).
//
// Two copies of the table and a sequence number: an even sequence sends
// readers to copy 0, an odd one to copy 1. A writer first moves readers to
// the other copy, rewrites the one they left, moves them back, then brings
// the second copy up to date. Whatever the writer is doing, one copy is
// complete and readers are pointed at it; a reader retries only when the
// sequence changed while it read, that is when a writer made progress.
// Every shared word is an atomic, so a read that overlaps a rewrite is a
// well-defined read of mixed data that the sequence check then discards.
//
// An empty table is all zeros and built at compile time, so a static
// instance is ready before any constructor runs, and it has nothing to
// destroy: a listener thread still running while the process exits finds it
// intact.
//
// Thread safety: lookup from any thread; publish calls must be serialised
// by the caller.
class PublishedLevels {
 public:
  // Effective level of `module`: the published level, or kLevelErrors when
  // the module is not published (or null). Lock-free; touches no byte of
  // `module` past its NUL.
  int lookup(const char* module) const noexcept;

  // Replaces the published table with `count` modules.
  // REQUIRES: count <= kMaxModules; names NUL-terminated within their array;
  // not called concurrently with itself.
  void publish(const ModuleLevel* modules, size_t count) noexcept;

 private:
  // Names are kept and compared a machine word at a time, NUL-padded.
  using Word = uintptr_t;
  static constexpr size_t kNameWords = (kMaxNameLength + sizeof(Word)) / sizeof(Word);

  // A looked-up name in the form of a slot's name.
  struct Key {
    Word words[kNameWords];
    size_t used;  // words up to and including the one with the name's NUL
    Word tag;
  };

  struct Slot {
    std::atomic<Word> name[kNameWords];
    std::atomic<int8_t> level;
  };
  // The slots' tags sit side by side, so that passing over the modules that
  // do not match reads one short array.
  struct Copy {
    std::atomic<uint32_t> count;
    std::atomic<Word> tags[kMaxModules];
    Slot slots[kMaxModules];
  };

  // A hash of a NUL-padded name; zero words past the name do not change it.
  static Word tag_of(const Word* words, size_t used) noexcept;

  // Packs the name's first bytes (up to its NUL, at most kMaxNameLength)
  // into NUL-padded words; returns how many bytes it packed.
  static size_t pack(const char* name, Word (&words)[kNameWords]) noexcept;
  // False for a name that no table can hold (empty or too long); reads no
  // byte of `module` past its NUL.
  static bool make_key(const char* module, Key& key) noexcept;
  static int lookup_in(const Copy& copy, const Key& key) noexcept;
  static void write(Copy& copy, const ModuleLevel* modules, size_t count) noexcept;

  std::atomic<uint32_t> sequence_{0};
  Copy copies_[2] = {};
};

}  // namespace pavo::log

#endif  // PAVO_LOG_PUBLISHED_LEVELS_H
