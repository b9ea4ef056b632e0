// The log control listener over real UDP on loopback, with the test playing
// the control tool on 127.0.0.1:54321 in its own network namespace.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "loopback.h"
#include "pavo_log.h"

namespace {

using pavo::test::control_datagram;
using std::chrono::steady_clock;

TEST(ControlListenerTest, AppliesOneControlDatagramPerPassAndSendsItsListOnceASecond) {
  pavo::test::LoopbackSocket tool(PAVO_LOG_CONTROL_PORT);
  ASSERT_TRUE(tool.bound) << "127.0.0.1:54321 is taken";
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
