// Any bytes as the content of a record stream: the reader refuses it, or every call ends and stays
// within the memory.
#include <kinetrel/stream.h>

#include <cstdint>
#include <cstring>
#include <vector>

// The input is laid over the start of an object whose size its first two bytes choose.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::size_t words = (data[0] | std::size_t{data[1]} << 8) % 2048;
  std::vector<std::uint64_t> image(words + 1);
  const std::size_t bytes = words * 8;
  if (bytes > 0) std::memcpy(image.data(), data + 2, size - 2 < bytes ? size - 2 : bytes);
  kinetrel_stream stream;
  if (kinetrel_stream_attach(&stream, image.data(), bytes) != kinetrel_stream_ok) return 0;
  kinetrel_record record;
  kinetrel_run run;
  kinetrel_log_line lines[8];
  char text[256];
  kinetrel_stream_rewind(&stream);
  for (int i = 0; i < 4; ++i) kinetrel_stream_next(&stream, &record, 0);
  for (unsigned i = 0; i < kinetrel_stream_sensors; ++i) {
    kinetrel_stream_newest(&stream, i, &record);
  }
  kinetrel_stream_run(&stream, &run);
  kinetrel_stream_state(&stream, text);
  kinetrel_stream_log(&stream, lines, 8);
  kinetrel_stream_close(&stream);
  return 0;
}
