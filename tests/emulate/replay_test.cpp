// The device of a capture, as its users meet it: what it plays again, and what it says.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "emulate/replay_device.h"
#include "emulate/stepped_device.h"
#include "mcap/recording_writer.h"
#include "tests/support/child_process.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

namespace fs = std::filesystem;
using mcap::TopicKind;
using std::chrono::milliseconds;

constexpr std::uint64_t kBegin = 1'700'000'000'000'000'000;  // ns since 1970

// One step of a captured line. The text is bytes, or what stands in the message.
struct Step {
  int ms;
  TopicKind kind;
  std::string text;
};

const std::vector<Step> kTwoQuestions = {
    {0, TopicKind::LineOpened, "COM1"}, {0, TopicKind::LineSettings, "9600 8N1 RTS 1 DTR 0"},
    {40, TopicKind::LineSent, "P"},     {80, TopicKind::LineReceived, "first;"},
    {120, TopicKind::LineSent, "Q"},    {160, TopicKind::LineReceived, "second;"},
};

std::span<const std::byte> BytesOf(const std::string& text) {
  return std::as_bytes(std::span(text));
}

void WriteCapture(const std::string& path, const std::vector<Step>& steps) {
  mcap::RecordingWriter writer;
  ASSERT_TRUE(writer.Open(path, "1").Ok());
  writer.SetText("options", "device = \"fastrak\"\nport = 1\n");
  ASSERT_TRUE(writer.WriteTexts().Ok());
  for (const Step& step : steps) {
    const std::uint64_t at = kBegin + static_cast<std::uint64_t>(step.ms) * 1'000'000;
    const bool bytes = step.kind == TopicKind::LineReceived || step.kind == TopicKind::LineSent;
    const Status written = bytes
                               ? writer.WriteBytes({.kind = step.kind}, at, at, BytesOf(step.text))
                               : writer.WriteJson({.kind = step.kind}, at,
                                                  "{\"text\":" + mcap::JsonText(step.text) + "}");
    ASSERT_TRUE(written.Ok());
  }
  ASSERT_TRUE(writer.Close().Ok());
}

// A program that uses the replayed port.
class Host {
 public:
  ~Host() { Close(); }

  bool Open(const std::string& port) {
    Close();
    return WaitUntil([&] {
      file_ = ::open(port.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
      if (file_ < 0) return false;
      termios raw{};
      ::tcgetattr(file_, &raw);
      ::cfmakeraw(&raw);
      ::cfsetspeed(&raw, B9600);
      ::tcsetattr(file_, TCSANOW, &raw);
      return true;
    });
  }
  void Close() {
    if (file_ >= 0) ::close(file_);
    file_ = -1;
    heard_.clear();
  }
  void Send(const std::string& text) const {
    ASSERT_EQ(::write(file_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // All that came since the port was opened is `text`.
  bool Hears(const std::string& text) {
    return WaitUntil([&] { return Read(), heard_.size() >= text.size(); }) && heard_ == text;
  }
  bool LosesThePort() {
    return WaitUntil([&] { return !Read(); });
  }
  const std::string& heard() const { return heard_; }

 private:
  bool Read() {
    char bytes[256];
    const ssize_t count = ::read(file_, bytes, sizeof bytes);
    if (count > 0) heard_.append(bytes, static_cast<std::size_t>(count));
    return count > 0 || (count < 0 && errno == EAGAIN);
  }

  int file_ = -1;
  std::string heard_;
};

class Replay : public testing::Test {
 protected:
  Replay() { fs::create_directories(folder_); }
  ~Replay() override { fs::remove_all(folder_); }

  std::string Path(const std::string& name) const { return (folder_ / name).string(); }

  // Starts the program on a capture of these steps.
  void Start(const std::vector<Step>& steps, std::vector<std::string> options = {}) {
    WriteCapture(Path("a.mcap"), steps);
    options.insert(options.begin(), {"replay", Path("a.mcap"), "--link", port_});
    program_ = std::make_unique<ChildProcess>("kinetrel-emulate", options);
    ASSERT_TRUE(WaitUntil([&] { return fs::is_symlink(port_); })) << program_->error();
  }

  const fs::path folder_ =
      fs::temp_directory_path() / ("kinetrel-replay-" + std::to_string(getpid()));
  const std::string port_ = Path("port");
  std::unique_ptr<ChildProcess> program_;
  Host host_;
};

TEST_F(Replay, PlaysTheSameAgainInALoop) {
  Start(kTwoQuestions, {"--loop"});
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(host_.Open(port_));
    host_.Send("P");
    ASSERT_TRUE(host_.Hears("first;")) << round << host_.heard() << program_->output();
    host_.Send("Q");
    ASSERT_TRUE(host_.Hears("first;second;")) << round << host_.heard() << program_->output();
    ASSERT_TRUE(host_.LosesThePort()) << round;
  }
  EXPECT_TRUE(program_->ExpectOutput("the capture has ended and begins anew"));
}

// Hosts that do otherwise than the captured one: what each is told, and what it hears.
TEST_F(Replay, TellsAHostWhatItDoesOtherwise) {
  struct Row {
    std::vector<std::string> sent;  // in turn, each after the answer to the one before
    std::vector<std::string> heard;
    std::vector<std::string> told;
  };
  for (const Row& row : {
           Row{{"Q"},
               {"second;"},
               {"at 0.040 s of the capture: the host sends \"Q\", not \"P\"; the replay goes on at "
                "0.120 s"}},
           Row{{"P", "P"},
               {"first;", "first;first;"},
               {"at 0.120 s of the capture: the host sends \"P\", not \"Q\"; the replay goes on at "
                "0.040 s"}},
           Row{{std::string("\x01") + "c\"", "P"},
               {"", "first;"},
               {"the host sends 01 \"c\" 22, not \"P\"; it stays without an answer"}},
           Row{{""},
               {"first;second;"},
               {"the host does not send \"P\"; the replay goes on without it",
                "the host does not send \"Q\"; the replay goes on without it",
                "the capture has ended; the device is silent"}},
       }) {
    Start(kTwoQuestions);
    ASSERT_TRUE(host_.Open(port_));
    for (std::size_t i = 0; i < row.sent.size(); ++i) {
      host_.Send(row.sent[i]);
      EXPECT_TRUE(host_.Hears(row.heard[i])) << host_.heard() << program_->output();
      if (row.heard[i].empty()) {
        EXPECT_TRUE(program_->ExpectOutput(row.told[0]));
      }
    }
    for (const std::string& text : row.told) {
      EXPECT_TRUE(program_->ExpectOutput(text)) << text << "\n" << program_->output();
    }
    program_->Signal(SIGINT);
    EXPECT_EQ(program_->Wait(), 0);
    host_.Close();
  }
}

TEST_F(Replay, BeginsAnewForAHostThatOpensThePortAnew) {
  Start(kTwoQuestions);
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(host_.Open(port_));
    host_.Send("P");
    ASSERT_TRUE(host_.Hears("first;")) << round << program_->output();
    host_.Close();
  }
}

// The first parts of a capture did not fit, so the opening of the port is missing.
TEST_F(Replay, PlaysACaptureThatLacksTheOpening) {
  Start({kTwoQuestions.begin() + 2, kTwoQuestions.end()});
  ASSERT_TRUE(host_.Open(port_));
  host_.Send("P");
  EXPECT_TRUE(host_.Hears("first;")) << program_->output();
  host_.Send("Q");
  EXPECT_TRUE(host_.Hears("first;second;")) << program_->output();
  EXPECT_TRUE(program_->ExpectOutput("the capture has ended"));
  EXPECT_EQ(program_->output().find("opened the port anew"), std::string::npos);
}

TEST_F(Replay, PullsThePlugWhereTheLineWasLost) {
  std::vector<Step> steps = kTwoQuestions;
  steps.push_back({200, TopicKind::LineLost, ""});
  for (Step step : kTwoQuestions) {
    step.ms += 600;
    if (step.text == "first;") step.text = "third;";
    steps.push_back(step);
  }
  Start(steps);
  ASSERT_TRUE(host_.Open(port_));
  host_.Send("P");
  ASSERT_TRUE(host_.Hears("first;"));
  host_.Send("Q");
  ASSERT_TRUE(host_.Hears("first;second;"));
  ASSERT_TRUE(host_.LosesThePort());
  ASSERT_TRUE(host_.Open(port_));
  host_.Send("P");
  EXPECT_TRUE(host_.Hears("third;")) << host_.heard() << program_->output();
}

TEST_F(Replay, RefusesFilesWithoutALineInOneSentence) {
  std::ofstream(Path("text")) << "pose\n";
  WriteCapture(Path("poses"), {{0, TopicKind::CaptureLog, "no line"}});
  WriteCapture(Path("cut"), kTwoQuestions);
  fs::resize_file(Path("cut"), 30);
  WriteCapture(Path("huge"), {});
  fs::resize_file(Path("huge"), std::uintmax_t{1} << 40);  // with a hole
  struct Row {
    const char* name;
    const char* text;
  };
  for (const Row& row : {Row{"none", "it cannot be opened"}, Row{"text", "not an MCAP file"},
                         Row{"poses", "it holds nothing of a tracker's line"}, Row{"cut", ""},
                         Row{"huge", ""}, Row{".", ""}}) {
    ChildProcess program("kinetrel-emulate", {"replay", Path(row.name)});
    EXPECT_EQ(program.Wait(), 2) << row.name << program.output();
    EXPECT_NE(program.error().find(row.text), std::string::npos) << row.name << program.error();
    EXPECT_EQ(std::ranges::count(program.error(), '\n'), 1) << row.name << program.error();
  }
}

TEST_F(Replay, PlaysADamagedOrCutFileAndSaysSoAtTheEnd) {
  struct Row {
    bool cut;
    const char* told;
  };
  std::vector<Step> steps = kTwoQuestions;
  steps.push_back({5000, TopicKind::LineReceived, "third;"});  // in a chunk of its own
  for (const Row& row :
       {Row{true, "the file was cut"}, Row{false, "damaged parts of the file are left out"}}) {
    WriteCapture(Path("a.mcap"), steps);
    std::string content;
    {
      std::ifstream file(Path("a.mcap"), std::ios::binary);
      content.assign(std::istreambuf_iterator<char>(file), {});
    }
    const std::size_t third = content.find("third;");
    ASSERT_NE(third, std::string::npos);
    if (row.cut) content.resize(third + 3);
    content[third] = 'x';
    std::ofstream(Path("b.mcap"), std::ios::binary) << content;
    program_ = std::make_unique<ChildProcess>(
        "kinetrel-emulate", std::vector<std::string>{"replay", Path("b.mcap"), "--link", port_});
    ASSERT_TRUE(WaitUntil([&] { return fs::is_symlink(port_); })) << program_->error();
    ASSERT_TRUE(host_.Open(port_));
    host_.Send("P");
    ASSERT_TRUE(host_.Hears("first;"));
    host_.Send("Q");
    ASSERT_TRUE(host_.Hears("first;second;"));
    EXPECT_TRUE(program_->ExpectOutput(row.told)) << program_->output();
    program_->Signal(SIGINT);
    EXPECT_EQ(program_->Wait(), 0);
    host_.Close();
  }
}

// Step by step, so the moments are exact.
TEST_F(Replay, PlaysAsManyTimesFasterAsAsked) {
  WriteCapture(Path("a.mcap"), {{0, TopicKind::LineOpened, "COM1"},
                                {400, TopicKind::LineReceived, "a"},
                                {1200, TopicKind::LineReceived, "b"}});
  for (const double speed : {0.5, 1.0, 4.0}) {
    emulate::CapturedLine capture;
    ASSERT_EQ(capture.Open(Path("a.mcap")), "");
    emulate::SteppedDevice device(std::make_unique<emulate::ReplayDevice>(
                                      std::move(capture), emulate::ReplayOptions{.speed = speed}),
                                  {.baud = 4'000'000'000, .whole = true, .anyRate = true});
    device.HostOpened(emulate::Moment(0));
    std::vector<std::byte> out;
    for (const auto& [ms, count] : {std::pair{400, 1U}, {1200, 2U}}) {
      const emulate::Moment due(static_cast<std::int64_t>(ms * 1e6 / speed));
      device.Advance(due - milliseconds(2), out);
      EXPECT_EQ(out.size(), count - 1) << speed;
      device.Advance(due + milliseconds(2), out);
      EXPECT_EQ(out.size(), count) << speed;
    }
  }
}

}  // namespace
}  // namespace kinetrel::test
