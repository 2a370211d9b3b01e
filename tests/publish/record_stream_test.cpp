// The record stream as a client of the C header sees it: numbers, losses, states, ends, and content
// that no writer of ours has written.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "publish/record_stream_writer.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

constexpr std::uint64_t kKept = kinetrel_stream_records - kinetrel_stream_records / 32;

// Every field tells the count, so that a torn copy shows.
kinetrel_record Numbered(std::uint64_t count, std::uint32_t sensor = 0) {
  kinetrel_record record{};
  const auto value = static_cast<float>(count % 1'000'000);
  record.frame = count;
  record.sample_ns = static_cast<std::int64_t>(count);
  for (double& metre : record.position) metre = static_cast<double>(value);
  for (float& part : record.orientation) part = value;
  for (float& angle : record.angles) angle = value;
  record.sensor = sensor;
  record.buttons = record.buttons_known = static_cast<std::uint32_t>(count);
  return record;
}

bool IsWhole(const kinetrel_record& seen) {
  kinetrel_record wanted = Numbered(seen.frame, seen.sensor);
  wanted.number = seen.number;
  wanted.publish_ns = seen.publish_ns;
  return std::memcmp(&wanted, &seen, sizeof seen) == 0;
}

class Stream : public testing::Test {
 protected:
  void SetUp() override {
    OpenWriter();
    ASSERT_EQ(kinetrel_stream_open(&stream_, slot_.slot(), 0), kinetrel_stream_ok);
  }
  void TearDown() override { kinetrel_stream_close(&stream_); }

  void OpenWriter() {
    writer_.reset();
    auto opened = RecordStreamWriter::Open(slot_.device());
    ASSERT_TRUE(opened.Ok()) << Describe(opened.status());
    writer_ = std::move(*opened);
  }
  void Publish(std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
      ++published_;
      kinetrel_record record = Numbered(published_, published_ % 4);
      writer_->Publish({&record, 1});
    }
  }
  // Takes what is there; how many records.
  std::uint64_t TakeAll() {
    std::uint64_t taken = 0;
    for (; kinetrel_stream_next(&stream_, &record_, 0) == kinetrel_stream_ok; ++taken) {
      EXPECT_TRUE(IsWhole(record_)) << record_.number;
    }
    return taken;
  }
  std::string State() {
    char text[256];
    const kinetrel_state state = kinetrel_stream_state(&stream_, text);
    return std::string(kinetrel_state_text(state)) + ": " + text;
  }

  const FreeSlot slot_;
  std::unique_ptr<RecordStreamWriter> writer_;
  kinetrel_stream stream_;
  kinetrel_record record_{};
  std::uint64_t published_ = 0;
};

TEST_F(Stream, RecordsOfOneArrivalComeInOrderAndTheNewestOfEachSensorStays) {
  std::array records = {Numbered(1, 0), Numbered(1, 31), Numbered(1, 5), Numbered(1, 32)};
  writer_->Publish(records);
  for (const std::uint32_t sensor : {0U, 31U, 5U}) {
    ASSERT_EQ(kinetrel_stream_next(&stream_, &record_, 0), kinetrel_stream_ok);
    EXPECT_EQ(record_.sensor, sensor);
    EXPECT_TRUE(IsWhole(record_));
    EXPECT_LE(record_.publish_ns, kinetrel_now_ns());
  }
  EXPECT_EQ(kinetrel_stream_next(&stream_, &record_, 0), kinetrel_stream_timed_out);
  ASSERT_EQ(kinetrel_stream_newest(&stream_, 31, &record_), kinetrel_stream_ok);
  EXPECT_EQ(record_.number, 2U);
  EXPECT_EQ(kinetrel_stream_newest(&stream_, 6, &record_), kinetrel_stream_none);
  EXPECT_EQ(kinetrel_stream_newest(&stream_, 32, &record_), kinetrel_stream_invalid);
}

TEST_F(Stream, AWaitingReaderIsWoken) {
  std::thread publisher([this] {
    SleepFor(Milliseconds(20));
    Publish(1);
  });
  const std::int64_t start = kinetrel_now_ns();
  EXPECT_EQ(kinetrel_stream_next(&stream_, &record_, 20'000), kinetrel_stream_ok);
  EXPECT_LT(kinetrel_now_ns() - start, 10'000'000'000);
  publisher.join();
}

TEST_F(Stream, PublishingAllocatesNothing) {
  const int before = CountedAllocations();
  CountAllocations(true);
  Publish(100);
  writer_->NoteFrame(1);
  writer_->SetState(kinetrel_state_silent, "Silent.");
  CountAllocations(false);
  EXPECT_EQ(CountedAllocations(), before);
}

// The fastest tracker sends 16 x 240 records a second.
TEST_F(Stream, AReaderThatWasHeldUpIsToldHowMuchItLost) {
  struct Case {
    std::uint64_t published;
    std::uint64_t lost;
  };
  std::uint64_t lost = 0;
  for (const Case& held : {Case{240, 0},
                           {3840, 0},
                           {2 * 3840, 0},
                           {38'400, 38'400 - kKept},
                           {240, 0},
                           {100 * 8192, 100 * 8192 - kKept}}) {
    Publish(held.published);
    lost += held.lost;
    EXPECT_EQ(TakeAll(), held.published - held.lost);
    EXPECT_EQ(kinetrel_stream_lost(&stream_), lost);
    EXPECT_EQ(record_.number, published_);
  }
  kinetrel_stream_rewind(&stream_);
  EXPECT_EQ(TakeAll(), kKept);
}

TEST_F(Stream, StatesAreToldWithTheirReasonUntilTheWriterEnds) {
  EXPECT_EQ(State(), "starting: The tracker is being started.");
  writer_->SetState(kinetrel_state_silent, "Check\tits cable.");
  EXPECT_EQ(State(), "silent: Check?its cable.");
  writer_->ChangeRun([](kinetrel_run& run) { run.sensor_mask = 5; });
  kinetrel_run run;
  ASSERT_EQ(kinetrel_stream_run(&stream_, &run), kinetrel_stream_ok);
  EXPECT_EQ(run.sensor_mask, 5U);
  EXPECT_STREQ(run.sensor_names[1], "Sensor 2");
  EXPECT_NEAR(static_cast<double>(kinetrel_run_utc_ns(&run, kinetrel_now_ns())),
              static_cast<double>(std::time(nullptr)) * 1e9, 2e9);
  writer_.reset();
  EXPECT_EQ(State(), "stopped: The tracker's program has closed.");
}

// The records that the old writer left are still delivered, and the new one's from its first on.
TEST_F(Stream, TheReaderGoesOverToTheNextWriter) {
  Publish(3);
  writer_.reset();
  EXPECT_EQ(TakeAll(), 3U);
  OpenWriter();
  Publish(2);
  EXPECT_EQ(kinetrel_stream_next(&stream_, &record_, 20'000), kinetrel_stream_restarted);
  EXPECT_EQ(TakeAll(), 2U);
  EXPECT_EQ(record_.number, 2U);
  EXPECT_EQ(kinetrel_stream_lost(&stream_), 0U);
}

TEST_F(Stream, ClosedOrWronglyNamedStreamsAreRefused) {
  kinetrel_stream other;
  for (const int slot : {0, 17, -1}) {
    EXPECT_EQ(kinetrel_stream_open(&other, slot, 0), kinetrel_stream_invalid);
    EXPECT_EQ(kinetrel_stream_next(&other, &record_, 0), kinetrel_stream_invalid);
    EXPECT_EQ(kinetrel_stream_newest(&other, 0, &record_), kinetrel_stream_invalid);
    EXPECT_EQ(kinetrel_stream_state(&other, nullptr), kinetrel_state_lost);
  }
  const FreeSlot empty;
  EXPECT_EQ(kinetrel_stream_open(&other, empty.slot(), 30), kinetrel_stream_none);
}

TEST_F(Stream, TheNewestLinesOfTheLogAreKept) {
  for (int i = 1; i <= 70; ++i) {
    writer_->AddLogLine(i, -i, (std::to_string(i) + std::string(300, 'x')).c_str());
  }
  std::array<kinetrel_log_line, 100> lines;
  ASSERT_EQ(kinetrel_stream_log(&stream_, lines.data(), 100), kinetrel_stream_log_lines);
  EXPECT_EQ(lines[0].number, 7U);
  EXPECT_EQ(lines[63].code, -70);
  EXPECT_EQ(std::string(lines[63].text).size(), sizeof lines[0].text - 1);
  EXPECT_EQ(kinetrel_stream_log(&stream_, lines.data(), 1), 1);
  EXPECT_EQ(lines[0].utc_ns, 70'000'000'000);
}

TEST_F(Stream, NoRecordIsEverTorn) {
  constexpr std::uint64_t kRecords = 200'000;
  std::atomic<bool> done = false;
  std::thread publisher([&] {
    Publish(kRecords);
    done = true;
  });
  std::uint64_t taken = 0;
  kinetrel_record newest;
  while (!done || taken + kinetrel_stream_lost(&stream_) < kRecords) {
    if (kinetrel_stream_next(&stream_, &record_, 0) == kinetrel_stream_ok) {
      ++taken;
      ASSERT_TRUE(IsWhole(record_)) << record_.number;
    }
    const auto found = kinetrel_stream_newest(&stream_, 1, &newest);
    ASSERT_TRUE(found != kinetrel_stream_ok || IsWhole(newest)) << newest.number;
  }
  publisher.join();
  EXPECT_GT(taken, 0U);
}

// ---- Content that no writer has written --------------------------------------------------------

// Calls everything; each call must end and touch nothing outside the image.
void UseAll(const void* image, std::size_t size) {
  kinetrel_stream stream;
  const kinetrel_stream_result opened = kinetrel_stream_attach(&stream, image, size);
  if (opened != kinetrel_stream_ok) {
    ASSERT_TRUE(opened == kinetrel_stream_not_a_stream || opened == kinetrel_stream_newer_version);
    return;
  }
  kinetrel_record record;
  kinetrel_run run;
  std::array<kinetrel_log_line, 64> lines;
  char text[256];
  kinetrel_stream_rewind(&stream);
  for (int i = 0; i < 3; ++i) kinetrel_stream_next(&stream, &record, i);
  for (unsigned sensor = 0; sensor < 33; ++sensor) kinetrel_stream_newest(&stream, sensor, &record);
  kinetrel_stream_run(&stream, &run);
  kinetrel_stream_state(&stream, text);
  kinetrel_stream_log(&stream, lines.data(), 64);
  kinetrel_stream_close(&stream);
}

// A copy of a real stream on the heap, where the address sanitizer guards its ends.
std::vector<std::uint64_t> Image(const kinetrel_stream& stream) {
  std::vector<std::uint64_t> image(stream.head.total_size / 8);
  std::memcpy(image.data(), stream.memory, stream.head.total_size);
  return image;
}

TEST_F(Stream, NamesWhatIsNoStream) {
  Publish(10);
  const std::vector<std::uint64_t> image = Image(stream_);
  struct Case {
    const char* name;
    std::size_t offset;  // of a 32-bit word
    std::uint32_t value;
    kinetrel_stream_result result;
  };
  using Head = kinetrel_stream_head;
  const Case cases[] = {
      {"Whole", offsetof(Head, version), 1, kinetrel_stream_ok},
      {"OtherMagic", offsetof(Head, magic), 0x12345678, kinetrel_stream_not_a_stream},
      {"NoVersion", offsetof(Head, version), 0, kinetrel_stream_not_a_stream},
      {"LaterVersion", offsetof(Head, version), 2, kinetrel_stream_newer_version},
      {"SmallRecords", offsetof(Head, record_size), 96, kinetrel_stream_not_a_stream},
      {"OddRecords", offsetof(Head, record_size), 107, kinetrel_stream_not_a_stream},
      {"HugeRecords", offsetof(Head, record_size), 0xFFFFFFF8, kinetrel_stream_not_a_stream},
      {"NoRecords", offsetof(Head, ring_count), 0, kinetrel_stream_not_a_stream},
      {"TooManyRecords", offsetof(Head, ring_count), 8193, kinetrel_stream_not_a_stream},
      {"RingBeyond", offsetof(Head, ring_offset), 0xFFFFFF00, kinetrel_stream_not_a_stream},
      {"RunInTheHead", offsetof(Head, run_offset), 8, kinetrel_stream_not_a_stream},
      {"LogOffAWord", offsetof(Head, log_offset), 6001, kinetrel_stream_not_a_stream},
      {"Longer", offsetof(Head, total_size), 0x7FFFFFF8, kinetrel_stream_not_a_stream},
  };
  for (const Case& row : cases) {
    std::vector<std::uint64_t> changed = image;
    std::memcpy(reinterpret_cast<char*>(changed.data()) + row.offset, &row.value, 4);
    kinetrel_stream stream;
    EXPECT_EQ(kinetrel_stream_attach(&stream, changed.data(), changed.size() * 8), row.result)
        << row.name;
  }
  for (const std::size_t words : {0, 1, 13, 14, 500, 100'000}) {
    const std::vector<std::uint64_t> cut(image.begin(), image.begin() + static_cast<long>(words));
    kinetrel_stream stream;
    EXPECT_NE(kinetrel_stream_attach(&stream, cut.data(), words * 8), kinetrel_stream_ok) << words;
  }
}

TEST_F(Stream, SurvivesTenThousandRandomContents) {
  Publish(10'000);
  const std::vector<std::uint64_t> image = Image(stream_);
  std::vector<std::uint64_t> changed = image;
  std::mt19937_64 random(13);
  const std::size_t live = 128 / 8;
  for (int round = 0; round < 10'000; ++round) {
    // Where: the head, head and live words, or anything up to the ring's first entries.
    const std::size_t reach = std::array<std::size_t, 3>{14, live + 8, 3000}[random() % 3];
    const int changes = 1 + static_cast<int>(random() % 8);
    std::vector<std::size_t> touched;
    for (int i = 0; i < changes; ++i) {
      const std::size_t at = random() % reach;
      touched.push_back(at);
      switch (random() % 4) {
        case 0:
          changed[at] = random();
          break;
        case 1:
          changed[at] = 0;
          break;
        case 2:
          changed[at] = ~std::uint64_t{0} << (random() % 64);
          break;
        default:
          changed[at] ^= std::uint64_t{1} << (random() % 64);
      }
    }
    ASSERT_NO_FATAL_FAILURE(UseAll(changed.data(), changed.size() * 8)) << round;
    for (const std::size_t at : touched) changed[at] = image[at];
  }
}

}  // namespace
}  // namespace kinetrel::test
