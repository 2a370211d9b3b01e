// What kinetrel-bridge costs: from a record in the stream to its packet on the network, and each
// output at the rate of the fastest trackers.
#include <arpa/inet.h>
#include <linux/futex.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/handover.h"
#include "bench/machine.h"
#include "bridge/output.h"
#include "publish/record_stream_writer.h"

namespace kinetrel::bench {
namespace {

constexpr int kLonelyDevice = kBenchDevice - 1;  // without clients
constexpr std::size_t kDatagram = 48;            // bytes of an opentrack packet

std::unique_ptr<RecordStreamWriter> OpenStream(int device) {
  auto opened = RecordStreamWriter::Open(device);
  if (!opened.Ok()) throw std::runtime_error(Describe(opened.status()));
  (*opened)->SetState(kinetrel_state_running, "");
  return std::move(*opened);
}

// A UDP port of this machine that takes datagrams and that the system empties by itself: what does
// not fit is lost.
class Sink {
 public:
  Sink() : socket_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    if (::bind(socket_, Address(), size) != 0 || ::getsockname(socket_, Address(), &size) != 0) {
      throw std::runtime_error("no UDP port");
    }
  }
  ~Sink() { ::close(socket_); }
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  sockaddr* Address() { return reinterpret_cast<sockaddr*>(&address_); }
  int port() const { return ntohs(address_.sin_port); }

 private:
  int socket_;
  sockaddr_in address_{};
};

// ---- One packet --------------------------------------------------------------------------------

// A futex word that wakes a sender of one datagram.
class BareSender final : public Handover {
 public:
  void OpenTaker() override {
    socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    last_ = word_->load();
  }
  void Give() override { Wake(*word_); }
  void Rehearse() override { Wake(*lonelyWord_); }
  void CatchUp() override { last_ = word_->load(); }
  void Take() override {
    while (word_->load() == last_) {
      ::syscall(SYS_futex, &*word_, FUTEX_WAIT, last_, nullptr, nullptr, 0);
    }
    last_ = word_->load();
    ::sendto(socket_, datagram_.data(), datagram_.size(), 0, sink_.Address(), sizeof(sockaddr_in));
  }

 private:
  static void Wake(std::atomic<std::uint32_t>& word) {
    word.fetch_add(1);
    ::syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  }

  Sink sink_;
  Common<std::atomic<std::uint32_t>> word_;
  Common<std::atomic<std::uint32_t>> lonelyWord_;
  std::uint32_t last_ = 0;
  int socket_ = -1;
  std::array<char, kDatagram> datagram_{};
};

// The thread of a slot, as kinetrel-bridge runs it, with one output.
class BridgeSender final : public Handover {
 public:
  void OpenGiver() override {
    writer_ = OpenStream(kBenchDevice);
    lonely_ = OpenStream(kLonelyDevice);
  }
  void CloseGiver() override {
    writer_.reset();
    lonely_.reset();
  }
  void OpenTaker() override {
    bridge::OutputAddress address;
    const std::string text = "opentrack://127.0.0.1:" + std::to_string(sink_.port());
    bridge::ParseOutputAddress(text, address);
    const bridge::Protocol* const protocol = bridge::FindProtocol("opentrack", "");
    bridge::OutputOptions options(address);
    bridge::PoseSelector selector(options, {protocol->axes, protocol->name});
    feed_ = std::make_unique<bridge::Feed>(
        bridge::Feed{kBenchDevice + 1, protocol, std::move(options), std::move(selector)});
    context_ = std::make_unique<bridge::OutputContext>(
        bridge::OutputContext{io_, "", false, [](const std::string&) {}, {}});
    output_ = protocol->make(*context_, {feed_.get()});
    if (!output_->Open().empty()) throw std::runtime_error("the output cannot be opened");
    source_ = std::make_unique<bridge::StreamSource>(kBenchDevice + 1);
    while (!source_->state().present) source_->Next(100);
  }
  void Give() override { writer_->Publish({&record_, 1}); }
  void Rehearse() override { lonely_->Publish({&record_, 1}); }
  void CatchUp() override {
    while (!source_->Next(0).records.empty()) {
    }
  }
  void Take() override {
    for (;;) {
      const auto news = source_->Next(100);
      poses_.clear();
      feed_->selector.Select(news.records, source_->state(), poses_);
      if (poses_.empty()) continue;
      output_->Publish(*feed_, poses_);
      return;
    }
  }

 private:
  static kinetrel_record OnePose() {
    kinetrel_record record{};
    record.flags = kinetrel_position_valid | kinetrel_orientation_valid;
    record.orientation[0] = 1;
    record.frame = 1;
    return record;
  }

  Sink sink_;
  std::unique_ptr<RecordStreamWriter> writer_;
  std::unique_ptr<RecordStreamWriter> lonely_;
  kinetrel_record record_ = OnePose();
  boost::asio::io_context io_;
  std::unique_ptr<bridge::Feed> feed_;
  std::unique_ptr<bridge::OutputContext> context_;
  std::unique_ptr<bridge::Output> output_;
  std::unique_ptr<bridge::StreamSource> source_;
  std::vector<bridge::Pose> poses_;
};

void OnePacket(Report& report, const char* item, const HandoverPlan& plan) {
  BareSender bare;
  BridgeSender sender;
  report.Ratio(item, MeasureHandover(plan, bare, sender).arrival, "ns", 1.3);
}

// ---- Every output -----------------------------------------------------------------------------

void PublishForEver() {
  const auto writer = OpenStream(kBenchDevice);
  std::array<kinetrel_record, kinetrel_stream_sensors> records{};
  auto next = std::chrono::steady_clock::now();
  for (std::uint64_t frame = 1;; ++frame) {
    for (std::uint32_t sensor = 0; sensor < records.size(); ++sensor) {
      kinetrel_record& record = records[sensor];
      record.frame = frame;
      record.sensor = sensor;
      record.sample_ns = kinetrel_now_ns();
      record.position[0] = 0.001 * static_cast<double>(frame % 1000);
      record.orientation[0] = 1;
      record.flags = kinetrel_position_valid | kinetrel_orientation_valid;
    }
    writer->Publish(records);
    next += std::chrono::microseconds(1000000 / 240);
    std::this_thread::sleep_until(next);
  }
}

// What sending one datagram costs, in seconds of CPU: to a socket that nothing empties.
double BareDatagram(std::size_t size) {
  constexpr int kCount = 20'000;
  Sink sink;
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const std::vector<char> datagram(size);
  const double before = OwnThreadCpuSeconds();
  for (int i = 0; i < kCount; ++i) {
    ::sendto(socket, datagram.data(), size, 0, sink.Address(), sizeof(sockaddr_in));
  }
  const double seconds = OwnThreadCpuSeconds() - before;
  ::close(socket);
  return seconds / kCount;
}

// Each by itself and all together, as users run them; without LSL, whose library may be missing and
// has threads of its own, and without VRPN, which sends only to clients.
void EveryOutput(Report& report) {
  const Sink sink;
  const std::string to = "://127.0.0.1:" + std::to_string(sink.port());
  const std::vector<std::string> outputs = {"osc" + to,          "osc" + to + "/vrchat",
                                            "osc" + to + "/vmc", "osc" + to + "/adm?extent=2,2,2",
                                            "freed" + to,        "opentrack" + to,
                                            "psn" + to,          "dtrack" + to,
                                            "opentrackio" + to};
  const Child writer(PublishForEver);
  const auto measure = [](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"--slot", std::to_string(kBenchDevice + 1), "--status", "0"});
    Child bridge([&] { RunProgram("kinetrel-bridge", arguments); });
    std::this_thread::sleep_for(std::chrono::seconds(1));  // it has started
    const double before = CpuSecondsOf(bridge.pid());
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    const double percent = 100 * (CpuSecondsOf(bridge.pid()) - before) / passed.count();
    bridge.End();
    return percent;
  };
  for (const std::string& output : outputs) {
    const std::string title =
        output.substr(0, output.find(':')) +
        (output.starts_with("osc") ? output.substr(output.find(to) + to.size()) : "");
    report.AtMost("CPU of 32 sensors at 240 Hz, " + title, measure({output}), "% of a core", 5);
  }
  const double all = measure(outputs);
  report.AtMost("CPU of 32 sensors at 240 Hz, all these outputs", all, "% of a core", 5);
  // Of VRChat 16, VMC, ADM, Free-D and OpenTrackIO 32, OSC and PosiStageNet 2, two others 1.
  constexpr double kDatagramsOfAFrame = 16 + 4 * 32 + 2 * 2 + 2;
  const double bare = 100 * kDatagramsOfAFrame * 240 * BareDatagram(kDatagram);
  report.AtMost("the same in terms of a sendto for each datagram", all / bare, "x", 1);
}

void Measure(Report& report) {
  if (CpuCount() > 1) {
    OnePacket(report, "until a record is on the network, another CPU",
              {.placement = Placement::OtherCpu, .runs = 3, .cycles = 50});
  }
  OnePacket(report, "until a record is on the network, the same CPU",
            {.placement = Placement::SameCpu, .takersFirst = true, .runs = 3, .cycles = 50});
  EveryOutput(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-bridge", kinetrel::bench::Measure); }
