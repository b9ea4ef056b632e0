// Printed lines: exact text and colour of each log type at each effective
// level, the header, file names, hostile arguments, and filtered calls that
// read nothing.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "pavo_log.h"
#include "support/output_capture.h"

extern "C" int pavo_log_c_header_check(void);

namespace {

const std::string G = "\033[32m", R = "\033[31m", E = "\033[0m";

// `text` with each header replaced by "<H>", after checking it byte for byte
// against the header rebuilt from its own timestamp, this process and thread.
std::string headers_checked(std::string text, const char* level) {
  for (size_t at; (at = text.find("time=")) != std::string::npos;) {
    long long stamp = 0;
    int end = 5;
    std::sscanf(text.c_str() + at, "time=%*d/%*d/%*d %*d:%*d:%*d,timestamp=%lld,%*[^,],%*[^,],logtype=%*[a-z]%n",
                &stamp, &end);
    const time_t when = static_cast<time_t>(stamp);
    struct tm t = {};
    localtime_r(&when, &t);
    char expected[128];
    std::snprintf(expected, sizeof expected, "time=%d/%d/%d %d:%d:%d,timestamp=%ld,pid=%d,tid=%ld,logtype=%s",
                  t.tm_mday, t.tm_mon + 1, t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec,
                  static_cast<long>(when), static_cast<int>(getpid()),
                  static_cast<long>(syscall(SYS_gettid)), level);
    EXPECT_EQ(text.substr(at, static_cast<size_t>(end)), expected);
    text.replace(at, static_cast<size_t>(end), "<H>");
  }
  return text;
}

std::string log_every_type() {
  pavo::test::OutputCapture out(1);
  const int value = -42;
  for (int type = -1; type <= PAVO_LOG_TYPE_MAX; ++type) {
    pavo_log_print(type, "PAC_PLUGIN", "src/a/client.cc", "Open", 10 + type,
                   type == PAVO_LOG_TYPE_INT ? "ret" : "url",
                   type == PAVO_LOG_TYPE_INT ? static_cast<const void*>(&value) : "x://y");
  }
  return out.text();
}

class LogPrintTest : public ::testing::Test {
 protected:
  void SetUp() override { clear_modules_list(); }
  void TearDown() override { clear_modules_list(); }
};

TEST_F(LogPrintTest, EachStoredLevelPrintsItsLinesExactly) {
  const std::string error_line = R + "<H> File:client.cc Function: Open(), line: 12\n" + E;
  EXPECT_EQ(pavo_log_getLevel("PAC_PLUGIN"), 1);
  EXPECT_EQ(headers_checked(log_every_type(), "error"), error_line);

  ASSERT_EQ(insert_modules_list("PAC_PLUGIN", 1), 0);
  EXPECT_EQ(pavo_log_getLevel("PAC_PLUGIN"), 2);
  EXPECT_EQ(headers_checked(log_every_type(), "info"),
            G + "<H> File: client.cc Function: Open() Enter!\n" + E +
            G + "<H> File: client.cc Function: Open() Leave!\n" + E +
            R + "<H> File:client.cc Function: Open(), line: 12\n" + E +
            G + "<H> File:client.cc Function: Open(), line: 13, ret:-42\n" + E +
            G + "<H> File:client.cc Function: Open(), line: 14, url:x://y\n" + E);

  ASSERT_EQ(insert_modules_list("PAC_PLUGIN", 2), 0);
  EXPECT_EQ(headers_checked(log_every_type(), "error"), error_line);
  ASSERT_EQ(insert_modules_list("PAC_PLUGIN", 0), 0);
  EXPECT_EQ(headers_checked(log_every_type(), "error"), error_line);
}

TEST_F(LogPrintTest, HostileArgumentsPrintSafely) {
  ASSERT_EQ(insert_modules_list("M|OTHE", 1), 0);
  {
    pavo::test::OutputCapture out(1);
    pavo_log_print(6, "M", "f.cc", "F", 1, nullptr, nullptr);
    pavo_log_print(INT32_MIN, "M", "f.cc", "F", 1, nullptr, nullptr);
    pavo_log_print(PAVO_LOG_TYPE_ENTER, "OTHER", "f.cc", "F", 1, nullptr, nullptr);  // not "OTHE"
    pavo_log_print(PAVO_LOG_TYPE_ERROR, nullptr, nullptr, nullptr, 1, nullptr, nullptr);
    pavo_log_print(PAVO_LOG_TYPE_ERROR, "X", "../../dir/name", "F", 2, nullptr, nullptr);
    pavo_log_print(PAVO_LOG_TYPE_ERROR, "X", "/abs/dir/", "F", 3, nullptr, nullptr);
    EXPECT_EQ(headers_checked(out.text(), "error"),
              "log type set err, out of max enum value\n" +
                  R + "<H> File:(null) Function: (null)(), line: 1\n" + E +
                  R + "<H> File:name Function: F(), line: 2\n" + E +
                  R + "<H> File: Function: F(), line: 3\n" + E);
  }
  pavo::test::OutputCapture out(1);
  pavo_log_print(PAVO_LOG_TYPE_INT, "M", "f.cc", "F", 4, "n", nullptr);
  pavo_log_print(PAVO_LOG_TYPE_STRING, "M", "f.cc", "F", 5, nullptr, nullptr);
  EXPECT_EQ(headers_checked(out.text(), "info"),
            G + "<H> File:f.cc Function: F(), line: 4, n:(null)\n" + E +
            G + "<H> File:f.cc Function: F(), line: 5, (null):(null)\n" + E);
}

TEST_F(LogPrintTest, FormattedTextOnlyAtFullOutputAndCutAt2047) {
  pavo::test::OutputCapture out(1);
  pavo_log("PAC_PLUGIN", "x/f.cc", "F", 7, "value %d\n", 5);
  ASSERT_EQ(out.text(), "");
  ASSERT_EQ(insert_modules_list("PAC_PLUGIN", 1), 0);
  pavo_log("PAC_PLUGIN", "x/f.cc", "F", 7, "value %d\n", 5);
  pavo_log("PAC_PLUGIN", "f.cc", "G", 8, "%s", std::string(3000, 'z').c_str());
  EXPECT_EQ(headers_checked(out.text(), "info"),
            "<H> File:f.cc Function: F(), line: 7, value 5\n"
            "<H> File:f.cc Function: G(), line: 8, " + std::string(2047, 'z'));
}

// A filtered call decides before it touches anything but the module name:
// these pointers fault if read at all.
TEST_F(LogPrintTest, FilteredCallsReadNothingButTheModule) {
  const char* const bad = reinterpret_cast<const char*>(uintptr_t{8});
  pavo::test::OutputCapture out(1);
  for (int type : {PAVO_LOG_TYPE_ENTER, PAVO_LOG_TYPE_INT, PAVO_LOG_TYPE_STRING}) {
    pavo_log_print(type, "PAC_PLUGIN", bad, bad, 1, bad, bad);
  }
  pavo_log("PAC_PLUGIN", bad, bad, 1, "%s %s", bad, bad);
  EXPECT_EQ(out.text(), "");
}

TEST(LogHeaderAsC, CompilesAndLinksAsC) { EXPECT_EQ(pavo_log_c_header_check(), 1); }

}  // namespace
