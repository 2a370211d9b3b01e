// The texts by which filters are made.
#include "filters/filter_option.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace kinetrel {
namespace {

TEST(FilterOption, TakesTheSensorsOutOfTheText) {
  struct Row {
    const char* text;
    const char* rest;  // null: refused
    unsigned sensors;
  };
  for (const Row& row : {
           Row{"rigid", "rigid", ~0U},
           Row{"rigid:scale=2,tip-m=1/2/3", "rigid:scale=2,tip-m=1/2/3", ~0U},
           Row{"rigid:scale=0", nullptr, 0},
           Row{"map", nullptr, 0},
           Row{"map:file=none.csv", nullptr, 0},
           Row{"map:file=none.csv,degree=5", nullptr, 0},
           Row{"gate:sensors=1", "gate", 0x1},
           Row{"rigid:scale=2,sensors=1+3-5,tip-m=1/2/3", "rigid:scale=2,tip-m=1/2/3", 0x1D},
           Row{"gate:sensors=32", "gate", 0x80000000},
           Row{"gate:sensors=1-32", "gate", ~0U},
           Row{"gate:sensors=0", nullptr, 0},
           Row{"gate:sensors=33", nullptr, 0},
           Row{"gate:sensors=", nullptr, 0},
           Row{"gate:sensors=4-2", nullptr, 0},
           Row{"gate:sensors=1+", "gate", 0x1},
           Row{"gate:sensors=1-", nullptr, 0},
           Row{"gate:sensors=-1", nullptr, 0},
           Row{"gate:sensors=1x", nullptr, 0},
           Row{"", nullptr, 0},
       }) {
    SCOPED_TRACE(row.text);
    FilterOption option;
    std::string error;
    ASSERT_EQ(ReadFilterOption(row.text, option, error), row.rest != nullptr) << error;
    EXPECT_EQ(error.empty(), row.rest != nullptr);
    if (row.rest == nullptr) continue;
    EXPECT_EQ(option.text, row.rest);
    EXPECT_EQ(option.sensors, row.sensors);
  }
}

TEST(FilterOption, AFileHasOneFilterALineAndAMistakeNamesItsLine) {
  const std::string path = testing::TempDir() + "kinetrel-filters-" +
                           std::to_string(testing::UnitTest::GetInstance()->random_seed());
  const auto read = [&path](const char* content, std::string& error) {
    std::ofstream(path) << content;
    std::vector<FilterOption> options;
    return ReadFilterFile(path, options, error) ? static_cast<int>(options.size()) : -1;
  };
  std::string error;
  EXPECT_EQ(read("# the room\r\nrigid:scale=2\r\n\n  \ngate:sensors=2", error), 2) << error;
  EXPECT_EQ(read("rigid\ngate:sensors=x\n", error), -1);
  EXPECT_EQ(error, "line 2: sensors takes numbers from 1 to 32, such as 1+3 or 1-4.");
  EXPECT_EQ(read("", error), 0);
  std::remove(path.c_str());
  std::vector<FilterOption> options;
  EXPECT_FALSE(ReadFilterFile(path, options, error));
  EXPECT_EQ(error, "it cannot be read");
}

}  // namespace
}  // namespace kinetrel
