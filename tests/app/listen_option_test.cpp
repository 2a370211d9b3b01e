#include "app/listen_option.h"
#include "tests/support/child_process.h"

#include <gtest/gtest.h>

namespace kinetrel::test {
namespace {

TEST(ListenOption, AddressesAreRead) {
  struct Row {
    const char* text;
    const char* address;  // null: refused
    int port;
  };
  const Row rows[] = {
      {"0.0.0.0", "0.0.0.0", 5437},
      {"10.0.0.7:99", "10.0.0.7", 99},
      {":99", "127.0.0.1", 99},
      {"::1", "::1", 5437},
      {"[::1]:99", "::1", 99},
      {"[::1]", "::1", 5437},
      {"127.0.0.1:", nullptr, 0},
      {"127.0.0.1:x", nullptr, 0},
      {"127.0.0.1:65536", nullptr, 0},
      {"127.0.0.1:-1", nullptr, 0},
      {"", nullptr, 0},
      {"127.0.0.1:9 ", nullptr, 0},
  };
  for (const Row& row : rows) {
    const auto listen = ParseListenAddress(row.text);
    ASSERT_EQ(listen.has_value(), row.address != nullptr) << row.text;
    if (!listen) continue;
    EXPECT_EQ(listen->address, row.address);
    EXPECT_EQ(listen->port, row.port);
  }
}

TEST(ListenOption, IsTakenOutOfTheArguments) {
  SetVariable("KINETREL_LISTEN", "127.0.0.9");
  const char* const arguments[] = {"program", "-d8", "--listen", "127.0.0.2:7", "-w", "3"};
  const auto taken = TakeListenOption(6, arguments);
  ASSERT_TRUE(taken.has_value());
  EXPECT_EQ(taken->listen.address, "127.0.0.2");
  EXPECT_EQ(taken->listen.port, 7);
  EXPECT_EQ(taken->rest.size(), 4U);
  EXPECT_EQ(TakeListenOption(2, arguments)->listen.address, "127.0.0.9");
  EXPECT_FALSE(TakeListenOption(3, arguments).has_value());  // without its value
  UnsetVariable("KINETREL_LISTEN");
  EXPECT_EQ(TakeListenOption(2, arguments)->listen.address, "127.0.0.1");
}

}  // namespace
}  // namespace kinetrel::test
