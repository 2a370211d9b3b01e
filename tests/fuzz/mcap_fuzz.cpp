// Arbitrary bytes as a recording: every message is read, and again from a time in the middle.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "mcap/mcap_reader.h"
#include "mcap/pose_stamped.h"

using namespace kinetrel::mcap;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::filesystem::path path =
      "/dev/shm/kinetrel-fuzz-" + std::to_string(getpid()) + ".mcap";
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  McapReader reader;
  if (reader.Open(path).empty()) {
    std::size_t messages = 0;
    while (const auto message = reader.Next()) {
      (void)DecodePoseStamped(message->data);
      ++messages;
    }
    if (messages > size) __builtin_trap();  // each has a head of its own
    reader.Seek(reader.firstTime() / 2 + reader.lastTime() / 2);
    while (reader.Next()) continue;
    (void)reader.Metadata("kinetrel");
  }
  std::filesystem::remove(path);
  return 0;
}
