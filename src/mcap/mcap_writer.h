// Writes an MCAP file.
//
// Messages collect in a chunk in memory, which is written whole: when it holds a second of messages
// or 1 MiB, and at Flush. So a program that is killed leaves a file that is readable up to the last
// second. Every chunk repeats the schemas and channels and is readable by itself.
//
// Threads  one at a time. Every call may wait for the disk.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mcap/mcap_format.h"
#include "platform/status.h"

namespace kinetrel::mcap {

class McapWriter {
 public:
  McapWriter() = default;
  ~McapWriter() { (void)Close(); }
  McapWriter(const McapWriter&) = delete;
  McapWriter& operator=(const McapWriter&) = delete;

  // Makes the file, or empties the one that exists.
  //
  // profile  "ros2" promises that all channels are of ROS 2; empty promises nothing.
  // Errors   NotFound: no such folder. Denied. NoSpace. Invalid: the writer is open.
  Status Open(const std::filesystem::path& path, std::string_view profile);

  // A text about the recording, for any reader: begins with the next chunk.
  Status AddMetadata(const std::string& name, const TextMap& texts);

  // Ids count from 1. At most 65,535 of each; 0 is returned beyond.
  std::uint16_t AddSchema(Schema schema);
  std::uint16_t AddChannel(Channel channel);

  // Adds a message of a channel that was added. Times are nanoseconds since 1970 UTC.
  //
  // sequence  the sender's own count; 0 if it has none.
  // Returns  NoSpace or Failed if the disk did not take a chunk. The file then ends with the chunk
  // before
  //          it, and every later call returns the same.
  Status Write(std::uint16_t channel, std::uint32_t sequence, std::uint64_t logTime,
               std::uint64_t publishTime, std::span<const std::byte> data);

  // Writes the chunk that has begun.
  Status Flush();

  // Writes chunk and summary and closes the file. On a full disk the file stays without a summary:
  // readable, but not indexed. Returns the first failure since Open.
  Status Close();

  std::uint64_t messages() const { return messages_; }
  std::uint64_t bytes() const { return size_; }  // in the file

 private:
  struct ChunkPlace {
    std::uint64_t start, length;
    std::uint64_t firstTime, lastTime;
    std::uint64_t size;                                            // of the records in it
    std::vector<std::pair<std::uint16_t, std::uint64_t>> indexes;  // channel, place in the file
    std::uint64_t indexLength;
  };
  struct MetadataPlace {
    std::uint64_t start, length;
    std::string name;
  };
  struct ChannelState {
    Channel channel;
    std::uint64_t messages = 0;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> index;  // time, place in the chunk
  };
  struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  void BeginChunk();
  Status Append(std::span<const std::byte> bytes);
  void AppendSummary(std::vector<std::byte>& into) const;

  std::unique_ptr<std::FILE, FileCloser> file_;
  std::filesystem::path path_;
  Status failure_;
  std::uint64_t size_ = 0;
  std::uint32_t crc_ = 0;  // of the data section so far
  std::uint64_t messages_ = 0;
  std::uint64_t firstTime_ = 0, lastTime_ = 0;

  std::vector<Schema> schemas_;         // id is the place + 1
  std::vector<ChannelState> channels_;  // likewise
  std::vector<ChunkPlace> chunks_;
  std::vector<MetadataPlace> metadata_;

  std::vector<std::byte> chunk_;  // records of the chunk that has begun; empty: none
  std::uint64_t chunkMessages_ = 0;
  std::uint64_t chunkFirst_ = 0, chunkLast_ = 0;
  std::vector<std::byte> scratch_;
};

}  // namespace kinetrel::mcap
