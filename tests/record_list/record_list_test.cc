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

PavoAVComponentRecord record(int n) {
  PavoAVComponentRecord r;
  std::memset(&r, 0, sizeof r);
  std::snprintf(r.encoding, sizeof r.encoding, "codec-%d", n);
  r.audioChannels = n * 7;
  r.audioDescription = n % 2 == 0;
  return r;
}

// The list holds record(0) .. record(last), in order.
bool holds(const PavoRecordList& list, int last) {
  for (int n = 0; n <= last; ++n) {
    const PavoAVComponentRecord expected = record(n);
    if (std::memcmp(&list.records[n], &expected, sizeof expected) != 0) return false;
  }
  return true;
}

// Appends record(n) and returns whether it went to slot n.
bool append(PavoRecordList& list, int n) {
  PavoAVComponentRecord* const slot = list.input(record(n), &list);
  return slot != nullptr && slot == &list.records[n];
}

TEST(RecordListTest, InitAndGrowthByTenKeepOrderAndReturnEachSlot) {
  PavoRecordList list;
  std::memset(&list, 0xA5, sizeof list);
  PavoAVComponentRecord* const first = Init(&list);
  ASSERT_TRUE(first != nullptr && first == list.records);
  EXPECT_EQ(list.count, 0u);
  EXPECT_EQ(list.capacity, 10u);
  EXPECT_TRUE(list.input == &_input && list.constructor == &_constructor && list.destructor == &_denstructor);
  for (int n = 0; n < 35; ++n) {
    PavoAVComponentRecord* const before = list.records;
    ASSERT_TRUE(append(list, n)) << n;
    EXPECT_EQ(list.count, static_cast<uint32_t>(n + 1));
    EXPECT_EQ(list.capacity, static_cast<uint32_t>((n / 10 + 1) * 10)) << n;
    EXPECT_EQ(list.records == before, n == 0 || n % 10 != 0) << n;
    ASSERT_TRUE(holds(list, n)) << "after append " << n;
  }
  list.destructor(&list);
}

TEST(RecordListTest, FailedAllocationsLoseNothingAndAreReported) {
  PavoRecordList list;
  fail = true;
  {
    pavo::test::OutputCapture err(2);
    EXPECT_EQ(Init(&list), nullptr);
    EXPECT_EQ(err.text(), "record list: cannot allocate 10 records\n");
  }
  EXPECT_TRUE(list.records == nullptr && list.count == 0 && list.capacity == 0);
  fail = false;
  for (int n = 0; n < 10; ++n) ASSERT_TRUE(append(list, n)) << "a list without an array starts one";

  PavoAVComponentRecord* const array = list.records;
  fail = true;
  {
    pavo::test::OutputCapture err(2);
    EXPECT_EQ(list.input(record(10), &list), nullptr);
    EXPECT_EQ(err.text(), "record list: cannot grow to 20 records; keeping the 10 stored\n");
  }
  fail = false;
  EXPECT_TRUE(list.records == array && list.count == 10 && list.capacity == 10);
  EXPECT_TRUE(holds(list, 9));
  EXPECT_TRUE(append(list, 10)) << "memory again: the same append works";
  EXPECT_TRUE(holds(list, 10));
  list.destructor(&list);
}

// Growing past the 32-bit count range cannot be allocated: no wrap-around to
// a small array.
TEST(RecordListTest, GrowthBeyondTheCountRangeFailsAndNullListsAreRefused) {
  PavoAVComponentRecord stored[1] = {record(5)};
  PavoRecordList list{stored, UINT32_MAX - 5, UINT32_MAX - 5, _input, _constructor, _denstructor};
  pavo::test::OutputCapture err(2);
  EXPECT_EQ(list.input(record(6), &list), nullptr);
  EXPECT_TRUE(list.records == stored && list.capacity == UINT32_MAX - 5);
  EXPECT_EQ(Init(nullptr), nullptr);
  EXPECT_EQ(_input(record(1), nullptr), nullptr);
  _denstructor(nullptr);
}

TEST(RecordListAsC, CompilesAndWorksFromC) { EXPECT_EQ(record_list_c_header_check(), 11); }

}  // namespace
