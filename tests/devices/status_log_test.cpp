#include "devices/status_log.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace kinetrel {
namespace {

TEST(StatusLog, KeepsEntriesInOrderWithTheirTime) {
  StatusLog log;
  const std::time_t before = std::time(nullptr);
  EXPECT_TRUE(log.SetStatus(StatusCode::Port, "first %d"));  // the text is not a format
  EXPECT_TRUE(log.SetStatusF(StatusCode::Progress, "second %d of %s", 2, "two"));
  const std::vector<StatusEntry> entries = log.Entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].code, -3);
  EXPECT_EQ(entries[0].text, "first %d");
  EXPECT_EQ(entries[1].text, "second 2 of two");
  EXPECT_STREQ(log.CurrentStatusText(), "second 2 of two");
  EXPECT_GE(entries[0].when, before);
  EXPECT_GE(entries[1].when, entries[0].when);
}

TEST(StatusLog, TheNewestHalfStaysWhenTheLogIsFull) {
  StatusLog log;
  for (int i = 1; i < 4096; ++i) log.SetStatus(StatusCode{i}, "entry");
  EXPECT_EQ(log.Entries().size(), 4095U);
  log.SetStatus(StatusCode{4096}, "the last");
  const std::vector<StatusEntry> entries = log.Entries();
  ASSERT_EQ(entries.size(), 2048U);
  EXPECT_EQ(entries.front().code, 2049);
  EXPECT_EQ(entries.back().code, 4096);
  EXPECT_STREQ(log.CurrentStatusText(), "the last");
}

TEST(StatusLog, LongFormattedTextIsCut) {
  StatusLog log;
  for (const std::size_t length : {4094U, 4095U, 4096U, 10000U}) {
    log.SetStatusF(StatusCode::Report, "%s", std::string(length, 'x').c_str());
    EXPECT_EQ(log.Newest().text.size(), std::min<std::size_t>(length, 4095)) << length;
  }
  log.SetStatusF(StatusCode::Report, "short");
  EXPECT_EQ(log.Newest().text, "short");
}

TEST(StatusLog, WritersOnSeveralThreadsLoseNothing) {
  constexpr int kEach = 500;
  StatusLog log;
  std::vector<std::thread> writers;
  for (int code = 1; code <= 4; ++code) {
    writers.emplace_back([&log, code] {
      for (int i = 0; i < kEach; ++i) log.SetStatusF(StatusCode{code}, "%d", i);
    });
  }
  for (std::thread& writer : writers) writer.join();
  std::vector<int> next(5, 0);
  for (const StatusEntry& entry : log.Entries()) {
    EXPECT_EQ(entry.text, std::to_string(next[static_cast<std::size_t>(entry.code)]++));
  }
  for (int code = 1; code <= 4; ++code) EXPECT_EQ(next[static_cast<std::size_t>(code)], kEach);
}

}  // namespace
}  // namespace kinetrel
