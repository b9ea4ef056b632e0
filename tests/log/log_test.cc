// The module table (level mapping, names, order, limits and their messages),
// the printed lines (exact text and colour of each log type at each
// effective level, the header, and filtered calls that read nothing), both
// against concurrent changes of the table, and the control listener.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "loopback.h"
#include "pavo_log.h"
#include "support/output_capture.h"

extern "C" int pavo_log_c_header_check(void);

namespace {

using pavo::test::control_datagram;
using pavo::test::OutputCapture;
using std::chrono::steady_clock;

// The module list; "-" when get_modules_list left the buffer untouched.
// Checks the count it returns and that every byte after the text is a NUL.
std::string modules() {
  char out[PAVO_LOG_MODULES_LIST_SIZE];
  std::memset(out, '-', sizeof out);
  const int count = get_modules_list(out);
  if (count == 0) return std::string(out, sizeof out) == std::string(sizeof out, '-') ? "-" : "?";
  const size_t n = strnlen(out, sizeof out);
  EXPECT_EQ(std::string(out + n, sizeof out - n), std::string(sizeof out - n, '\0'));
  EXPECT_EQ(count, 1 + std::count(out, out + n, '|'));
  return std::string(out, n);
}

// What `call` writes to standard output (checked after the capture ends, so
// that failures print).
std::string printed(const std::function<void()>& call) {
  OutputCapture out(1);
  call();
  return out.text();
}

TEST(LogTest, StoredLevelsExactNamesAndByteOrder) {
  clear_modules_list();
  for (auto [stored, effective] : {std::pair{1, 2}, {2, 1}, {255, 1}, {-1, 1}, {0, 1}}) {
    ASSERT_EQ(insert_modules_list("M", stored), 0);
    EXPECT_EQ(pavo_log_getLevel("M"), effective) << "stored " << stored;
  }
  EXPECT_EQ(modules(), "-") << "0 removed it, and lookups add nothing";

  EXPECT_EQ(insert_modules_list(nullptr, 1), -1);
  EXPECT_EQ(insert_modules_list("|b||B|_|a|\xC3\xA9|A1|A|OTHE|", 1), 0);
  EXPECT_EQ(modules(), "A|A1|B|OTHE|_|a|b|\xC3\xA9");
  for (const char* unlisted : {"OTHER", "OTH", "A2", ""}) EXPECT_EQ(pavo_log_getLevel(unlisted), 1) << unlisted;
  EXPECT_EQ(pavo_log_getLevel(nullptr), 1);
  EXPECT_EQ(insert_modules_list("B|zz|A1|OTHE", 0), 0);
  EXPECT_EQ(modules(), "A|_|a|b|\xC3\xA9");
  EXPECT_EQ(get_modules_list(nullptr), -1);
}

// Names of more than 32 characters are refused and the rest applied; a full
// table refuses every nonzero level, even for a module in it, and drops the
// rest of that request, but still removes.
TEST(LogTest, LimitsOf32CharactersAnd20ModulesWithTheirMessages) {
  clear_modules_list();
  const std::string x33(33, 'x'), c32(32, 'c');
  std::string all;  // 20 names of 32 characters: 659 characters listed
  for (char c = 'a'; c < 'a' + PAVO_LOG_MAX_MODULES; ++c) all += (all.empty() ? "" : "|") + std::string(32, c);
  EXPECT_EQ(printed([&] { insert_modules_list((x33 + "|" + all).c_str(), 1); }),
            "module:" + x33 + " set error, length is 33, out of max length:32\n");
  EXPECT_EQ(modules(), all);
  EXPECT_EQ(printed([&] {
              insert_modules_list("X|Y", 1);
              insert_modules_list((c32 + "|Z").c_str(), 2);
            }),
            "module:X set error, module_list map has number:20\n"
            "module:" + c32 + " set error, module_list map has number:20\n");
  EXPECT_EQ(modules(), all);
  EXPECT_EQ(pavo_log_getLevel(c32.c_str()), 2);
  EXPECT_EQ(pavo_log_getLevel((c32 + "c").c_str()), 1);
  EXPECT_EQ(insert_modules_list(("X|" + c32).c_str(), 0), 0);
  EXPECT_EQ(insert_modules_list("X", 1), 0);
  EXPECT_EQ(pavo_log_getLevel("X"), 2);
  EXPECT_EQ(pavo_log_getLevel(c32.c_str()), 1);
  EXPECT_EQ(clear_modules_list(), 0);
  EXPECT_EQ(modules(), "-");
}

// Each call prints its exact line at the effective levels from the first
// number on (3: never).
TEST(LogTest, EachCallPrintsItsExactLineFromItsEffectiveLevelOn) {
  // Filtered calls decide before they touch anything but the module name:
  // these pointers fault if read at all.
  const char* const bad = reinterpret_cast<const char*>(uintptr_t{8});
  for (int type : {PAVO_LOG_TYPE_ENTER, PAVO_LOG_TYPE_INT, PAVO_LOG_TYPE_STRING}) {
    pavo_log_print(type, "PAC_PLUGIN", bad, bad, 1, bad, bad);
  }
  pavo_log("PAC_PLUGIN", bad, bad, 1, "%s %s", bad, bad);

  const std::string G = "\033[32m<H> File", R = "\033[31m<H> File", E = "\n\033[0m";
  const std::string V = G + ":f.cc Function: F(), line: 7, ";  // a green line with a value
  const int minus42 = -42;
  const auto print = [](int type, const char* file, const char* function, const char* name, const void* value) {
    return [=] { pavo_log_print(type, "PAC_PLUGIN", file, function, 7, name, value); };
  };
  const std::tuple<int, std::function<void()>, std::string> calls[] = {
      {2, print(PAVO_LOG_TYPE_ENTER, "src/a/b.cc", "Open", "n", "v"), G + ": b.cc Function: Open() Enter!" + E},
      {2, print(PAVO_LOG_TYPE_LEAVE, nullptr, nullptr, "n", "v"), G + ": (null) Function: (null)() Leave!" + E},
      {1, print(PAVO_LOG_TYPE_ERROR, "../../dir/name", "F", "n", "v"), R + ":name Function: F(), line: 7" + E},
      {1, print(PAVO_LOG_TYPE_ERROR, "/abs/dir/", "F", "n", "v"), R + ": Function: F(), line: 7" + E},
      {2, print(PAVO_LOG_TYPE_INT, "f.cc", "F", "ret", &minus42), V + "ret:-42" + E},
      {2, print(PAVO_LOG_TYPE_INT, "f.cc", "F", "n", nullptr), V + "n:(null)" + E},
      {2, print(PAVO_LOG_TYPE_STRING, "f.cc", "F", "url", "x://y"), V + "url:x://y" + E},
      {2, print(PAVO_LOG_TYPE_STRING, "f.cc", "F", nullptr, nullptr), V + "(null):(null)" + E},
      {3, print(PAVO_LOG_TYPE_MAX, "f.cc", "F", "n", "v"), ""},
      {3, print(-1, "f.cc", "F", "n", "v"), ""},
      {1, print(PAVO_LOG_TYPE_MAX + 1, "f.cc", "F", "n", "v"), "log type set err, out of max enum value\n"},
      {2, [] { pavo_log("PAC_PLUGIN", "x/f.cc", "F", 7, "value %d\n", 5); },
       "<H> File:f.cc Function: F(), line: 7, value 5\n"},  // no colour
      {2, [] { pavo_log("PAC_PLUGIN", "f.cc", "G", 8, "%s", std::string(3000, 'z').c_str()); },
       "<H> File:f.cc Function: G(), line: 8, " + std::string(2047, 'z')},  // cut, and no newline of its own
  };
  for (int level : {1, 2}) {
    ASSERT_EQ(insert_modules_list("PAC_PLUGIN", level - 1), 0);  // stored 0: not listed
    std::string expected;
    for (const auto& [from, call, line] : calls) expected += level >= from ? line : "";
    std::string text = printed([&] {
      for (const auto& [from, call, line] : calls) call();
    });
    // Each header as rebuilt from its own timestamp, this process and this thread; then "<H>".
    for (size_t at; (at = text.find("time=")) != std::string::npos;) {
      long long stamp = 0;
      std::sscanf(text.c_str() + at, "%*[^,],timestamp=%lld", &stamp);
      const time_t when = static_cast<time_t>(stamp);
      struct tm t = {};
      localtime_r(&when, &t);
      char header[128];
      const int n = std::snprintf(header, sizeof header, "time=%d/%d/%d %d:%d:%d,timestamp=%lld,pid=%d,tid=%ld,logtype=%s",
                                  t.tm_mday, t.tm_mon + 1, t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec, stamp,
                                  static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)),
                                  level == 1 ? "error" : "info");
      EXPECT_EQ(text.substr(at, static_cast<size_t>(n)), header);
      text.replace(at, static_cast<size_t>(n), "<H>");
    }
    EXPECT_EQ(text, expected);
  }
}

// Logging threads against a thread that keeps changing the table: lookups
// never see a half-changed table, and printed lines never mix. The writer
// switches "PAC_PLUGIN" and "absent_modulX" on and off around
// "bbsent_module", so that a slot keeps changing between "absent_modulX" and
// "bbsent_module". A lookup that mixed the first word of one name with the
// rest of the other would find "absent_module", which is never in the table.
TEST(LogThreadsTest, LookupsAndLinesStayWholeWhileTheTableChanges) {
  constexpr int kReaders = 4, kLookups = 200000, kLines = 1000;
  clear_modules_list();
  ASSERT_EQ(insert_modules_list("bbsent_module", 1), 0);
  std::atomic<int> running{kReaders}, waiting{kReaders}, wrong{0};
  const std::string text = printed([&] {
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
  });
  clear_modules_list();
  EXPECT_EQ(wrong.load(), 0);

  // Every byte belongs to a whole line, and error lines print at either level.
  const std::string h = "time=#/#/# #:#:#,timestamp=#,pid=#,tid=#,logtype=", f = " Function: reader#()";
  const std::string error = " File:x.cc" + f + ", line: #", enter = "\033[32m" + h + "info File: x.cc" + f + " Enter!";
  size_t whole = 0;
  int errors = 0;
  for (size_t end; (end = text.find("\n\033[0m", whole)) != std::string::npos; whole = end + 5) {
    std::string line = text.substr(whole, 5);  // the colour, then the rest with each run of digits as "#"
    for (size_t i = whole + 5; i < end; ++i) {
      const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
      if (!digit || line.back() != '#') line += digit ? '#' : text[i];
    }
    const bool is_error = line == "\033[31m" + h + "info" + error || line == "\033[31m" + h + "error" + error;
    if (!is_error && line != enter) break;
    errors += is_error;
  }
  EXPECT_EQ(whole, text.size());
  EXPECT_EQ(errors, kReaders * kLines);
}

TEST(LogHeaderAsC, CompilesAndLinksAsC) { EXPECT_EQ(pavo_log_c_header_check(), 1); }

// The log control listener over real UDP on loopback, with the test playing
// the control tool on 127.0.0.1:54321 in its own network namespace. Last: the
// listener, once started, runs until the process ends.
TEST(ControlListenerTest, AppliesOneControlDatagramPerPassAndSendsItsListOnceASecond) {
  pavo::test::LoopbackSocket tool(PAVO_LOG_CONTROL_PORT);
  ASSERT_NE(tool.port, 0) << "127.0.0.1:54321 is taken";
  EXPECT_EQ(pavo_log_initialize(0), 0);
  EXPECT_EQ(pavo_log_initialize(2), -1);
  ASSERT_EQ(pavo_log_initialize(1), 0);
  std::string list;
  const int listener = tool.receive(list, 3000);
  ASSERT_NE(listener, 0) << "no module list";
  EXPECT_EQ(pavo_log_finalize(0) + pavo_log_finalize(1), 0);  // and stops nothing
  EXPECT_EQ(pavo_log_finalize(-1), -1);

  // The listener's next module list, also left in `list`.
  const auto next_list = [&]() -> const std::string& {
    for (int from; (from = tool.receive(list, 3000)) != 0;) {
      if (from == listener) return list;
    }
    ADD_FAILURE() << "the listener fell silent";
    return list = "<silent>";
  };
  // Module lists until one equals `wanted`, at most three of them.
  const auto await_list = [&](const std::string& wanted) {
    for (int i = 0; i < 3 && next_list() != wanted;) ++i;
    return list;
  };
  const auto send = [&](const std::string& bytes) { ASSERT_TRUE(tool.send_to(listener, bytes)); };

  // 1024 bytes without a NUL are the text: the level byte after them is not
  // part of the last name, and bytes past the 1025th are never read.
  const std::string no_nul = control_datagram(std::string(1014, '|') + "PAC_PLUGIN", 1);
  send(no_nul + std::string(500, 'J'));
  EXPECT_EQ(await_list("PAC_PLUGIN"), "PAC_PLUGIN");
  EXPECT_EQ(pavo_log_getLevel("PAC_PLUGIN"), 2);
  EXPECT_EQ(pavo::test::control_record(), no_nul);
  send("PAC_PLUGIN");  // 10 bytes: the level byte reads 0
  EXPECT_EQ(await_list(""), "");

  // The clear command only as the whole text; then one datagram per pass, in order.
  send(control_datagram(PAVO_LOG_CLEAR_COMMAND "|C", 1));
  EXPECT_EQ(await_list("C|" PAVO_LOG_CLEAR_COMMAND), "C|" PAVO_LOG_CLEAR_COMMAND);
  send(control_datagram("A", 1));
  send(control_datagram("B", 1));
  send(control_datagram(PAVO_LOG_CLEAR_COMMAND, 0));
  if (next_list() == "C|" PAVO_LOG_CLEAR_COMMAND) next_list();  // a pass that ended before they came
  const auto first = steady_clock::now();
  EXPECT_EQ(list, "A|C|" PAVO_LOG_CLEAR_COMMAND);
  EXPECT_EQ(next_list(), "A|B|C|" PAVO_LOG_CLEAR_COMMAND);
  EXPECT_EQ(next_list(), "");
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - first).count();
  EXPECT_GE(ms, 1600) << "two passes of a second";
}

}  // namespace
