// The record list: slots, growth by ten, order, slot addresses, and failed
// allocations that lose nothing.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "pavo_record_list.h"
#include "support/output_capture.h"

extern "C" int record_list_c_header_check(void);

// This program's allocator for the record list, linked in place of the
// library's own: it fails while `fail` is set.
namespace pavo::record_list {
bool fail = false;
PavoAVComponentRecord* allocate_records(size_t count) {
  return fail ? nullptr : static_cast<PavoAVComponentRecord*>(std::malloc(count * sizeof(PavoAVComponentRecord)));
}
void release_records(PavoAVComponentRecord* records) { std::free(records); }
}  // namespace pavo::record_list

namespace {

using pavo::record_list::fail;
using pavo::test::OutputCapture;

// Records that differ from one another, compared byte for byte.
PavoAVComponentRecord record(int n) {
  PavoAVComponentRecord r;
  std::memset(&r, 0, sizeof r);
  r.audioChannels = n;
  return r;
}

// Whether the list holds record(0) .. record(count - 1), in order, and nothing more.
bool holds(const PavoRecordList& list, int count) {
  for (int i = 0; i < count; ++i) {
    const PavoAVComponentRecord expected = record(i);
    if (std::memcmp(&list.records[i], &expected, sizeof expected) != 0) return false;
  }
  return list.count == static_cast<uint32_t>(count);
}

// Appends record(n) to a list of n records: it goes to slot n.
bool append(PavoRecordList& list, int n) {
  PavoAVComponentRecord* const slot = list.input(record(n), &list);
  return slot != nullptr && slot == &list.records[n] && list.count == n + 1u;
}

TEST(RecordListTest, InitAndGrowthByTenKeepOrderAndReturnEachSlot) {
  PavoRecordList list;
  std::memset(&list, 0xA5, sizeof list);
  PavoAVComponentRecord* const first = Init(&list);
  ASSERT_TRUE(first != nullptr && first == list.records && list.count == 0 && list.capacity == 10);
  EXPECT_TRUE(list.input == &_input && list.constructor == &_constructor && list.destructor == &_denstructor);
  for (int n = 0; n < 35; ++n) {
    ASSERT_TRUE(append(list, n)) << n;
    EXPECT_EQ(list.capacity, (n / 10 + 1) * 10u) << n;
  }
  EXPECT_TRUE(holds(list, 35));
  list.destructor(&list);
  EXPECT_EQ(Init(nullptr), nullptr);
  EXPECT_EQ(_input(record(1), nullptr), nullptr);
  _denstructor(nullptr);
}

TEST(RecordListTest, FailedAllocationsLoseNothingAndAreReported) {
  OutputCapture err(2);
  PavoRecordList list;
  fail = true;
  EXPECT_EQ(Init(&list), nullptr);
  EXPECT_TRUE(list.records == nullptr && list.count == 0 && list.capacity == 0);
  fail = false;
  for (int n = 0; n < 10; ++n) ASSERT_TRUE(append(list, n)) << "a list without an array starts one";
  PavoAVComponentRecord* const array = list.records;
  fail = true;
  EXPECT_EQ(list.input(record(10), &list), nullptr);
  fail = false;
  EXPECT_TRUE(list.records == array && list.capacity == 10 && holds(list, 10));
  EXPECT_TRUE(append(list, 10) && holds(list, 11)) << "memory again: the same append works";
  list.destructor(&list);

  // Growing past the 32-bit count range cannot be allocated either: no
  // wrap-around to a small array.
  PavoAVComponentRecord stored[1] = {record(5)};
  PavoRecordList huge{stored, UINT32_MAX - 5, UINT32_MAX - 5, _input, _constructor, _denstructor};
  EXPECT_EQ(huge.input(record(6), &huge), nullptr);
  EXPECT_TRUE(huge.records == stored && huge.count == UINT32_MAX - 5 && huge.capacity == UINT32_MAX - 5);
  EXPECT_EQ(err.text(), "record list: cannot allocate 10 records\n"
                        "record list: cannot grow to 20 records; keeping the 10 stored\n"
                        "record list: cannot grow to 4294967300 records; keeping the 4294967290 stored\n");
}

TEST(RecordListAsC, CompilesAndWorksFromC) { EXPECT_EQ(record_list_c_header_check(), 11); }

}  // namespace
