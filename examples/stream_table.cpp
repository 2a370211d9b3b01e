// A client of the record stream in C++17 that prints a table of all sensors four times a second.
//
//   c++ -std=c++17 stream_table.cpp -o stream_table
//   ./stream_table [SLOT [TABLES]]      slot 1 to 16; TABLES 0: without end
#include <kinetrel/stream.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

// Closes with its scope.
class Stream {
 public:
  Stream(int slot, int waitMs) : opened_(kinetrel_stream_open(&stream_, slot, waitMs)) {}
  ~Stream() { kinetrel_stream_close(&stream_); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  kinetrel_stream_result opened() const { return opened_; }
  kinetrel_stream* get() { return &stream_; }

 private:
  kinetrel_stream stream_;
  kinetrel_stream_result opened_;
};

double Degrees(float radians) { return static_cast<double>(radians) * 180.0 / std::acos(-1.0); }

// Reads what has come, so that the number of lost records is right.
void CatchUp(kinetrel_stream* stream) {
  kinetrel_record record;
  while (kinetrel_stream_next(stream, &record, 0) == kinetrel_stream_ok) {
  }
}

void PrintTable(kinetrel_stream* stream) {
  kinetrel_run run;
  if (kinetrel_stream_run(stream, &run) != kinetrel_stream_ok) return;
  char text[256];
  const kinetrel_state state = kinetrel_stream_state(stream, text);
  std::printf("%s, %s: %s  %.1f Hz, %llu lost\n", run.device_name, kinetrel_state_text(state), text,
              run.measured_rate, static_cast<unsigned long long>(kinetrel_stream_lost(stream)));
  std::printf("sensor       x m       y m       z m   azimuth elevation      roll    age ms\n");
  for (unsigned sensor = 0; sensor < kinetrel_stream_sensors; ++sensor) {
    kinetrel_record record;
    if (kinetrel_stream_newest(stream, sensor, &record) != kinetrel_stream_ok) continue;
    const double age = static_cast<double>(kinetrel_now_ns() - record.sample_ns) / 1e6;
    std::printf("%6u %9.4f %9.4f %9.4f %9.2f %9.2f %9.2f %9.2f\n", sensor + 1, record.position[0],
                record.position[1], record.position[2], Degrees(record.angles[0]),
                Degrees(record.angles[1]), Degrees(record.angles[2]), age);
  }
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const int slot = argc > 1 ? std::atoi(argv[1]) : 1;
  long left = argc > 2 ? std::atol(argv[2]) : 0;
  Stream stream(slot, 10'000);
  if (stream.opened() != kinetrel_stream_ok) {
    std::fprintf(stderr, "slot %d: %s\n", slot, kinetrel_stream_result_text(stream.opened()));
    return 1;
  }
  for (;;) {
    kinetrel_record record;
    const kinetrel_stream_result news = kinetrel_stream_next(stream.get(), &record, 1000);
    if (news == kinetrel_stream_not_a_stream || news >= kinetrel_stream_newer_version) return 1;
    CatchUp(stream.get());
    PrintTable(stream.get());
    if (--left == 0) return 0;
    // The clock, not the tracker, paces the table.
    const int64_t until = kinetrel_now_ns() + 250'000'000;
    while (kinetrel_now_ns() < until) kinetrel_stream_next(stream.get(), &record, 50);
  }
}
