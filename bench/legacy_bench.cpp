// What a pose needs through kinetrel-emulate --from, from its publication to the last byte of its
// record at the far end of a line that takes no time.
#include <fcntl.h>
#include <kinetrel/stream.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <chrono>
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

constexpr int kWarmUp = 50;  // poses
constexpr int kCounted = 1000;
constexpr std::size_t kRecordSize = 32;  // position and quaternion as floats, and a blank
constexpr std::chrono::milliseconds kBetween{10};
constexpr std::chrono::milliseconds kPatience{500};

// A line without a rate of its own: the far end sees a byte as soon as it is written.
class Line {
 public:
  Line() {
    char name[128];
    if (::openpty(&far_, &near_, name, nullptr, nullptr) != 0) throw std::runtime_error("openpty");
    for (const int end : {far_, near_}) ::fcntl(end, F_SETFD, FD_CLOEXEC);
    name_ = name;
  }
  ~Line() {
    ::close(far_);
    ::close(near_);
  }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  const std::string& name() const { return name_; }

  void Send(const std::string& text) const {
    if (::write(far_, text.data(), text.size()) < 0) throw std::runtime_error("write");
  }

  // Takes bytes until `count` are there; the moment of the last one, or 0 if they do not come.
  std::int64_t Take(std::size_t count) const {
    std::vector<char> bytes(count);
    for (std::size_t got = 0; got < count;) {
      pollfd ready{far_, POLLIN, 0};
      if (::poll(&ready, 1, static_cast<int>(kPatience.count())) != 1) return 0;
      const ssize_t more = ::read(far_, bytes.data() + got, count - got);
      if (more <= 0) return 0;
      got += static_cast<std::size_t>(more);
    }
    return kinetrel_now_ns();
  }

 private:
  int far_ = -1;
  int near_ = -1;
  std::string name_;
};

class Tracker {
 public:
  Tracker() {
    auto opened = RecordStreamWriter::Open(kBenchDevice);
    if (!opened.Ok()) throw std::runtime_error(Describe(opened.status()));
    writer_ = std::move(*opened);
    writer_->ChangeRun([](kinetrel_run& run) {
      run.state = kinetrel_state_running;
      run.sensor_mask = 1;
    });
    record_[0].flags = kinetrel_position_valid | kinetrel_orientation_valid;
    record_[0].orientation[0] = 1;
  }

  // Returns the moment before.
  std::int64_t Publish() {
    record_[0].frame += 1;
    record_[0].position[0] = 1e-4 * static_cast<double>(record_[0].frame % 1000);
    const std::int64_t now = kinetrel_now_ns();
    record_[0].sample_ns = now;
    writer_->Publish(record_);
    return now;
  }

 private:
  std::unique_ptr<RecordStreamWriter> writer_;
  std::array<kinetrel_record, 1> record_{};
};

void Measure(Report& report) {
  const Line line;
  Tracker tracker;
  Child emulator([&] {
    RunProgram("kinetrel-emulate", {"fastrak", "--from", "slot:" + std::to_string(kBenchDevice + 1),
                                    "--port", line.name()});
  });
  // The status tells that the program has the line.
  std::int64_t answered = 0;
  for (int i = 0; i < 100 && answered == 0; ++i) {
    line.Send("S");
    answered = line.Take(55);
  }
  if (answered == 0) throw std::runtime_error("kinetrel-emulate does not answer");
  line.Send("O1,2,11,0\rfC");
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  std::vector<double> delays;
  int lost = 0;
  for (int i = 0; i < kWarmUp + kCounted; ++i) {
    const std::int64_t published = tracker.Publish();
    const std::int64_t arrived = line.Take(kRecordSize);
    if (arrived == 0) ++lost;
    if (arrived != 0 && i >= kWarmUp)
      delays.push_back(1e-6 * static_cast<double>(arrived - published));
    std::this_thread::sleep_for(kBetween);
  }
  report.AtMost("poses that did not come, of 1050", lost, "", 0);
  report.AtMost("a pose above the wire's own time, median", PercentileOf(delays, 50), "ms", 0.5);
  report.AtMost("a pose above the wire's own time, of 95 in 100", PercentileOf(delays, 95), "ms",
                1);
  emulator.End();
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-legacy", kinetrel::bench::Measure); }
