// What a device hears of the questions for slower devices, and what it makes of those for others.
#include "probe/questions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "drivers/driver_table.h"
#include "emulate/device_table.h"
#include "emulate/emulator.h"
#include "platform/console.h"
#include "platform/serial_line.h"
#include "probe/line_probe.h"
#include "tests/support/child_process.h"

namespace kinetrel::test {
namespace {

using emulate::EmulatorThread;

// ---- Noise
// ---------------------------------------------------------------------------------------

std::string BytesOf(const Question& question) {
  std::string bytes;
  question.ask(
      [&](std::string_view text, Milliseconds, const std::function<bool(std::string_view)>&) {
        bytes += text;
        return std::string();  // silence
      });
  return bytes;
}

// The level of a line on which `bytes` are sent without a pause, at `time` in bits of the sender.
bool LevelAt(const std::string& bytes, double time) {
  if (time < 0) return true;
  const auto bit = static_cast<std::size_t>(time);
  if (bit / 10 >= bytes.size() || bit % 10 == 9) return true;
  return bit % 10 != 0 && (static_cast<unsigned char>(bytes[bit / 10]) >> (bit % 10 - 1) & 1) != 0;
}

// What a receiver takes out of it whose bits are `ratio` of the sender's.
std::string HeardBy(const std::string& bytes, double ratio) {
  std::string heard;
  const double end = static_cast<double>(bytes.size()) * 10;
  for (double at = -1; at < end; at += ratio / 16) {
    if (!LevelAt(bytes, at) || LevelAt(bytes, at + ratio / 16)) continue;
    unsigned value = 0;
    for (int i = 0; i < 8; ++i) value |= LevelAt(bytes, at + ratio * (1.5 + i)) ? 1U << i : 0;
    heard += static_cast<char>(value);
    at += ratio * 9.5;
  }
  return heard;
}

TEST(Questions, ForSlowerDevicesAreHarmlessNoise) {
  // Save, restart, choose the start-up state, factory settings, save of the IsoTRAK, stop the flow.
  constexpr std::string_view kHarmful = "\x0B\x19\x17WK\x13";
  EXPECT_EQ(HeardBy("\x19S", 1.0), "\x19S");
  EXPECT_NE(HeardBy("\x19S", 2.0), "\x19S");
  int heardBytes = 0;
  for (const auto& [question, baud] : QuestionsInOrder()) {
    for (const unsigned device : {9600U, 19200U, 38400U, 57600U, 115200U}) {
      if (device <= baud) continue;
      for (const double drift : {0.97, 1.0, 1.03}) {
        const std::string heard = HeardBy(BytesOf(*question), baud * drift / device);
        heardBytes += static_cast<int>(heard.size());
        EXPECT_EQ(heard.find_first_of(kHarmful), std::string::npos)
            << RowOf(question->family).name << " asked at " << baud << ", heard at " << device;
      }
    }
  }
  EXPECT_GT(heardBytes, 100);
}

TEST(Questions, AreAskedFromTheSlowestRateToTheFastest) {
  unsigned last = 0;
  for (const auto& step : QuestionsInOrder()) {
    EXPECT_GE(step.baud, last);
    last = step.baud;
  }
}

// ---- Every question to every device
// --------------------------------------------------------------

struct EmulatedLine {
  EmulatedLine(const std::string& name, std::vector<const char*> arguments, int number)
      : device(*emulate::FindDevice(name)),
        link(std::filesystem::temp_directory_path() /
             ("kinetrel-ask-" + std::to_string(::getpid()) + "-" + std::to_string(number))) {
    auto values = emulate::OptionValues::Parse(arguments, device.options());
    emulate::EmulatorOptions options;
    options.line.baud = device.baud;
    options.link = link;
    options.line.show = [this](emulate::Moment, const std::string& text) {
      const std::lock_guard lock(mutex);
      // What is said of the port is not about a question.
      if (!text.starts_with("the ")) said.push_back(text);
    };
    auto started =
        EmulatorThread::Start(device.make(values, emulate::ParseMotion("circle").motion), options);
    EXPECT_TRUE(started.Ok() && values.complaint().empty()) << values.complaint();
    thread.emplace(std::move(*started));
  }
  ~EmulatedLine() {
    thread.reset();  // before what it shows its lines to
    std::filesystem::remove(link);
  }
  EmulatedLine(const EmulatedLine&) = delete;
  EmulatedLine& operator=(const EmulatedLine&) = delete;

  std::optional<Finding> Probe(std::optional<Family> only, bool listen) {
    auto line = SerialLine::Open(link);
    if (!line.Ok()) return std::nullopt;
    LineProbe probe(*line, false);
    const auto heard = listen ? probe.Listen() : std::nullopt;
    return probe.Ask(heard, only);
  }

  // The last one of all, so that a damaged state shows.
  int BootOwnDriver(int com) {
    auto driver = MakeDevice(device.kinetrelType);
    if (driver->OpenPortNumber(com, 115200) < 1) return -100;
    const int result = driver->Boot(0);
    driver->ClosePort();
    return result;
  }

  const emulate::DeviceRow& device;
  const std::string link;
  std::mutex mutex;
  std::vector<std::string> said;
  std::optional<EmulatorThread> thread;
};

// One COM number for each device that is open at a time.
class AllDevices : public testing::Test {
 protected:
  void SetUp() override {
    SetVariable("KINETREL_PDI", KINETREL_PDI_SUBSTITUTE);
    SwitchPrinting(false);
  }
  void TearDown() override { SwitchPrinting(true); }
};

std::string LinkOf(int number) {
  return std::filesystem::temp_directory_path() /
         ("kinetrel-ask-" + std::to_string(::getpid()) + "-" + std::to_string(number));
}

TEST_F(AllDevices, AnswerTheirOwnQuestionOnlyAndTheirDriverOpensThemAfterwards) {
  const auto devices = emulate::Devices();
  const auto steps = QuestionsAt(115200);
  for (std::size_t i = 0; i < devices.size(); ++i) {
    SetVariable("KINETREL_COM" + std::to_string(i + 1), LinkOf(static_cast<int>(i)));
  }
  std::vector<std::string> rows(devices.size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    threads.emplace_back([&, i] {
      rows[i] = "| " + std::string(devices[i].name) + " |";
      for (const auto& step : steps) {
        const FamilyRow& asked = RowOf(step.question->family);
        EmulatedLine line(std::string(devices[i].name), {}, static_cast<int>(i));
        const auto found = line.Probe(asked.family, false);
        const bool own = asked.deviceType == devices[i].kinetrelType;
        EXPECT_EQ(found.has_value(), own) << devices[i].name << " asked for " << asked.name;
        std::string said;
        {
          const std::lock_guard lock(line.mutex);
          for (const std::string& text : line.said) {
            const std::size_t words = text.rfind("  ");
            const std::string what = words == text.npos ? text : text.substr(words + 2);
            if (said.find(what) == said.npos) said += (said.empty() ? "" : "; ") + what;
          }
        }
        EXPECT_GE(line.BootOwnDriver(static_cast<int>(i) + 1), 1)
            << devices[i].name << " after the question for " << asked.name;
        rows[i] += " " +
                   (own            ? "**answers**"
                    : said.empty() ? std::string("nothing")
                                   : said) +
                   " |";
      }
      rows[i] += "\n";
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::string table = "| device \\ question |";
  std::string rule = "|---|";
  for (const auto& step : steps) {
    table += " " + std::string(RowOf(step.question->family).name) + " |";
    rule += "---|";
  }
  table += "\n" + rule + "\n";
  for (const std::string& row : rows) table += row;
  std::ifstream page(KINETREL_SOURCE_DIR "/docs/scan.md");
  const std::string text{std::istreambuf_iterator<char>(page), {}};
  EXPECT_NE(text.find(table), std::string::npos) << "docs/scan.md lacks this table:\n" << table;
}

struct StateRow {
  const char* device;
  std::vector<const char*> options;
};

// Also as another program left it. The stream of the InterTrax has no marks, so only asking finds
// it.
TEST_F(AllDevices, AreFoundInEveryStateAndTheirDriverOpensThemAfterwards) {
  const std::vector<StateRow> rows = {
      {"fastrak", {"--start", "binary"}},
      {"fastrak", {"--start", "streaming"}},
      {"fastrak", {"--start", "half-record"}},
      {"fastrak", {"--start", "half-command"}},
      {"fastrak", {"--error", "A"}},
      {"fastrak", {"--model", "isotrak"}},
      {"fastrak", {"--model", "isotrak2"}},
      {"fastrak", {"--model", "insidetrak"}},
      {"fastrak", {"--model", "is600"}},
      {"flock", {"--start", "streaming"}},
      {"flock", {"--start", "half-command"}},
      {"liberty", {"--start", "streaming"}},
      {"liberty", {"--start", "half-command"}},
      {"logitech", {"--start", "streaming"}},
      {"intertrax", {"--start", "streaming"}},
      {"pan-tilt", {"--start", "half-answer"}},
  };
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SetVariable("KINETREL_COM" + std::to_string(i + 1), LinkOf(static_cast<int>(i)));
  }
  std::vector<std::thread> threads;
  std::mutex booting;  // one boot of the FASTRAK family at a time in a process
  for (std::size_t i = 0; i < rows.size(); ++i) {
    threads.emplace_back([&, i] {
      const std::string what = std::string(rows[i].device) + " " + rows[i].options.back();
      EmulatedLine line(rows[i].device, rows[i].options, static_cast<int>(i));
      const auto found = line.Probe(std::nullopt, true);
      const int type = found ? RowOf(found->family).deviceType : 0;
      EXPECT_EQ(type, line.device.kinetrelType) << what;
      const std::lock_guard lock(booting);
      EXPECT_GE(line.BootOwnDriver(static_cast<int>(i) + 1), 1) << what;
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace kinetrel::test
