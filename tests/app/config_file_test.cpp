#include "app/config_file.h"

#include <gtest/gtest.h>
#include <kinetrel/stream.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

// What the file's complaints are; empty: it is correct.
std::string Read(Settings& settings, std::string_view text, Audience audience = Audience::Console) {
  testing::internal::CaptureStderr();
  std::string complaints;
  const bool correct = ReadConfigText(settings, audience, text, "lab.toml", complaints);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(correct, complaints.empty());
  return complaints;
}

constexpr const char* kWhole = R"(# a laboratory
device = "fastrak"
port = "/dev/serial/by-id/usb-left"
sensors = [1, 2, 3, 4]
units = "inch"
components = ["position", "quaternion"]
slot = 3
streaming = false
hemisphere = [0, 0, -1]
align = [[1, 0, 0], [0, 1, 0.1]]
offset = [[-1.1, 2, 3], [33.3, -0.7, 180]]
roll = true
sync = "crt"
query = true
joystick = 1
filter = ["rigid:tip-m=0.1/0/0,sensors=1+3-4", "gate"]

[[sensor]]
number = 2
name = "left \"hand\""
hemisphere = [0, 1, 0]
align = [[0, 1, 0], [1, 0, 0]]

[[mapping]]
sensor = 1
bin = 2
pose-slot = 5
)";

TEST(ConfigFile, SetsWhatLettersSetAndWhatAHostSets) {
  Settings settings;
  ASSERT_EQ(Read(settings, kWhole), "");
  const StartConfig& config = settings.start;
  EXPECT_EQ(config.deviceType, 2);
  EXPECT_EQ(config.PortName(), "/dev/serial/by-id/usb-left");
  EXPECT_EQ(config.sensorMask, 15U);
  EXPECT_EQ(config.units, 0);
  EXPECT_EQ(config.componentMask, 5U);
  EXPECT_EQ(config.shmDevice, 2);
  EXPECT_EQ(config.streaming, 0);
  EXPECT_EQ(config.alignY[2], 0.1F);
  EXPECT_NEAR(config.transmitterOffset[5], 3.14159265, 1e-6);
  ASSERT_EQ(config.filters.size(), 2U);
  EXPECT_EQ(config.filters[0].sensors, 13U);
  ASSERT_EQ(config.sensors.size(), 1U);
  EXPECT_EQ(config.sensors[0].name, "left \"hand\"");
  EXPECT_EQ(config.sensors[0].sensor, 1);
  ASSERT_EQ(config.mappings.size(), 1U);
  EXPECT_EQ(config.mappings[0].poseSlot, 5);
}

TEST(ConfigFile, WhatIsPrintedReadsBackToTheSame) {
  for (const char* const text :
       {kWhole, "", "device = 12\nport = 5001\nsensors = \"0x0\"",
        "port = \"usb:1-2.3\"\noffset = [0.1, 1e-7, 1e7, 1, 2, 3]\nfilter = \"gate\""}) {
    Settings settings, again;
    ASSERT_EQ(Read(settings, text), "");
    const std::string printed = ConfigText(settings, Audience::Console);
    ASSERT_EQ(Read(again, printed), "") << printed;
    EXPECT_EQ(ConfigText(again, Audience::Console), printed);
    EXPECT_EQ(again.start.transmitterOffset, settings.start.transmitterOffset);
    EXPECT_EQ(again.start.port, settings.start.port);
    EXPECT_EQ(again.start.sensorMask, settings.start.sensorMask);
  }
}

TEST(ConfigFile, AMistakeIsNamedWithItsLine) {
  struct Row {
    const char* text;
    const char* complaints;
  };
  const Row rows[] = {
      {"\ndevise = 2", "lab.toml:2: unknown key \"devise\"; the nearest one is \"device\"."},
      {"help = true", "lab.toml:1: unknown key \"help\"."},
      {"config = \"x\"", "lab.toml:1: unknown key \"config\"."},
      {"units = \"feet\"", "lab.toml:1: units wants inch, cm or m, not \"feet\"."},
      {"device = true",
       "lab.toml:1: device wants a device name such as fastrak, or its number, not \"true\"."},
      {"query = \"yes\"", "lab.toml:1: query wants true or false, not \"yes\"."},
      {"slot = [[[1]]]", "lab.toml:1: slot wants a number from 1 to 16."},
      {"hemisphere = [0, nan, 0]",
       "lab.toml:1: hemisphere wants three numbers such as 0,0,1, not \"0,nan,0\"."},
      {"listen = \":99\"", "lab.toml:1: listen is an option of kinetrel-service only."},
      {"[sensor]\nnumber = 1", "lab.toml:1: write sensor as [[sensor]]."},
      {"[[sensor]]\nname = \"x\"", "lab.toml:1: [[sensor]] needs number."},
      {"[[sensor]]\nnumber = 1\nnmae = \"x\"",
       "lab.toml:3: unknown key \"nmae\"; the nearest one is \"name\"."},
      {"[[sensor]]\nnumber = 1\n[[sensor]]\nnumber = 1", "lab.toml:3: sensor 1 has two tables."},
      {"[[mapping]]\nsensor = 33", "lab.toml:2: sensor wants a number from 1 to 32, not \"33\"."},
      {"[[mapping]]\nsensor = 1\n[[mapping]]\nsensor = 2",
       "lab.toml:3: bin 0, pose slot 0 has two mappings."},
      {"slot = 99\nunits = 7",
       "lab.toml:1: slot wants a number from 1 to 16, not \"99\".\n\t"
       "lab.toml:2: units wants inch, cm or m, not \"7\"."},
  };
  for (const Row& row : rows) {
    Settings settings;
    EXPECT_EQ(Read(settings, row.text), row.complaints) << row.text;
  }
  Settings settings;
  for (const char* const text : {"a =", "a = 1\na = 2", "\"", "[", "a = \"\xFF\""}) {
    const std::string complaints = Read(settings, text);
    EXPECT_EQ(complaints.find("this is not TOML: "), std::string_view("lab.toml:1: ").size());
    EXPECT_EQ(complaints.find('\n'), std::string::npos) << complaints;
  }
}

// ---- With the command line ----------------------------------------------------------------------

class ConfigOfARun : public testing::Test {
 protected:
  ~ConfigOfARun() override { std::remove(path_.c_str()); }

  void Write(const std::string& text) { std::ofstream(path_) << text; }

  std::string path_ = testing::TempDir() + "kinetrel-" + std::to_string(::getpid()) + ".toml";
};

TEST_F(ConfigOfARun, TheCommandLineBeatsTheFile) {
  Write(kWhole);
  ChildProcess printed("kinetrel", {"-u2", "--config", path_, "--hemisphere", "1,0,0", "--filter",
                                    "dropout", "--slot=9", "--print-config"});
  EXPECT_EQ(printed.Wait(), 0) << printed.error();
  Settings settings;
  ASSERT_EQ(Read(settings, printed.output()), "");
  EXPECT_EQ(settings.start.units, 3);
  EXPECT_EQ(settings.start.shmDevice, 8);
  EXPECT_EQ(settings.start.joystickPort, 1);
  ASSERT_EQ(settings.start.filters.size(), 1U);
  EXPECT_EQ(settings.start.filters[0].text, "dropout");
  ASSERT_EQ(settings.start.sensors.size(), 1U);
  EXPECT_FALSE(settings.start.sensors[0].hemisphere.has_value());
  EXPECT_TRUE(settings.start.sensors[0].alignment.has_value());
}

TEST_F(ConfigOfARun, ChecksEndWithAClearLine) {
  struct Row {
    const char* file;
    std::vector<std::string> more;
    const char* says;  // on standard error; empty: correct
  };
  const Row rows[] = {
      {"device = \"simulated\"", {}, ""},
      {"slot = 17", {}, ":1: slot wants"},
      {"", {"--slot=17"}, "--slot wants"},
      {"device = \"flock\"", {"--port=usb"}, "--device flock is not on USB"},
      {"device = \"isense\"", {"--port=/dev/ttyUSB0"}, "wants a COM number, not a path"},
      {"", {"--config=/dev/zero"}, "--config may be given once."},
  };
  for (const Row& row : rows) {
    Write(row.file);
    std::vector<std::string> arguments = {"--config", path_, "--check-config"};
    arguments.insert(arguments.end(), row.more.begin(), row.more.end());
    ChildProcess check("kinetrel-service", arguments);
    EXPECT_EQ(check.Wait(), *row.says == '\0' ? 0 : 255) << row.file;
    EXPECT_NE(check.error().find(row.says), std::string::npos) << check.error();
  }
  for (const char* const file : {"/nowhere.toml", "/dev/zero", "/"}) {
    ChildProcess check("kinetrel", {"--config", file, "--check-config"});
    EXPECT_EQ(check.Wait(), 255) << file;
    EXPECT_NE(check.error().find(std::string(file) + ": it "), std::string::npos) << check.error();
  }
}

// The sensor's name reaches the stream, and its pose the bin of its mapping.
TEST_F(ConfigOfARun, NamesAndMappingsReachTheClients) {
  FreeSlot slot;
  Write("device = \"simulated\"\nsensors = \"1-2\"\nstreaming = false\nslot = " +
        std::to_string(slot.device() + 1) +
        "\n[[sensor]]\nnumber = 2\nname = \"left hand\"\n"
        "[[mapping]]\nsensor = 2\nbin = 3\npose-slot = 7\n");
  ChildProcess program("kinetrel", {"--config", path_});
  SharedTrackReader reader(slot.device());
  SharedTrackBlock block{};
  EXPECT_TRUE(WaitUntil([&] {
    return reader.OpenOnly(3) && reader.Copy(block, Milliseconds(1000)) && block.frameCount > 2 &&
           block.poses[7][0] != 0.0F;
  })) << program.error();
  kinetrel_stream stream;
  kinetrel_run run{};
  ASSERT_EQ(kinetrel_stream_open(&stream, slot.device() + 1, 5000), kinetrel_stream_ok);
  EXPECT_EQ(kinetrel_stream_run(&stream, &run), kinetrel_stream_ok);
  EXPECT_STREQ(run.sensor_names[0], "Sensor 1");
  EXPECT_STREQ(run.sensor_names[1], "left hand");
  kinetrel_stream_close(&stream);
  program.Send("\x1b");
  EXPECT_EQ(program.Wait(), 0);
}

TEST_F(ConfigOfARun, HelpAndVersionAnswerOnStandardOutput) {
  for (const char* const program : {"kinetrel", "kinetrel-service"}) {
    ChildProcess help(program, {"--help"});
    EXPECT_EQ(help.Wait(), 0);
    EXPECT_TRUE(help.output().starts_with("usage: " + std::string(program)));
    EXPECT_EQ(help.error(), "");
    ChildProcess version(program, {"-d8", "--version"});
    EXPECT_EQ(version.Wait(), 0);
    EXPECT_NE(version.output().find("\nlayouts: block 1.42, stream "), std::string::npos);
  }
}

}  // namespace
}  // namespace kinetrel::test
