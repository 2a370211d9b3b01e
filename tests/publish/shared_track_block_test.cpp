#include "publish/shared_track_block.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

namespace kinetrel::test {
namespace {

TEST(SharedTrackNames, HoldDeviceAndBin) {
  EXPECT_EQ(BlockName(0, 0), "KinetrelShMem00");
  EXPECT_EQ(BlockName(10, 11), "KinetrelShMemAB");
  EXPECT_EQ(MutexName(10, 11), "KinetrelMutexAB");
  EXPECT_EQ(MutexName(15, 9), "KinetrelMutexF9");
  EXPECT_EQ(EventName(10, 11), "OrvixDataPublishedEvent-Dev10-Bin11Event");
  EXPECT_EQ(EventName(0, 12), "OrvixDataPublishedEvent-Dev0-Bin12Event");
}

// The block as a client in any language has it: 1464 bytes.
class RawBlock : public testing::Test {
 protected:
  template <typename T>
  void Put(std::size_t offset, T value) {
    std::memcpy(bytes_ + offset, &value, sizeof value);
  }
  const SharedTrackBlock& Block() {
    std::memcpy(&block_, bytes_, sizeof block_);
    return block_;
  }

 private:
  unsigned char bytes_[1464] = {};
  SharedTrackBlock block_;
};

TEST_F(RawBlock, HasEveryFieldInItsPlace) {
  Put<std::uint32_t>(4, 0x1371);  // buttons, metres, all three components, sensor 0
  Put<std::uint32_t>(8, 0x80000001);
  for (std::size_t part = 0; part < 6; ++part) {
    Put(12 + 24 * 31 + 4 * part, static_cast<float>(part + 1));
  }
  for (std::size_t part = 0; part < 4; ++part) {
    Put(780 + 16 * 31 + 4 * part, static_cast<float>(part + 10));
  }
  Put(1296, 1.5);
  Put(1304, 2.5);
  Put<std::int32_t>(1312, 77);
  Put<std::uint8_t>(1316, 1);
  Put(1317, 'N');
  Put(1448, 240.0);
  Put<std::uint32_t>(1456, 0x80000000);

  const SharedTrackBlock& block = Block();
  EXPECT_TRUE(ButtonsValid(block));
  EXPECT_EQ(block.buttons, 0x80000001);
  EXPECT_EQ(ComponentMaskOf(block), 7U);
  EXPECT_EQ(UnitsOf(block), 3);
  EXPECT_EQ(SensorMaskOf(block), 0x80000001);
  EXPECT_EQ(SensorCountOf(block), 2);
  EXPECT_EQ(block.sampleTime, 1.5);
  EXPECT_EQ(block.publishTime, 2.5);
  EXPECT_EQ(block.frameCount, 77);
  EXPECT_EQ(block.writerPresent, 1);
  EXPECT_EQ(DeviceNameOf(block), "N");
  EXPECT_EQ(block.frameRate, 240.0);

  float pose[6];
  ASSERT_TRUE(PoseOf(block, 31, pose));
  for (int part = 0; part < 6; ++part) EXPECT_EQ(pose[part], static_cast<float>(part + 1));
  float quaternion[4];
  ASSERT_TRUE(QuaternionOf(block, 31, quaternion));
  for (int part = 0; part < 4; ++part) EXPECT_EQ(quaternion[part], static_cast<float>(part + 10));
}

TEST_F(RawBlock, GivesOnlyWhatIsPublished) {
  for (std::size_t i = 0; i < 32 * 10; ++i) Put(12 + 4 * i, 5.0F);
  struct Row {
    std::uint32_t flags;
    int slot;
    bool position, euler, quaternion;
  };
  for (const Row& row : {Row{0x00, 0, false, false, false}, Row{0x10, 0, true, false, false},
                         Row{0x20, 31, false, true, false}, Row{0x40, 31, false, false, true},
                         Row{0x80, 0, false, false, false}, Row{0x70, 32, false, false, false},
                         Row{0x70, -1, false, false, false}, Row{0x70, 1, true, true, true}}) {
    Put(4, row.flags);
    const SharedTrackBlock& block = Block();
    float xyz[3];
    float angles[3];
    float pose[6];
    float wxyz[4];
    EXPECT_EQ(PositionOf(block, row.slot, xyz), row.position) << row.flags;
    EXPECT_EQ(EulerOf(block, row.slot, angles), row.euler) << row.flags;
    EXPECT_EQ(PoseOf(block, row.slot, pose), row.position && row.euler) << row.flags;
    EXPECT_EQ(QuaternionOf(block, row.slot, wxyz), row.quaternion) << row.flags;
    EXPECT_EQ(xyz[2], row.position ? 5.0F : 0.0F);
    EXPECT_EQ(angles[0], row.euler ? 5.0F : 0.0F);
    EXPECT_EQ(pose[0], row.position ? 5.0F : 0.0F);
    EXPECT_EQ(pose[5], row.euler ? 5.0F : 0.0F);
    EXPECT_EQ(wxyz[0], row.quaternion ? 5.0F : 1.0F);
    EXPECT_EQ(wxyz[3], row.quaternion ? 5.0F : 0.0F);
  }
}

TEST_F(RawBlock, OfAHostileWriterIsReadWithinItsBounds) {
  for (std::size_t i = 0; i < 1464; ++i) Put<std::uint8_t>(i, 0xFF);
  const SharedTrackBlock& block = Block();
  EXPECT_EQ(DeviceNameOf(block).size(), 128U);
  EXPECT_EQ(SensorCountOf(block), 32);
  EXPECT_EQ(UnitsOf(block), 15);
  float pose[6];
  EXPECT_TRUE(PoseOf(block, 0, pose));
  EXPECT_TRUE(std::isnan(pose[0]));
}

TEST(SharedTrackBlock, IsInitialisedWhateverItHeld) {
  SharedTrackBlock block;
  std::memset(&block, 0xAA, sizeof block);
  EXPECT_FALSE(IsInitialized(block));
  InitializeBlock(block, true);
  EXPECT_TRUE(IsInitialized(block));
  EXPECT_EQ(block.writerPresent, 1);

  // All that is not zero: the mark and the identity quaternions.
  block.writerPresent = 0;
  unsigned char expected[1464] = {0xFF, 0xFF, 0xFF, 0xFF};
  const float one = 1.0F;
  for (std::size_t slot = 0; slot < 32; ++slot) std::memcpy(expected + 780 + 16 * slot, &one, 4);
  EXPECT_EQ(std::memcmp(&block, expected, sizeof block), 0);
}

TEST(SharedTrackBlock, HoldsNamesUpTo128Characters) {
  for (const std::size_t length : {0, 5, 127, 128, 129, 500}) {
    SharedTrackBlock block;
    std::memset(&block, 'z', sizeof block);
    const std::string name(length, 'n');
    SetDeviceName(block, name.c_str());
    EXPECT_EQ(DeviceNameOf(block), name.substr(0, 128));
    EXPECT_EQ(block.padding1[0], '\0') << "ends there for a client that reads a C text";
    EXPECT_EQ(block.padding1[1], 'z');
  }
}

}  // namespace
}  // namespace kinetrel::test
