// Logging threads against a thread that keeps changing the table.
#include <atomic>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "pavo_log.h"
#include "support/output_capture.h"

namespace {

constexpr int kReaders = 4;

// Runs `write` over and over until each of the reader threads has called
// `read` `reads` times.
template <typename Read, typename Write>
void against_writer(int reads, Read read, Write write) {
  std::atomic<int> running{kReaders};
  std::thread writer([&] {
    while (running.load() > 0) write();
  });
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&, r] {
      for (int i = 0; i < reads; ++i) read(r, i);
      running.fetch_sub(1);
    });
  }
  for (auto& t : readers) t.join();
  writer.join();
}

// The writer moves the first slot between "absent_modulX" and
// "bbsent_module". A lookup that mixed the first byte of one with the rest of
// the other would find "absent_module", which is never in the table.
TEST(LogThreadsTest, LookupsNeverSeeAHalfChangedTable) {
  clear_modules_list();
  ASSERT_EQ(insert_modules_list("bbsent_module", 1), 0);
  std::atomic<int> wrong{0};
  bool present = false;
  against_writer(
      200000,
      [&](int, int) {
        wrong += pavo_log_getLevel("absent_module") != 1;
        wrong += pavo_log_getLevel("bbsent_module") != 2;
      },
      [&] { insert_modules_list("absent_modulX", (present = !present) ? 1 : 0); });
  EXPECT_EQ(wrong.load(), 0);
  clear_modules_list();
}

TEST(LogThreadsTest, LinesOfConcurrentThreadsStayWhole) {
  constexpr int kLines = 400;
  pavo::test::OutputCapture out(1);
  bool on = false;
  against_writer(
      kLines,
      [](int r, int i) {
        const std::string function = "reader" + std::to_string(r);
        pavo_log_print(PAVO_LOG_TYPE_ERROR, "PAC_PLUGIN", "x.cc", function.c_str(), i, nullptr, nullptr);
        pavo_log_print(PAVO_LOG_TYPE_ENTER, "PAC_PLUGIN", "x.cc", function.c_str(), i, nullptr, nullptr);
      },
      [&] { (on = !on) ? insert_modules_list("PAC_PLUGIN|OTHER", 1) : clear_modules_list(); });
  clear_modules_list();

  std::istringstream lines(out.text());
  int errors = 0;
  for (std::string line; std::getline(lines, line) && line != "\033[0m";) {
    if (line.compare(0, 4, "\033[0m") == 0) line.erase(0, 4);  // the reset of the line before
    const bool red = line.compare(0, 5, "\033[31m") == 0;
    char level[6] = "";
    int reader = -1, end = 0;
    std::sscanf(line.c_str(),
                red ? "\033[31mtime=%*d/%*d/%*d %*d:%*d:%*d,timestamp=%*d,pid=%*d,tid=%*d,logtype=%5[a-z] "
                      "File:x.cc Function: reader%1d(), line: %*d%n"
                    : "\033[32mtime=%*d/%*d/%*d %*d:%*d:%*d,timestamp=%*d,pid=%*d,tid=%*d,logtype=%5[a-z] "
                      "File: x.cc Function: reader%1d() Enter!%n",
                level, &reader, &end);
    ASSERT_EQ(static_cast<size_t>(end), line.size()) << "mixed line: " << line;
    ASSERT_TRUE(std::string(level) == "info" || (red && std::string(level) == "error")) << line;
    errors += red;
  }
  EXPECT_EQ(errors, kReaders * kLines) << "error lines print at either level";
}

}  // namespace
