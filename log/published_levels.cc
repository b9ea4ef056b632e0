#include "log/published_levels.h"

#include <cstring>

namespace pavo::log {
namespace {

// Readers load the table's words relaxed and then order them before the
// sequence re-check with one acquire fence; writers store with release. The
// thread sanitizer cannot follow a fence, so in its builds every read is an
// acquire load instead, which orders the same way at a higher cost.
#if defined(__SANITIZE_THREAD__)
#define PAVO_LOG_READ_ACQUIRES 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PAVO_LOG_READ_ACQUIRES 1
#endif
#endif

#ifdef PAVO_LOG_READ_ACQUIRES
constexpr std::memory_order kRead = std::memory_order_acquire;
inline void order_reads_before_recheck() {}
#else
constexpr std::memory_order kRead = std::memory_order_relaxed;
inline void order_reads_before_recheck() { std::atomic_thread_fence(std::memory_order_acquire); }
#endif

constexpr std::memory_order kWrite = std::memory_order_release;

}  // namespace

int PublishedLevels::lookup(const char* module) const noexcept {
  if (module == nullptr) return kLevelErrors;
  Key key;
  bool have_key = false;
  for (;;) {
    const uint32_t sequence = sequence_.load(std::memory_order_acquire);
    const Copy& copy = copies_[sequence & 1u];
    int level = kLevelErrors;
    if (copy.count.load(kRead) != 0) {
      // Only a table with modules in it needs the name in slot form.
      if (!have_key) {
        if (!make_key(module, key)) return kLevelErrors;
        have_key = true;
      }
      level = lookup_in(copy, key);
    }
    order_reads_before_recheck();
    if (sequence_.load(std::memory_order_relaxed) == sequence) return level;
  }
}

size_t PublishedLevels::pack(const char* name, Word (&words)[kNameWords]) noexcept {
  const size_t length = strnlen(name, kMaxNameLength);
  std::memset(words, 0, sizeof words);
  std::memcpy(words, name, length);
  return length;
}

bool PublishedLevels::make_key(const char* module, Key& key) noexcept {
  const size_t length = pack(module, key.words);
  // A name that filled every byte may go on: it is longer than any module.
  if (length == 0 || (length == kMaxNameLength && module[length] != '\0')) return false;
  key.used = length / sizeof(Word) + 1;
  key.tag = tag_of(key.words, key.used);
  return true;
}

PublishedLevels::Word PublishedLevels::tag_of(const Word* words, size_t used) noexcept {
  // Each word position has its own odd multiplier; a zero word adds nothing.
  constexpr Word kMultiplier = static_cast<Word>(0x9E3779B97F4A7C15ull);
  Word tag = 0;
  for (size_t w = 0; w < used; ++w) tag ^= words[w] * (kMultiplier + 2 * w);
  return tag;
}

int PublishedLevels::lookup_in(const Copy& copy, const Key& key) noexcept {
  // The count and the names may be mixed from two versions here; the bound
  // keeps such a read inside the copy, and the caller discards its result.
  uint32_t count = copy.count.load(kRead);
  if (count > kMaxModules) count = kMaxModules;
  for (uint32_t i = 0; i < count; ++i) {
    if (copy.tags[i].load(kRead) != key.tag) continue;
    const Slot& slot = copy.slots[i];
    size_t w = 0;
    while (w < key.used && slot.name[w].load(kRead) == key.words[w]) ++w;
    // Equal up to the key's NUL, and both NUL-padded: the same name.
    if (w == key.used) return slot.level.load(kRead);
  }
  return kLevelErrors;
}

void PublishedLevels::write(Copy& copy, const ModuleLevel* modules, size_t count) noexcept {
  for (size_t i = 0; i < count; ++i) {
    Word words[kNameWords];
    pack(modules[i].name, words);
    Slot& slot = copy.slots[i];
    for (size_t w = 0; w < kNameWords; ++w) slot.name[w].store(words[w], kWrite);
    slot.level.store(static_cast<int8_t>(modules[i].level), kWrite);
    copy.tags[i].store(tag_of(words, kNameWords), kWrite);
  }
  copy.count.store(static_cast<uint32_t>(count), kWrite);
}

void PublishedLevels::publish(const ModuleLevel* modules, size_t count) noexcept {
  const uint32_t sequence = sequence_.load(std::memory_order_relaxed);
  sequence_.store(sequence + 1, kWrite);  // readers move to the other copy
  write(copies_[sequence & 1u], modules, count);
  sequence_.store(sequence + 2, kWrite);  // and back to the rewritten one
  write(copies_[(sequence + 1) & 1u], modules, count);
}

}  // namespace pavo::log
