#include "app/listen_address.h"
#include "tests/support/child_process.h"

#include <gtest/gtest.h>

namespace kinetrel::test {
namespace {

TEST(ListenAddress, AddressesAreRead) {
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

TEST(ListenAddress, TheOptionComesBeforeTheVariable) {
  SetVariable("KINETREL_LISTEN", "127.0.0.9");
  EXPECT_EQ(ChosenListenAddress("127.0.0.2:7")->address, "127.0.0.2");
  EXPECT_EQ(ChosenListenAddress("")->address, "127.0.0.9");
  SetVariable("KINETREL_LISTEN", "127.0.0.9:x");
  EXPECT_FALSE(ChosenListenAddress("").has_value());
  UnsetVariable("KINETREL_LISTEN");
  EXPECT_EQ(ChosenListenAddress("")->address, "127.0.0.1");
}

}  // namespace
}  // namespace kinetrel::test
