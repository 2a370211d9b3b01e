// What kinetrel-view costs with many viewers, how soon they have a frame, and whether its memory
// stays level.
#include <arpa/inet.h>
#include <kinetrel/stream.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/harness.h"
#include "bench/machine.h"
#include "publish/record_stream_writer.h"

namespace kinetrel::bench {
namespace {

constexpr int kViewers = 20;
constexpr int kRate = 60;  // Hz
constexpr std::chrono::seconds kObserved{5};
constexpr int kEvents = 1'000'000;

int Socket(std::uint16_t port, bool listens) {
  const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if ((listens ? ::bind(made, any, sizeof address) : ::connect(made, any, sizeof address)) == 0) {
    return made;
  }
  ::close(made);
  return -1;
}

std::uint16_t FreePort() {
  const int bound = Socket(0, true);
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ::getsockname(bound, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(bound);
  return ntohs(address.sin_port);
}

// One WebSocket that watches the benchmarks' slot.
class Viewer {
 public:
  explicit Viewer(std::uint16_t port) : socket_(Socket(port, false)) {
    if (socket_ < 0) throw std::runtime_error("kinetrel-view takes no connection");
    const std::string request = "GET /api/trackers/" + std::to_string(kBenchDevice + 1) +
                                "/frames HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\n"
                                "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                                "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
    if (::send(socket_, request.data(), request.size(), 0) < 0) throw std::runtime_error("send");
  }
  ~Viewer() { ::close(socket_); }
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;

  int socket() const { return socket_; }

  // Takes what is there. Adds the milliseconds since publication of each whole frame to `delays`.
  void Take(std::vector<double>& delays) {
    std::array<char, 65536> bytes;
    const ssize_t got = ::recv(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got == 0) throw std::runtime_error("kinetrel-view closed a connection");
    if (got < 0) return;
    received_.append(bytes.data(), static_cast<std::size_t>(got));
    if (!open_) {
      const std::size_t end = received_.find("\r\n\r\n");
      if (end == std::string::npos) return;
      received_.erase(0, end + 4);
      open_ = true;
    }
    while (TakeMessage(delays)) {
    }
  }

 private:
  std::size_t Byte(std::size_t at) const { return static_cast<unsigned char>(received_[at]); }

  bool TakeMessage(std::vector<double>& delays) {
    if (received_.size() < 2) return false;
    std::size_t head = 2;
    std::size_t size = Byte(1);
    if (size == 126) {
      if (received_.size() < 4) return false;
      head = 4;
      size = Byte(2) << 8 | Byte(3);
    }
    if (received_.size() < head + size) return false;
    const std::string message = received_.substr(head, size);
    const bool isPing = (Byte(0) & 0xFU) == 9;
    received_.erase(0, head + size);
    if (isPing) Answer(message);
    const std::size_t at = message.find("\"publishTime\":");
    if (message.find("\"frame\"") < 16 && at != std::string::npos) {
      const double published = std::strtod(message.c_str() + at + 14, nullptr);
      delays.push_back(static_cast<double>(kinetrel_now_ns()) * 1e-6 - published * 1e3);
    }
    return true;
  }

  // A pong, with a mask of zeros.
  void Answer(const std::string& ping) const {
    const std::string pong =
        std::string("\x8A") + static_cast<char>(0x80U | ping.size()) + std::string(4, '\0') + ping;
    ::send(socket_, pong.data(), pong.size(), MSG_NOSIGNAL);
  }

  int socket_;
  bool open_ = false;
  std::string received_;
};

// All viewers, read on a thread of their own.
class Audience {
 public:
  explicit Audience(std::uint16_t port) {
    for (int i = 0; i < kViewers; ++i) viewers_.push_back(std::make_unique<Viewer>(port));
    thread_ = std::thread([this] { Run(); });
  }
  ~Audience() {
    ended_ = true;
    thread_.join();
  }
  Audience(const Audience&) = delete;
  Audience& operator=(const Audience&) = delete;

  void Forget() { forget_ = true; }
  std::size_t frames() const { return frames_; }
  // Afterwards the delays are the caller's, and no more are taken.
  std::vector<double> End() {
    ended_ = true;
    while (!left_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return delays_;
  }

 private:
  void Run() {
    std::vector<pollfd> waiting;
    for (const auto& viewer : viewers_) waiting.push_back({viewer->socket(), POLLIN, 0});
    while (!ended_) {
      ::poll(waiting.data(), waiting.size(), 100);
      for (std::size_t i = 0; i < waiting.size(); ++i) {
        if ((waiting[i].revents & POLLIN) != 0) viewers_[i]->Take(delays_);
      }
      if (forget_.exchange(false)) delays_.clear();
      frames_ = delays_.size();
    }
    left_ = true;
  }

  std::vector<std::unique_ptr<Viewer>> viewers_;
  std::vector<double> delays_;
  std::atomic<bool> forget_ = false;
  std::atomic<bool> ended_ = false;
  std::atomic<bool> left_ = false;
  std::atomic<std::size_t> frames_ = 0;
  std::thread thread_;
};

class Source {
 public:
  Source() {
    auto opened = RecordStreamWriter::Open(kBenchDevice);
    if (!opened.Ok()) throw std::runtime_error(Describe(opened.status()));
    writer_ = std::move(*opened);
    for (std::uint32_t i = 0; i < records_.size(); ++i) {
      records_[i].sensor = i;
      records_[i].flags = kinetrel_position_valid | kinetrel_orientation_valid;
    }
  }

  void Publish() {
    ++frame_;
    for (kinetrel_record& record : records_) {
      record.frame = frame_;
      record.sample_ns = kinetrel_now_ns();
      for (double& metre : record.position)
        metre = 0.1234567 + 1e-6 * static_cast<double>(frame_ % 1000);
      for (float& part : record.orientation) part = 0.49876543F;
    }
    writer_->Publish(records_);
  }

  void PublishFor(std::chrono::seconds time) {
    auto next = std::chrono::steady_clock::now();
    for (const auto end = next + time; next < end;) {
      Publish();
      next += std::chrono::microseconds(1'000'000 / kRate);
      std::this_thread::sleep_until(next);
    }
  }

 private:
  std::unique_ptr<RecordStreamWriter> writer_;
  std::array<kinetrel_record, kinetrel_stream_sensors> records_{};
  std::uint64_t frame_ = 0;
};

double ResidentKilobytes(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/statm");
  double pages = 0;
  file >> pages >> pages;
  return pages * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1024;
}

void AwaitServer(std::uint16_t port) {
  for (int i = 0; i < 5000; ++i) {
    const int tried = Socket(port, false);
    if (tried >= 0) {
      ::close(tried);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  throw std::runtime_error("kinetrel-view does not start");
}

void Measure(Report& report) {
  Source source;
  const std::uint16_t port = FreePort();
  Child server([&] { RunProgram("kinetrel-view", {"--port", std::to_string(port)}); });
  AwaitServer(port);
  Audience audience(port);
  source.PublishFor(std::chrono::seconds(1));
  audience.Forget();
  const double before = CpuSecondsOf(server.pid());
  source.PublishFor(kObserved);
  const double seconds = static_cast<double>(kObserved.count());
  const double cpu = CpuSecondsOf(server.pid()) - before;
  report.AtLeast("frames of 32 sensors at each of 20 viewers",
                 static_cast<double>(audience.frames()) / seconds / kViewers, "/s", 55);
  report.AtMost("CPU with 20 viewers, of one core", 100 * cpu / seconds, "%", 25);

  const double level = ResidentKilobytes(server.pid());
  for (int i = 0; i < kEvents / kinetrel_stream_sensors; ++i) {
    source.Publish();
    if (i % 64 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  report.AtMost("memory grown over 10^6 records", ResidentKilobytes(server.pid()) - level, "kB",
                512);
  audience.Forget();
  source.PublishFor(std::chrono::seconds(2));
  const std::vector<double> delays = audience.End();
  report.AtMost("from publication to the viewer, median", PercentileOf(delays, 50), "ms", 5);
  report.AtMost("from publication to the viewer, of 99 in 100", PercentileOf(delays, 99), "ms", 25);
  server.End();
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-view", kinetrel::bench::Measure); }
