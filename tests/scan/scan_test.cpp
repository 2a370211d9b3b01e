// kinetrel-scan as a process, on ports with emulators, without a device, and without a right.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "platform/serial_line.h"
#include "scan/port_scan.h"
#include "scan/start.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/pseudo_terminal.h"

namespace kinetrel::test {
namespace {

using nlohmann::json;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::chrono::seconds kScanTime{60};
#else
constexpr std::chrono::seconds kScanTime{15};  // that users are promised
#endif

constexpr unsigned kNobody = 65534;

// Its emulator runs as long as this object lives.
class EmulatedPort {
 public:
  explicit EmulatedPort(const std::string& device, std::vector<std::string> more = {}) {
    static int ports = 0;
    link_ = std::filesystem::temp_directory_path() /
            ("kinetrel-scan-" + std::to_string(::getpid()) + "-" + std::to_string(++ports));
    more.insert(more.begin(), {device, "--link", link_});
    program_.emplace("kinetrel-emulate", more);
    EXPECT_TRUE(WaitUntil([this] { return std::filesystem::is_symlink(link_); }));
    ::chmod(std::filesystem::canonical(link_).c_str(), 0666);
  }
  ~EmulatedPort() { ::unlink(link_.c_str()); }
  EmulatedPort(const EmulatedPort&) = delete;
  EmulatedPort& operator=(const EmulatedPort&) = delete;

  const std::string& path() const { return link_; }
  ChildProcess& program() { return *program_; }

 private:
  std::string link_;
  std::optional<ChildProcess> program_;
};

// Runs kinetrel-scan and returns the ports of its JSON, by path.
json Scan(std::vector<std::string> arguments, bool asNobody = false) {
  arguments.push_back("--json");
  std::string program = "kinetrel-scan";
  if (asNobody && ::geteuid() == 0) {
    arguments.insert(arguments.begin(), {"--reuid", std::to_string(kNobody), "--clear-groups",
                                         std::string(KINETREL_BIN_DIR) + "/" + program});
    program = "/usr/bin/setpriv";
  }
  ChildProcess scan(program, arguments);
  EXPECT_EQ(scan.Wait(kScanTime), 0) << scan.error();
  json ports;
  const json all = json::parse(scan.output(), nullptr, false);
  if (!all.contains("ports")) return ports;
  for (const json& port : all["ports"]) ports[port["path"]] = port;
  return ports;
}

std::string WordsOf(const json& port) { return port.value("words", ""); }

struct DeviceRow {
  const char* emulator;
  std::vector<std::string> options;
  int type;
  unsigned baud;
  int stations;
  const char* model;
  const char* firmware;
  std::string before;  // the path in the command line
  const char* after;
};

TEST(Scan, TellsElevenPortsApartInFifteenSeconds) {
  const DeviceRow rows[] = {
      {"fastrak",
       {"--receivers", "2"},
       2,
       115200,
       2,
       "FasTRAK (Polhemus 3SPACE FASTRAK)",
       "3.02",
       "kinetrel --device fastrak --port ",
       " --sensors 1-2"},
      {"flock",
       {"--birds", "4"},
       3,
       115200,
       4,
       "6DFOB",
       "3.67",
       "kinetrel --device flock --port ",
       ""},
      {"pan-tilt", {}, 1, 9600, 1, "", "", "kinetrel --device pan-tilt --port ", ""},
      {"logitech", {}, 4, 19200, 1, "", "", "kinetrel --device logitech --port ", ""},
      {"intertrax",
       {},
       9,
       1200,
       1,
       "InterTrax 1.0 (emulated)",
       "",
       "kinetrel --device intertrax --port ",
       ""},
      {"liberty",
       {"--stations", "3"},
       10,
       115200,
       3,
       "Polhemus LIBERTY HST emulator, unit 1",
       "1.00",
       "KINETREL_COM1=",
       " kinetrel --device liberty --port 1 --sensors 1-3"},
      {"gps", {}, 12, 9600, 0, "", "", "kinetrel --device gps --port ", ""},
  };
  std::deque<EmulatedPort> emulators;
  std::vector<std::string> ports = {"--ask"};
  for (const DeviceRow& row : rows) {
    ports.push_back(emulators.emplace_back(row.emulator, row.options).path());
  }
  PseudoTerminal silent, busy, denied;
  ::chmod(silent.path().c_str(), 0666);
  ::chmod(busy.path().c_str(), 0666);
  ::chmod(denied.path().c_str(), 0);
  const auto holder = SerialLine::Open(busy.path());
  ASSERT_TRUE(holder.Ok());
  for (const std::string& path : {silent.path(), busy.path(), denied.path()}) ports.push_back(path);
  ports.emplace_back("/dev/null");

  json found = Scan(ports, true);
  ASSERT_EQ(found.size(), 11U);
  for (std::size_t i = 0; i < emulators.size(); ++i) {
    const DeviceRow& row = rows[i];
    SCOPED_TRACE(row.emulator);
    const json& device = found[emulators[i].path()]["device"];
    EXPECT_EQ(device.value("type", 0), row.type);
    EXPECT_EQ(device.value("baud", 0U), row.baud);
    EXPECT_EQ(device.value("stations", 0), row.stations);
    EXPECT_EQ(device.value("model", "-"), row.model);
    EXPECT_EQ(device.value("firmware", "-"), row.firmware);
    const std::string command = found[emulators[i].path()].value("command", "");
    EXPECT_EQ(command, row.before + emulators[i].path() + row.after);
  }
  EXPECT_TRUE(WordsOf(found[silent.path()]).starts_with("no answer: nothing is connected"));
  EXPECT_TRUE(WordsOf(found[busy.path()]).starts_with("in use by another program"));
  EXPECT_TRUE(WordsOf(found[denied.path()]).starts_with("permission denied"))
      << WordsOf(found[denied.path()]);
  EXPECT_EQ(WordsOf(found["/dev/null"]), "not a serial port");
}

TEST(Scan, AsksPortsOfAdaptersAndOfNoOtherUsbDevices) {
  struct {
    const char* driver;
    std::optional<UsbAdapter> usb;
    bool isAsked;
  } const rows[] = {
      {"serial8250", std::nullopt, true},
      {"ftdi_sio", UsbAdapter{0x0403, 0x6001}, true},
      {"pl2303", UsbAdapter{0x067B, 0x2303}, true},
      {"ftdi_sio", UsbAdapter{0x0403, 0xE888}, false},  // an instrument with the maker's chip
      {"cdc_acm", UsbAdapter{0x2341, 0x0043}, false},   // a board that may move a machine
      {"option", UsbAdapter{0x12D1, 0x1001}, false},    // a modem
      {"cdc_acm", std::nullopt, false},
  };
  std::deque<PseudoTerminal> lines;
  std::vector<PortEntry> ports;
  for (const auto& row : rows) {
    ports.push_back({.path = lines.emplace_back().path(),
                     .driver = row.driver,
                     .kind = PortKind::PseudoTerminal,
                     .usb = row.usb});
  }
  scan::ScanOptions options;
  options.effort = scan::Effort::Ask;
  const auto results = scan::ScanEntries(ports, options);
  ASSERT_EQ(results.size(), lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(lines[i].Received().empty(), !rows[i].isAsked);
    EXPECT_EQ(results[i].words.starts_with("left alone"), !rows[i].isAsked) << results[i].words;
  }
  // One that the user names is asked all the same.
  options.ports = {ports[4].path};
  const auto named = scan::ScanEntries({ports[4]}, options);
  EXPECT_TRUE(named[0].opened);
  EXPECT_FALSE(lines[4].Received().empty());
}

// A folder of its own, which disappears with its files.
struct TemporaryFolder {
  TemporaryFolder() { std::filesystem::create_directories(path); }
  ~TemporaryFolder() { std::filesystem::remove_all(path); }
  std::string path = testing::TempDir() + "kinetrel-configs-" + std::to_string(::getpid());
};

int RunProgram(const std::string& program, std::vector<std::string> arguments, std::string& error) {
  ChildProcess run(program, std::move(arguments), {.emptyInput = true});
  const int code = run.Wait(kScanTime);
  error = run.error();
  return code;
}

TEST(Scan, WritesConfigurationsThatStartTheTrackers) {
  const TemporaryFolder folder;
  EmulatedPort left("fastrak", {"--receivers", "2"}), right("fastrak"), gps("gps");
  std::string error;
  ASSERT_EQ(
      RunProgram("kinetrel-scan",
                 {"--ask", "--write-config", folder.path, left.path(), right.path(), gps.path()},
                 error),
      0)
      << error;
  for (const char* const name : {"fastrak", "fastrak-2", "gps"}) {
    const std::string file = folder.path + "/" + name + ".toml";
    EXPECT_EQ(RunProgram("kinetrel", {"--config", file, "--check-config"}, error), 0)
        << file << error;
  }
  const FreeSlot slot;
  ChildProcess tracker(
      "kinetrel", {"--config", folder.path + "/fastrak.toml", "-w", std::to_string(slot.slot())},
      {.emptyInput = true});
  EXPECT_TRUE(tracker.ExpectError("Running ...")) << tracker.error();
}

TEST(Scan, WritesConfigurationsOverNoFile) {
  const TemporaryFolder folder;
  const std::string file = folder.path + "/lab.toml";
  EmulatedPort gps("gps"), fastrak("fastrak");
  const auto write = [&](std::vector<std::string> more, std::string& error) {
    more.insert(more.begin(), {"--ask", "--write-config"});
    return RunProgram("kinetrel-scan", std::move(more), error);
  };
  const auto content = [&] {
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  std::ofstream(file) << "mine";
  std::string error;
  EXPECT_EQ(write({file, gps.path()}, error), 1);
  EXPECT_EQ(error, "kinetrel-scan: " + file + " exists; --force replaces it\n");
  EXPECT_EQ(write({file, gps.path(), fastrak.path()}, error), 1);
  EXPECT_NE(error.find("2 trackers were found: give a folder"), std::string::npos) << error;
  EXPECT_EQ(write({folder.path + "/missing/lab.toml", gps.path()}, error), 1);
  EXPECT_EQ(content(), "mine");
  EXPECT_EQ(write({file, "--force", gps.path()}, error), 0) << error;
  EXPECT_NE(content().find("port = \"" + gps.path() + "\"\nslot = "), std::string::npos)
      << content();
}

// All that --ask ever sends to a device that does not answer, in the order of docs/scan.md.
TEST(Scan, WritesOnlyTheListedQuestions) {
  using namespace std::string_literals;
  const std::string listed =
      "O\x0FO\x0F"
      "\r"
      "\x16\r"
      "*\x05"
      "\rS"
      "\x10\x21\x10\x03\x10\x26\x10\x03"
      "dc";
  struct {
    const char* effort;
    std::string written;
  } const rows[] = {{"--json", ""}, {"--listen", ""}, {"--ask", listed}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.effort);
    PseudoTerminal line;
    Scan({row.effort, line.path()});
    EXPECT_EQ(line.Received(), row.written);
  }
}

TEST(Scan, NamesTheProgramThatHasThePort) {
  PseudoTerminal line;
  const auto holder = SerialLine::Open(line.path());
  ASSERT_TRUE(holder.Ok());
  const json port = Scan({"--ask", line.path()})[line.path()];
  EXPECT_NE(WordsOf(port).find("(process " + std::to_string(::getpid()) + ")"), std::string::npos)
      << WordsOf(port);
}

TEST(Scan, SaysThatAPortDisappearedMeanwhile) {
  EmulatedPort port("intertrax", {"--show", "--fault=unplug:60@usr1"});  // it is asked last
  ChildProcess scan("kinetrel-scan", {"--ask", port.path()});
  ASSERT_TRUE(port.program().ExpectOutput("the port is opened"));
  port.program().Signal(SIGUSR1);
  EXPECT_EQ(scan.Wait(kScanTime), 0);
  EXPECT_TRUE(scan.ExpectOutput("the port disappeared while it was scanned")) << scan.output();
}

TEST(Scan, EndsAtAFloodOfNonsense) {
  PseudoTerminal line;
  std::atomic<bool> stop{false};
  ::fcntl(line.farEnd(), F_SETFL, O_NONBLOCK);
  std::thread flood([&] {
    std::string bytes(512, '\0');
    for (unsigned i = 1; !stop; i = i * 1103515245 + 12345) {
      for (char& byte : bytes) byte = static_cast<char>((i = i * 1103515245 + 12345) >> 16);
      if (::write(line.farEnd(), bytes.data(), bytes.size()) < 0) std::this_thread::yield();
    }
  });
  const json port = Scan({"--ask", line.path()})[line.path()];
  stop = true;
  flood.join();
  EXPECT_FALSE(port.contains("device")) << port;
  EXPECT_NE(WordsOf(port).find("that make no sense"), std::string::npos) << WordsOf(port);
}

// ---- The chain
// -----------------------------------------------------------------------------------

struct BrokenLink {
  const char* device;
  std::string port;
  const char* line;  // the last one
};

TEST(Check, NamesTheFirstBrokenLinkAndWhatToDo) {
  PseudoTerminal silent;
  EmulatedPort gps("gps"), fastrak("fastrak");
  const FreeSlot slot;
  const BrokenLink rows[] = {
      {"fastrak", "/dev/no-such-port",
       "BROKEN  port           /dev/no-such-port does not exist. Plug"},
      {"2", "/dev/null", "BROKEN  port           /dev/null is not a serial port."},
      {"13", "1", "BROKEN  port           no driver has the number 13"},
      {"6", "1", "BROKEN  library        isense.dll cannot be loaded"},
      {"2", silent.path(), "BROKEN  answer         no byte came. Check the tracker's power"},
      {"flock", gps.path(), "BROKEN  identity       a GPS receiver (TSIP) is there: use -d 12"},
      {"2", fastrak.path(), "ok      clients        start the tracker"},
  };
  for (const BrokenLink& row : rows) {
    SCOPED_TRACE(row.line);
    ChildProcess check("kinetrel-scan", {"--check", "-d", row.device, "-p", row.port, "-w",
                                         std::to_string(slot.slot())});
    const bool whole = std::string_view(row.line).starts_with("ok");
    EXPECT_EQ(check.Wait(kScanTime), whole ? 0 : 1) << check.error();
    const std::string& text = check.output();
    const std::size_t last = text.substr(0, text.size() - 1).rfind('\n') + 1;
    EXPECT_TRUE(text.substr(last).starts_with(row.line)) << text;
  }
}

TEST(Check, ReadsTheStreamOfATrackerThatRuns) {
  // All slots are in use: the files still get one each.
  scan::PortResult gpsFound;
  gpsFound.finding = {.family = Family::Gps};
  scan::Machine crowded;
  for (int i = 1; i <= 16; ++i) crowded.slots.push_back({.number = i});
  const auto starts = scan::PlanStarts({gpsFound, gpsFound}, crowded);
  ASSERT_EQ(starts.size(), 2U);
  EXPECT_TRUE(starts[0].config.ends_with("slot = 1\n"));
  EXPECT_TRUE(starts[1].config.ends_with("slot = 2\n"));
  const FreeSlot slot;
  ChildProcess tracker("kinetrel", Simulated(slot), {.emptyInput = true});
  ASSERT_TRUE(tracker.ExpectError("Running ..."));
  ChildProcess client("kinetrel-watch", {"--slot", std::to_string(slot.slot())});
  ASSERT_TRUE(client.ExpectOutput("record "));
  ChildProcess check("kinetrel-scan", {"--check", "-d8", "-w", std::to_string(slot.slot())});
  EXPECT_EQ(check.Wait(kScanTime), 0);
  EXPECT_TRUE(check.ExpectOutput("ok      tracker        OrvixTraject runs in process " +
                                 std::to_string(tracker.pid())))
      << check.output();
  EXPECT_TRUE(check.ExpectOutput("(process " + std::to_string(client.pid()) + ")"))
      << check.output();
}

}  // namespace
}  // namespace kinetrel::test
