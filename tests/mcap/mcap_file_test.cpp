// Files of the recorder's format: as another program writes them, cut, damaged and foreign.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mcap/mcap_reader.h"
#include "mcap/mcap_writer.h"
#include "mcap/pose_stamped.h"

namespace kinetrel::mcap {
namespace {

namespace fs = std::filesystem;

class McapFile : public testing::Test {
 protected:
  McapFile() { fs::create_directories(folder_); }
  ~McapFile() override { fs::remove_all(folder_); }

  std::string Content() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void Replace(const std::string& content) const {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << content;
  }

  // Chunks of a second: `perSecond` poses on one channel whose x is their number.
  void WriteSeconds(int seconds, int perSecond) const {
    McapWriter writer;
    ASSERT_TRUE(writer.Open(path_, "ros2").Ok());
    ASSERT_TRUE(writer.AddMetadata("kinetrel", {{"device", "a FASTRAK"}}).Ok());
    const std::uint16_t schema = writer.AddSchema(PoseStampedSchema());
    const std::uint16_t channel = writer.AddChannel(PoseStampedChannel(schema, "/kinetrel/1/pose"));
    std::vector<std::byte> bytes;
    for (int i = 0; i < seconds * perSecond; ++i) {
      PoseStamped pose{.utcNs = kStart + static_cast<std::uint64_t>(i) * 1'000'000'000 /
                                             static_cast<std::uint64_t>(perSecond),
                       .frame = "kinetrel",
                       .position = {1.0 * i, 2, 3}};
      EncodePoseStamped(pose, bytes);
      ASSERT_TRUE(writer.Write(channel, 0, pose.utcNs, pose.utcNs, bytes).Ok());
    }
    ASSERT_TRUE(writer.Close().Ok());
  }

  // The x of all poses; -1 first if the file cannot be opened.
  std::vector<int> Poses(std::uint64_t since = 0) const {
    McapReader reader;
    if (!reader.Open(path_).empty()) return {-1};
    reader.Seek(since);
    std::vector<int> poses;
    while (const auto message = reader.Next()) {
      const auto pose = DecodePoseStamped(message->data);
      poses.push_back(pose ? static_cast<int>(pose->position[0]) : -2);
    }
    return poses;
  }

  static constexpr std::uint64_t kStart = 1'700'000'000'000'000'000;
  const fs::path folder_ =
      fs::path(testing::TempDir()) / ("kinetrel-mcap-" + std::to_string(std::random_device{}()));
  const fs::path path_ = folder_ / "a.mcap";
};

// The bytes are those that the format's reference library writes of the same input.
TEST_F(McapFile, IsByteForByteThatOfTheReferenceWriter) {
  {
    McapWriter writer;
    ASSERT_TRUE(writer.Open(path_, "ros2").Ok());
    const std::uint16_t schema = writer.AddSchema(PoseStampedSchema());
    const std::uint16_t channel = writer.AddChannel(PoseStampedChannel(schema, "/kinetrel/1/pose"));
    std::vector<std::byte> bytes;
    for (const auto& [later, x] : {std::pair{0U, 1.0}, std::pair{4'166'667U, 1.5}}) {
      const PoseStamped pose{.utcNs = kStart + later, .frame = "kinetrel", .position = {x, 2, 3}};
      EncodePoseStamped(pose, bytes);
      ASSERT_TRUE(writer.Write(channel, x > 1 ? 1 : 0, pose.utcNs, pose.utcNs, bytes).Ok());
    }
    ASSERT_TRUE(writer.Close().Ok());
  }
  const std::string content = Content();
  EXPECT_EQ(content.size(), 2503U);
  EXPECT_EQ(Crc32(std::as_bytes(std::span(content))), 0xE2A18ED8U);

  for (std::size_t length = content.size(); length-- > 0;) {
    fs::resize_file(path_, length);
    const std::size_t expected = length >= 1235 ? 2 : length >= 1120 ? 1 : 0;
    const std::vector<int> poses = Poses();
    ASSERT_EQ(poses.size(), length < 8 ? 1U : expected) << length;
    ASSERT_EQ(poses == std::vector{-1}, length < 8) << length;
  }
}

TEST_F(McapFile, IsReadFromAnyTimeOn) {
  WriteSeconds(5, 10);
  McapReader reader;
  ASSERT_EQ(reader.Open(path_), "");
  EXPECT_TRUE(reader.whole());
  EXPECT_EQ(reader.Metadata("kinetrel"), (TextMap{{"device", "a FASTRAK"}}));
  EXPECT_EQ(reader.firstTime(), kStart);
  EXPECT_EQ(reader.lastTime(), kStart + 4'900'000'000);
  EXPECT_EQ(Poses().size(), 50U);
  const std::vector<int> late = Poses(kStart + 3'250'000'000);
  ASSERT_EQ(late.size(), 17U);
  EXPECT_EQ(late.front(), 33);
}

// As a killed program leaves it: no summary. Everything but the last, open chunk is there.
TEST_F(McapFile, IsReadableWhileItIsWritten) {
  McapWriter writer;
  ASSERT_TRUE(writer.Open(path_, "").Ok());
  const std::uint16_t channel = writer.AddChannel({0, "/a", "json", {}});
  const auto count = [this] {
    McapReader reader;
    EXPECT_EQ(reader.Open(path_), "");
    EXPECT_FALSE(reader.whole());
    int messages = 0;
    while (reader.Next()) ++messages;
    return messages;
  };
  for (std::uint64_t i = 0; i < 25; ++i) {
    ASSERT_TRUE(writer.Write(channel, 0, kStart + i * 100'000'000, kStart, {}).Ok());
  }
  EXPECT_EQ(count(), 20);
  ASSERT_TRUE(writer.Flush().Ok());
  EXPECT_EQ(count(), 25);
}

TEST_F(McapFile, DamageCostsOneChunk) {
  WriteSeconds(3, 10);
  const std::string content = Content();
  const std::size_t second = content.find("MSG: geometry_msgs/Pose\n", content.size() / 3);
  std::string damaged = content;
  damaged[second] = 'm';
  Replace(damaged);
  EXPECT_EQ(Poses().size(), 20U);
  McapReader reader;
  ASSERT_EQ(reader.Open(path_), "");
  while (reader.Next()) continue;
  EXPECT_EQ(reader.damaged(), 1U);

  damaged = content;
  damaged[content.size() - 100] ^= 1;  // in the summary: the file is walked instead
  Replace(damaged);
  EXPECT_EQ(Poses().size(), 30U);
}

TEST_F(McapFile, ThatCannotBeReadSaysWhy) {
  WriteSeconds(1, 2);
  std::string content = Content();
  McapReader missing, folder, foreign, compressed;
  EXPECT_EQ(missing.Open(folder_ / "b.mcap"), "it cannot be opened.");
  EXPECT_EQ(folder.Open(folder_), "it cannot be opened.");
  Replace("#!/bin/sh\n");
  EXPECT_EQ(foreign.Open(path_), "it is not an MCAP file.");
  // The length of the name of the compression and that of the records stand before the first
  // record.
  content[content.find("\x03\x46\x03") - 12] = 4;
  Replace(content.substr(0, content.size() - 8));
  EXPECT_EQ(compressed.Open(path_),
            "its chunks are compressed; convert it to a file without compression.");
}

TEST_F(McapFile, AFullDiskEndsItAfterTheLastWholeChunk) {
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "no device that is always full here";
  McapWriter writer;
  const Status opened = writer.Open("/dev/full", "");
  EXPECT_EQ(opened.error, Error::NoSpace);
  EXPECT_EQ(writer.Close().error, Error::NoSpace);
}

}  // namespace
}  // namespace kinetrel::mcap
