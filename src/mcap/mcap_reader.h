// Reads an MCAP file: ours, another program's, or what is left of one.
//
// A whole file is opened by its index. A file without one, or one that was cut, is walked once from
// record to record, without its messages. Of a chunk that was cut, all whole messages are read.
//
// Damaged chunks are passed over and counted; no file costs more memory than 64 MiB for
// one chunk, and as much for its index.
// Compressed chunks are refused: we write none.
//
// Threads  one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "devices/wire.h"
#include "mcap/mcap_format.h"

namespace kinetrel::mcap {

// One message; the pointers are valid until the next call of the reader.
struct Message {
  std::uint16_t channelId = 0;
  const Channel* channel = nullptr;
  std::uint32_t sequence = 0;
  std::uint64_t logTime = 0;  // ns since 1970 UTC, as is publishTime
  std::uint64_t publishTime = 0;
  std::span<const std::byte> data;
};

class McapReader {
 public:
  // Returns  empty, or a sentence for the user: what is wrong with the file.
  std::string Open(const std::filesystem::path& path);

  // The next message in the order of the file. Empty at the end.
  std::optional<Message> Next();

  // Goes on with the first message whose time is not before `logTime`, chunk by chunk: the chunks
  // of a file are taken to be in order of time, as every recorder writes them.
  void Seek(std::uint64_t logTime);

  const std::map<std::uint16_t, Channel>& channels() const { return channels_; }
  const std::map<std::uint16_t, Schema>& schemas() const { return schemas_; }

  // The texts of the metadata record of that name. Empty if the file has no such record.
  TextMap Metadata(const std::string& name);

  bool whole() const { return whole_; }  // the file was closed; else it was cut or never ended
  bool empty() const { return places_.empty(); }
  std::uint64_t firstTime() const { return firstTime_; }  // as the chunks say; 0 without chunks
  std::uint64_t lastTime() const { return lastTime_; }
  std::uint64_t damaged() const {
    return damaged_;
  }  // chunks passed over, wholly or from a place on

 private:
  // What is loaded at once: the content of a chunk, or a run of records outside of chunks.
  struct Place {
    std::uint64_t start = 0, length = 0;
    bool chunk = false;
    std::uint64_t firstTime = 0, lastTime = ~std::uint64_t{0};
  };
  struct Extent {
    std::uint64_t start = 0, length = 0;
  };
  struct RecordHead {
    Opcode opcode{};
    Extent content;
    bool cut = false;  // it runs past the end of the file; `content` ends there
  };

  bool ReadSummary();
  std::string Walk();
  std::optional<RecordHead> HeadAt(std::uint64_t at);
  std::string AddChunk(const RecordHead& head);
  std::string AddPlace(const Place& place);
  void TakeSchema(WireReader reader);
  void TakeChannel(WireReader reader);
  bool Load(const Place& place);
  bool TakeMessage(WireReader reader, Message& message);
  bool Fetch(Extent extent, std::vector<std::byte>& into);

  std::ifstream file_;
  std::uint64_t size_ = 0;
  bool whole_ = false;
  bool compressed_ = false;
  std::map<std::uint16_t, Schema> schemas_;
  std::map<std::uint16_t, Channel> channels_;
  std::vector<Place> places_;
  std::map<std::string, Extent> metadata_;
  std::uint64_t firstTime_ = 0, lastTime_ = 0;
  std::uint64_t damaged_ = 0;

  std::size_t nextPlace_ = 0;
  std::vector<std::byte> loaded_;
  WireReader rest_{std::span<const std::byte>{}};  // of loaded_
  std::uint64_t notBefore_ = 0;                    // messages before this time are passed over
};

}  // namespace kinetrel::mcap
