// The log control listener over real UDP on loopback, with the test playing
// the control tool on 127.0.0.1:54321 in its own network namespace.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "loopback.h"
#include "pavo_log.h"

namespace {

using pavo::test::control_datagram;

pavo::test::LoopbackSocket* tool;
int listener;

// The listener's next module list.
std::string next_list() {
  std::string bytes;
  for (int from; (from = tool->receive(bytes, 3000)) != 0;) {
    if (from == listener) return bytes;
  }
  ADD_FAILURE() << "the listener fell silent";
  return "<silent>";
}

// Module lists until one equals `wanted`, at most three of them.
std::string await_list(const std::string& wanted) {
  std::string list = "<none>";
  for (int i = 0; i < 3 && list != wanted; ++i) list = next_list();
  return list;
}

void send(const std::string& bytes) { ASSERT_TRUE(tool->send_to(listener, bytes)); }

class ControlListenerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tool = new pavo::test::LoopbackSocket(PAVO_LOG_CONTROL_PORT);
    pavo_log_initialize(1);
  }
  void SetUp() override {
    ASSERT_TRUE(tool->bound) << "127.0.0.1:54321 is taken";
    clear_modules_list();
    std::string ignored;
    while (tool->receive(ignored, 0) != 0) {
    }
    ASSERT_NE(listener = tool->receive(ignored, 3000), 0) << "no module list";
  }
};

TEST_F(ControlListenerTest, ModesAndTheEmptyListOnceASecond) {
  EXPECT_EQ(pavo_log_initialize(0), 0);
  EXPECT_EQ(pavo_log_initialize(2), -1);
  EXPECT_EQ(pavo_log_finalize(0) + pavo_log_finalize(1), 0);
  EXPECT_EQ(pavo_log_finalize(-1), -1);
  for (int i = 0; i < 2; ++i) {  // finalize stopped nothing
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(next_list(), "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(800));
  }
}

TEST_F(ControlListenerTest, LevelByteSwitchesOnAndToErrorsAndAShortDatagramRemoves) {
  send(control_datagram("PAC_PLUGIN", 1));
  EXPECT_EQ(await_list("PAC_PLUGIN"), "PAC_PLUGIN");
  EXPECT_EQ(pavo_log_getLevel("PAC_PLUGIN"), 2);
  std::string record(sizeof g_modules_info, '\0');  // read as its writer stores it
  for (size_t i = 0; i < record.size(); ++i) record[i] = __atomic_load_n(&g_modules_info[i], __ATOMIC_RELAXED);
  EXPECT_EQ(record, control_datagram("PAC_PLUGIN", 1));

  send(control_datagram("PAC_PLUGIN", 2));
  for (int i = 0; i < 3 && pavo_log_getLevel("PAC_PLUGIN") != 1; ++i) next_list();
  EXPECT_EQ(pavo_log_getLevel("PAC_PLUGIN"), 1);
  EXPECT_EQ(next_list(), "PAC_PLUGIN");
  send("PAC_PLUGIN");  // 10 bytes: the level byte reads 0
  EXPECT_EQ(await_list(""), "");
}

TEST_F(ControlListenerTest, ClearOnlyAsTheWholeTextAndOneDatagramPerPassInOrder) {
  send(control_datagram(PAVO_LOG_CLEAR_COMMAND "|C", 1));
  EXPECT_EQ(await_list("C|" PAVO_LOG_CLEAR_COMMAND), "C|" PAVO_LOG_CLEAR_COMMAND);
  send(control_datagram("A", 1));
  send(control_datagram("B", 1));
  send(control_datagram(PAVO_LOG_CLEAR_COMMAND, 0));
  std::string list = next_list();
  if (list == "C|" PAVO_LOG_CLEAR_COMMAND) list = next_list();  // a pass that ended before they came
  EXPECT_EQ(list, "A|C|" PAVO_LOG_CLEAR_COMMAND);
  EXPECT_EQ(next_list(), "A|B|C|" PAVO_LOG_CLEAR_COMMAND);
  EXPECT_EQ(next_list(), "");
}

// 1024 bytes without a NUL are the text: the level byte after them is not
// part of the last name, and bytes past the 1025th are never read.
TEST_F(ControlListenerTest, TextWithoutNulIsItsFirst1024Bytes) {
  send(control_datagram(std::string(1014, '|') + "PAC_PLUGIN", 1) + std::string(500, 'J'));
  EXPECT_EQ(await_list("PAC_PLUGIN"), "PAC_PLUGIN");
  EXPECT_EQ(pavo_log_getLevel("PAC_PLUGIN"), 2);
}

}  // namespace
