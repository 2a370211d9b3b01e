// The program with pipes as standard streams: how it starts and ends, on every system.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

// How the program ends if it cannot run, and what it prints.
struct Ending {
  const char* name;
  std::vector<std::string> arguments;
  int code;  // as the system gives it: -1 is 255, -2 is 254
  const char* said;
};

class Endings : public testing::TestWithParam<Ending> {};

TEST_P(Endings, EndWithTheirExitCode) {
  ChildProcess program("kinetrel", GetParam().arguments,
                       {.environment = {{"KINETREL_COM3", "no-such-device"}}});
  EXPECT_EQ(program.Wait(), GetParam().code);
  EXPECT_NE(program.error().find("\n\tService Version:  1.300 \tKinetrel Version:  1.420\n"),
            std::string::npos);
  EXPECT_NE(program.error().find(GetParam().said), std::string::npos) << program.error();
}

INSTANTIATE_TEST_SUITE_P(
    App, Endings,
    testing::Values(
        Ending{"BadArgument", {"-d"}, 255, "\n\nUSAGE: "},
        Ending{"UnknownType", {"-d13"}, 254, "Unknown TYPE tistart.dtyp = 13"},
        Ending{"RetiredType", {"-d5"}, 254, "\nSpaceBall instrument (TYPE=5) not supported."}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ProgramInput, KeysMayComeThroughAPipe) {
  FreeSlot slot;
  ChildProcess program("kinetrel", Simulated(slot));
  ASSERT_TRUE(program.ExpectError("Running ..."));
  program.Send("\x01\x1b");
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_NE(program.output().find("(Azimuth Zeroed)"), std::string::npos);
}

TEST(ProgramSlots, ASlotInUseIsReportedInOneLine) {
  FreeSlot slot;
  ChildProcess first("kinetrel", Simulated(slot));
  ASSERT_TRUE(first.ExpectError("Running ..."));
  const std::string line = "\n\tSharedMemory(" + std::to_string(slot.slot()) +
                           ") is being written by another program as well.";
  EXPECT_EQ(first.error().find(line), std::string::npos);
  ChildProcess second("kinetrel", Simulated(slot));
  ASSERT_TRUE(second.ExpectError("Running ..."));
  EXPECT_NE(second.error().find(line), std::string::npos);
}

}  // namespace
}  // namespace kinetrel::test
