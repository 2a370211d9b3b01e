// What following a tracker on another machine costs, over loopback.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "bench/harness.h"
#include "bench/machine.h"
#include "drivers/relay_device.h"

namespace kinetrel::bench {
namespace {

// All of 127 is loopback: every run has an address of its own there.
std::string OwnAddress() {
  const int pid = ::getpid();
  return "127.99." + std::to_string(pid >> 8 & 255) + '.' + std::to_string(pid & 255);
}

// ---- One call ----------------------------------------------------------------------------------

constexpr std::size_t kRequestSize = 48;  // of the call that fetches the angles
constexpr std::size_t kReplySize = 44;
constexpr int kCalls = 200;  // a block

bool Take(int fd, char* bytes, std::size_t size) {
  return ::recv(fd, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

// Messages of the same sizes over blocking sockets, with nothing in them.
class BarePingPong {
 public:
  BarePingPong() {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    socklen_t size = sizeof address_;
    auto* const any = reinterpret_cast<sockaddr*>(&address_);
    if (::bind(listener, any, size) != 0 || ::listen(listener, 1) != 0) {
      throw std::runtime_error("no port for the bare ping-pong");
    }
    ::getsockname(listener, any, &size);
    echo_.emplace([listener] { Echo(::accept(listener, nullptr, nullptr)); });
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(fd_, any, size) != 0) throw std::runtime_error("no bare ping-pong");
    AtOnce(fd_);
    ::close(listener);
  }
  ~BarePingPong() { ::close(fd_); }
  BarePingPong(const BarePingPong&) = delete;
  BarePingPong& operator=(const BarePingPong&) = delete;

  void Call() const {
    std::array<char, kRequestSize> bytes{};
    ::send(fd_, bytes.data(), kRequestSize, 0);
    if (!Take(fd_, bytes.data(), kReplySize)) throw std::runtime_error("the bare ping-pong ended");
  }

 private:
  static void AtOnce(int fd) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  static void Echo(int fd) {
    AtOnce(fd);
    std::array<char, kRequestSize> bytes{};
    while (Take(fd, bytes.data(), kRequestSize)) ::send(fd, bytes.data(), kReplySize, 0);
  }

  sockaddr_in address_{};
  std::optional<Child> echo_;
  int fd_ = -1;
};

Child StartService(const std::string& address) {
  return Child([address] {
    RunProgram("kinetrel-service",
               {"--listen", address, "-d8", "-s1", "-z-", "-w", std::to_string(kBenchDevice + 1)});
  });
}

constexpr rpc::FloatsArguments kAngles = {{kBenchDevice, 0, 0}, -1, 2, 3};

void AwaitAngles(rpc::RpcTrackClient& client, const std::string& address) {
  std::array<float, 3> angles{};
  for (int i = 0; i < 500; ++i) {
    const bool bound = client.Bind(address) == rpc::CallResult::Success;
    if (bound && client.GetAngles(kAngles, angles) == rpc::CallResult::Success) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  throw std::runtime_error("kinetrel-service does not answer");
}

void OneCall(Report& report, rpc::RpcTrackClient& client) {
  const BarePingPong bare;
  const auto call = [&client] {
    std::array<float, 3> angles{};
    if (client.GetAngles(kAngles, angles) != rpc::CallResult::Success) {
      throw std::runtime_error("kinetrel-service stopped answering");
    }
  };
  const auto cost =
      Interleave(100, TimedBlock(kCalls, [&bare] { bare.Call(); }), TimedBlock(kCalls, call));
  report.Ratio("one relayed frame, over a bare TCP ping-pong", cost[0], "ns", 2);
}

// ---- Many relays -------------------------------------------------------------------------------

constexpr int kRelays = 32;
constexpr int kRate = 120;  // Hz
constexpr std::chrono::seconds kObserved{5};

void Follow(const std::string& followed, const std::atomic<bool>& stop, std::atomic<int>& frames) {
  RelayDevice relay;
  if (!relay.SetControlString(followed.c_str()) || relay.Boot(0) < kBooted) return;
  while (!stop) frames += relay.ReadFrame(nullptr) != 0 ? 1 : 0;
}

void ManyRelays(Report& report, const Child& service, const std::string& address) {
  const std::string followed = address + ':' + std::to_string(kBenchDevice) + ", 0, 0";
  std::atomic<bool> stop = false;
  std::array<std::atomic<int>, kRelays> frames{};
  std::vector<std::thread> relays;
  for (auto& count : frames) {
    relays.emplace_back([&] { Follow(followed, stop, count); });
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));  // all are connected
  for (auto& count : frames) count = 0;
  const double before = CpuSecondsOf(service.pid());
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(kObserved);
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  const double cpu = CpuSecondsOf(service.pid()) - before;
  std::vector<double> rates;
  for (auto& count : frames) rates.push_back(count / time.count());
  stop = true;
  for (std::thread& relay : relays) relay.join();
  const double median = MedianOf(rates);
  report.AtLeast("the slowest of 32 relays, over their median", PercentileOf(rates, 0) / median,
                 "x", 0.9);
  report.AtMost("CPU of the service they follow, of one core", 100 * cpu / time.count(), "%", 25);
  report.Note("median of the 32: " + std::to_string(median) + " frames a second, of " +
              std::to_string(kRate));
}

void Measure(Report& report) {
  const std::string address = OwnAddress();
  Child service = StartService(address);
  rpc::RpcTrackClient client;
  AwaitAngles(client, address);
  OneCall(report, client);
  client.Unbind();
  ManyRelays(report, service, address);
  service.End();
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-relay", kinetrel::bench::Measure); }
