// Logging threads against a thread that keeps changing the table: lookups
// never see a half-changed table, and printed lines never mix.
#include <atomic>
#include <memory>
#include <algorithm>
#include <cctype>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "pavo_log.h"
#include "support/output_capture.h"

namespace {

// The writer switches "PAC_PLUGIN" and "absent_modulX" on and off around
// "bbsent_module", so that a slot keeps changing between "absent_modulX" and
// "bbsent_module". A lookup that mixed the first word of one name with the
// rest of the other would find "absent_module", which is never in the table.
TEST(LogThreadsTest, LookupsAndLinesStayWholeWhileTheTableChanges) {
  constexpr int kReaders = 4, kLookups = 200000, kLines = 1000;
  clear_modules_list();
  ASSERT_EQ(insert_modules_list("bbsent_module", 1), 0);
  std::atomic<int> running{kReaders}, waiting{kReaders}, wrong{0};
  auto out = std::make_unique<pavo::test::OutputCapture>(1);
  std::thread writer([&] {
    for (int on = 1; running.load() > 0; on = !on) insert_modules_list("PAC_PLUGIN|absent_modulX", on);
  });
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&, r] {
      const std::string function = "reader" + std::to_string(r);
      for (--waiting; waiting.load() > 0;) std::this_thread::yield();  // start together
      for (int i = 0; i < kLookups; ++i) {
        wrong += pavo_log_getLevel("absent_module") != 1;
        wrong += pavo_log_getLevel("bbsent_module") != 2;
        if (i >= kLines) continue;  // lines first, while the readers print side by side
        pavo_log_print(PAVO_LOG_TYPE_ERROR, "PAC_PLUGIN", "x.cc", function.c_str(), i, nullptr, nullptr);
        pavo_log_print(PAVO_LOG_TYPE_ENTER, "PAC_PLUGIN", "x.cc", function.c_str(), i, nullptr, nullptr);
      }
      running.fetch_sub(1);
    });
  }
  for (auto& t : readers) t.join();
  writer.join();
  clear_modules_list();
  const std::string text = out->text();
  out.reset();  // before any check, so that failures print
  EXPECT_EQ(wrong.load(), 0);

  // Every byte belongs to a whole line, and error lines print at either level.
  std::string shape;  // the text with each run of digits outside the colour codes as "#"
  for (size_t i = 0; i < text.size(); ++i) {
    const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
    if (text[i] == '\033') {
      const size_t m = std::min(text.find('m', i), text.size() - 1);
      shape += text.substr(i, m - i + 1);
      i = m;
    } else if (!digit || shape.empty() || shape.back() != '#') {
      shape += digit ? '#' : text[i];
    }
  }
  const std::string h = "time=#/#/# #:#:#,timestamp=#,pid=#,tid=#,logtype=", f = " Function: reader#()";
  const std::string error = " File:x.cc" + f + ", line: #", enter = "\033[32m" + h + "info File: x.cc" + f + " Enter!";
  size_t whole = 0;
  int errors = 0;
  for (size_t end; (end = shape.find("\n\033[0m", whole)) != std::string::npos; whole = end + 5) {
    const std::string line = shape.substr(whole, end - whole);
    if (line == "\033[31m" + h + "info" + error || line == "\033[31m" + h + "error" + error) {
      ++errors;
    } else if (line != enter) {
      break;
    }
  }
  EXPECT_EQ(whole, shape.size());
  EXPECT_EQ(errors, kReaders * kLines);
}

}  // namespace
