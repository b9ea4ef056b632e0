// The table operations: level mapping, the names string, the limits with
// their messages, and the module list.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "pavo_log.h"
#include "support/output_capture.h"

namespace {

// The module list; "-" when get_modules_list left the buffer untouched.
// Checks that every byte after the text is a NUL.
std::string modules() {
  char out[PAVO_LOG_MODULES_LIST_SIZE];
  std::memset(out, '-', sizeof out);
  if (get_modules_list(out) == 0) return std::string(out, sizeof out) == std::string(sizeof out, '-') ? "-" : "?";
  const size_t n = strnlen(out, sizeof out);
  EXPECT_EQ(std::string(out + n, sizeof out - n), std::string(sizeof out - n, '\0'));
  return std::string(out, n);
}

class ModuleTableTest : public ::testing::Test {
 protected:
  void SetUp() override { clear_modules_list(); }
  void TearDown() override { clear_modules_list(); }
};

TEST_F(ModuleTableTest, LevelsNamesAndOrder) {
  for (auto [stored, effective] : {std::pair{1, 2}, {2, 1}, {7, 1}, {255, 1}, {-1, 1}}) {
    ASSERT_EQ(insert_modules_list("M", stored), 0);
    EXPECT_EQ(pavo_log_getLevel("M"), effective) << "stored " << stored;
  }
  EXPECT_EQ(insert_modules_list("M", 0), 0);
  EXPECT_EQ(pavo_log_getLevel("M"), 1);
  EXPECT_EQ(pavo_log_getLevel(nullptr), 1);
  EXPECT_EQ(modules(), "-") << "removed, and lookups add nothing";

  EXPECT_EQ(insert_modules_list(nullptr, 1), -1);
  EXPECT_EQ(insert_modules_list("|||", 1), 0);
  EXPECT_EQ(insert_modules_list("b||B|_|a|\xC3\xA9|A1|A|", 1), 0);
  EXPECT_EQ(modules(), "A|A1|B|_|a|b|\xC3\xA9");
  EXPECT_EQ(insert_modules_list("B|zz|A1", 0), 0);
  EXPECT_EQ(modules(), "A|_|a|b|\xC3\xA9");
  EXPECT_EQ(get_modules_list(nullptr), -1);
}

TEST_F(ModuleTableTest, NamesOver32AreRefusedAndTheRestApplied) {
  const std::string n32(32, 'n'), n33(33, 'x');
  pavo::test::OutputCapture out(1);
  EXPECT_EQ(insert_modules_list((n33 + "|" + n32).c_str(), 1), 0);
  EXPECT_EQ(out.text(), "module:" + n33 + " set error, length is 33, out of max length:32\n");
  EXPECT_EQ(modules(), n32);
  EXPECT_EQ(pavo_log_getLevel(n32.c_str()), 2);
  EXPECT_EQ(pavo_log_getLevel(n33.c_str()), 1);
  EXPECT_EQ(pavo_log_getLevel((n32 + "n").c_str()), 1);
}

TEST_F(ModuleTableTest, FullTableRefusesNonzeroLevelsOnceButRemoves) {
  std::string all;
  for (char c = 'a'; c < 'a' + PAVO_LOG_MAX_MODULES; ++c) all += (all.empty() ? "" : "|") + std::string(32, c);
  ASSERT_EQ(insert_modules_list(all.c_str(), 1), 0);
  EXPECT_EQ(modules(), all);
  EXPECT_EQ(all.size(), 659u);
  const std::string c32(32, 'c');
  {
    pavo::test::OutputCapture out(1);
    EXPECT_EQ(insert_modules_list("X|Y", 1), 0);
    EXPECT_EQ(insert_modules_list((c32 + "|Z").c_str(), 2), 0);  // even an existing module
    EXPECT_EQ(out.text(), "module:X set error, module_list map has number:20\n"
                          "module:" + c32 + " set error, module_list map has number:20\n");
  }
  EXPECT_EQ(modules(), all);
  EXPECT_EQ(pavo_log_getLevel(c32.c_str()), 2);
  EXPECT_EQ(insert_modules_list(("X|" + c32).c_str(), 0), 0);
  EXPECT_EQ(insert_modules_list("X", 1), 0);
  EXPECT_EQ(pavo_log_getLevel("X"), 2);
  EXPECT_EQ(pavo_log_getLevel(c32.c_str()), 1);
  EXPECT_EQ(clear_modules_list(), 0);
  EXPECT_EQ(modules(), "-");
}

}  // namespace
