#include "mcap/mcap_reader.h"

#include <algorithm>
#include <limits>
#include <system_error>

namespace kinetrel::mcap {
namespace {

// What is larger is refused: recorders write chunks of a few MiB.
constexpr std::uint64_t kMaxLoad = std::uint64_t{64} << 20;
constexpr std::uint64_t kRunLength = std::uint64_t{1} << 20;  // of records outside of chunks
constexpr std::size_t kMaxPlaces = std::size_t{1} << 22;      // about 4 TiB in chunks of 1 MiB

// Of a Chunk: first and last time, size, CRC, and the length of the name of its compression.
constexpr std::size_t kChunkHeadSize = 8 + 8 + 8 + 4 + 4;

std::string ReadText(WireReader& reader) {
  const std::span<const std::byte> bytes = reader.Bytes(reader.U32Le());
  std::string text(bytes.size(), '\0');
  std::ranges::transform(bytes, text.begin(),
                         [](std::byte byte) { return static_cast<char>(byte); });
  return text;
}

TextMap ReadTexts(WireReader& reader) {
  TextMap texts;
  WireReader entries(reader.Bytes(reader.U32Le()));
  while (entries.Remaining() > 0) {
    std::string key = ReadText(entries);
    texts[std::move(key)] = ReadText(entries);
  }
  return texts;
}

}  // namespace

std::string McapReader::Open(const std::filesystem::path& path) {
  std::error_code failed;
  if (std::filesystem::is_regular_file(path, failed)) {
    size_ = std::filesystem::file_size(path, failed);
    file_.open(path, std::ios::binary);
  }
  if (failed || !file_.is_open()) return "it cannot be opened.";
  std::vector<std::byte> bytes;
  if (!Fetch({0, kMagic.size()}, bytes) || !std::ranges::equal(bytes, kMagic)) {
    return "it is not an MCAP file.";
  }
  whole_ = ReadSummary();
  if (!whole_) {
    if (std::string complaint = Walk(); !complaint.empty()) return complaint;
  }
  if (compressed_) return "its chunks are compressed; convert it to a file without compression.";
  firstTime_ = std::numeric_limits<std::uint64_t>::max();
  for (const Place& place : places_) {
    if (!place.chunk) continue;
    firstTime_ = std::min(firstTime_, place.firstTime);
    lastTime_ = std::max(lastTime_, place.lastTime);
  }
  firstTime_ = std::min(firstTime_, lastTime_);
  return {};
}

// ---- Finding the chunks
// --------------------------------------------------------------------------

// Returns false, and leaves nothing behind, unless all of the summary is sound.
bool McapReader::ReadSummary() {
  constexpr std::uint64_t kTail = kFooterSize + kMagic.size();
  std::vector<std::byte> bytes;
  if (size_ < kMagic.size() + kTail || !Fetch({size_ - kTail, kTail}, bytes)) return false;
  WireReader tail(bytes);
  const auto opcode = static_cast<Opcode>(tail.U8());
  const std::uint64_t length = tail.U64Le();
  const std::uint64_t summary = tail.U64Le();
  tail.Skip(8);
  const std::uint32_t crc = tail.U32Le();
  const bool sound = opcode == Opcode::Footer && length == kFooterSize - kRecordHeadSize &&
                     std::ranges::equal(tail.Bytes(kMagic.size()), kMagic);
  const std::uint64_t end = size_ - kMagic.size() - 4;  // of what the CRC covers
  if (!sound || summary < kMagic.size() || summary >= end || end - summary > kMaxLoad) return false;
  if (!Fetch({summary, end - summary}, bytes) || (crc != 0 && Crc32(bytes) != crc)) return false;

  std::string complaint;
  WireReader records(bytes);
  while (complaint.empty() && records.Remaining() > kFooterSize - 4) {
    const auto kind = static_cast<Opcode>(records.U8());
    WireReader record(records.Bytes(records.U64Le()));
    if (kind == Opcode::Schema) TakeSchema(record);
    if (kind == Opcode::Channel) TakeChannel(record);
    if (kind == Opcode::MetadataIndex) {
      const std::uint64_t at = record.U64Le();
      const std::uint64_t size = record.U64Le();
      if (size >= kRecordHeadSize && at < size_ && size <= size_ - at) {
        metadata_[ReadText(record)] = {at + kRecordHeadSize, size - kRecordHeadSize};
      }
    }
    if (kind == Opcode::ChunkIndex) {
      Place place{.chunk = true};
      place.firstTime = record.U64Le();
      place.lastTime = record.U64Le();
      place.start = record.U64Le() + kRecordHeadSize;
      const std::uint64_t size = record.U64Le();
      place.length = size - kRecordHeadSize;
      record.Skip(record.U32Le());  // where the indexes of messages are
      record.Skip(8);
      if (!ReadText(record).empty()) compressed_ = true;
      const bool inFile = size >= kRecordHeadSize && size <= size_ &&
                          place.start >= kRecordHeadSize && place.start <= size_ - place.length;
      // In the order of the file, and each chunk once: reading takes as long as the file is.
      const bool next =
          places_.empty() || place.start >= places_.back().start + places_.back().length;
      complaint = record.Ok() && inFile && next ? AddPlace(place) : "damaged";
    }
  }
  // A summary without an index of chunks says nothing about messages.
  if (complaint.empty() && records.Ok() && !places_.empty()) return true;
  schemas_.clear();
  channels_.clear();
  places_.clear();
  metadata_.clear();
  return false;
}

// From record to record. Zeros, which a lost power supply leaves, end the file as a cut does.
std::string McapReader::Walk() {
  Place run;
  std::string complaint;
  const auto endRun = [&] {
    if (run.length > 0 && complaint.empty()) complaint = AddPlace(run);
    run = {};
  };
  compressed_ = false;
  std::uint64_t at = kMagic.size();
  while (complaint.empty()) {
    const std::optional<RecordHead> head = HeadAt(at);
    if (!head || head->opcode == Opcode::DataEnd || head->opcode == Opcode::Footer) break;
    const Extent& content = head->content;
    switch (head->opcode) {
      case Opcode::Chunk:
        endRun();
        if (complaint.empty()) complaint = AddChunk(*head);
        break;
      case Opcode::Schema:
      case Opcode::Channel:
      case Opcode::Message:
        if (head->cut) break;
        if (run.length + content.length > kRunLength) endRun();
        if (run.length == 0) run.start = at;
        run.length = content.start + content.length - run.start;
        break;
      case Opcode::Metadata: {
        endRun();
        std::vector<std::byte> bytes;
        if (head->cut || content.length > kMaxLoad || !Fetch(content, bytes)) break;
        WireReader reader(bytes);
        metadata_[ReadText(reader)] = content;
        break;
      }
      default:
        endRun();
        break;
    }
    if (head->cut) break;
    at = content.start + content.length;
  }
  endRun();
  return complaint;
}

std::optional<McapReader::RecordHead> McapReader::HeadAt(std::uint64_t at) {
  std::vector<std::byte> bytes;
  if (at > size_ || !Fetch({at, kRecordHeadSize}, bytes)) return std::nullopt;
  WireReader reader(bytes);
  RecordHead head{.opcode = static_cast<Opcode>(reader.U8()),
                  .content = {at + kRecordHeadSize, reader.U64Le()}};
  if (head.opcode == Opcode{}) return std::nullopt;
  const std::uint64_t left = size_ - head.content.start;
  head.cut = head.content.length > left;
  if (head.cut) head.content.length = left;
  return head;
}

std::string McapReader::AddChunk(const RecordHead& head) {
  std::vector<std::byte> bytes;
  if (head.content.length < kChunkHeadSize) return {};  // cut, or too short to hold a message
  if (!Fetch({head.content.start, kChunkHeadSize}, bytes)) return {};
  WireReader reader(bytes);
  Place place{.start = head.content.start, .length = head.content.length, .chunk = true};
  place.firstTime = reader.U64Le();
  place.lastTime = reader.U64Le();
  reader.Skip(8 + 4);
  if (reader.U32Le() != 0) compressed_ = true;
  return AddPlace(place);
}

std::string McapReader::AddPlace(const Place& place) {
  if (place.length > kMaxLoad) return "it has records of more than 64 MiB, which we do not read.";
  if (places_.size() >= kMaxPlaces) return "it has more chunks than we read.";
  places_.push_back(place);
  return {};
}

// A file that gives an id to two things is damaged; the first one counts.
void McapReader::TakeSchema(WireReader reader) {
  const std::uint16_t id = reader.U16Le();
  Schema schema;
  schema.name = ReadText(reader);
  schema.encoding = ReadText(reader);
  schema.text = ReadText(reader);
  if (reader.Ok() && id != 0) schemas_.try_emplace(id, std::move(schema));
}

void McapReader::TakeChannel(WireReader reader) {
  const std::uint16_t id = reader.U16Le();
  Channel channel;
  channel.schema = reader.U16Le();
  channel.topic = ReadText(reader);
  channel.encoding = ReadText(reader);
  channel.metadata = ReadTexts(reader);
  if (reader.Ok()) channels_.try_emplace(id, std::move(channel));
}

// ---- Reading messages
// ----------------------------------------------------------------------------

bool McapReader::Load(const Place& place) {
  if (!Fetch({place.start, place.length}, loaded_)) return false;
  rest_ = WireReader(loaded_);
  if (!place.chunk) return true;
  rest_.Skip(16);
  const std::uint64_t size = rest_.U64Le();
  const std::uint32_t crc = rest_.U32Le();
  const std::string compression = ReadText(rest_);
  const std::uint64_t length = rest_.U64Le();
  if (!rest_.Ok() || !compression.empty() || size != length) return false;
  if (length > rest_.Remaining()) return true;  // cut: its CRC cannot be checked
  const std::span<const std::byte> records = rest_.Bytes(length);
  rest_ = WireReader(records);
  return crc == 0 || Crc32(records) == crc;
}

std::optional<Message> McapReader::Next() {
  for (;;) {
    while (rest_.Remaining() >= kRecordHeadSize) {
      const auto opcode = static_cast<Opcode>(rest_.U8());
      const std::uint64_t length = rest_.U64Le();
      if (length > rest_.Remaining()) {
        rest_ = WireReader({});
        break;
      }
      WireReader record(rest_.Bytes(length));
      if (opcode == Opcode::Schema) TakeSchema(record);
      if (opcode == Opcode::Channel) TakeChannel(record);
      Message message;
      if (opcode == Opcode::Message && TakeMessage(record, message)) return message;
    }
    if (nextPlace_ >= places_.size()) return std::nullopt;
    const Place& place = places_[nextPlace_++];
    if (place.lastTime < notBefore_) continue;
    if (!Load(place)) {
      rest_ = WireReader({});
      ++damaged_;
    }
  }
}

bool McapReader::TakeMessage(WireReader reader, Message& message) {
  message.channelId = reader.U16Le();
  message.sequence = reader.U32Le();
  message.logTime = reader.U64Le();
  message.publishTime = reader.U64Le();
  message.data = reader.Bytes(reader.Remaining());
  const auto channel = channels_.find(message.channelId);
  if (!reader.Ok() || channel == channels_.end() || message.logTime < notBefore_) return false;
  message.channel = &channel->second;
  return true;
}

void McapReader::Seek(std::uint64_t logTime) {
  notBefore_ = logTime;
  nextPlace_ = 0;
  rest_ = WireReader({});
}

TextMap McapReader::Metadata(const std::string& name) {
  std::vector<std::byte> bytes;
  const auto found = metadata_.find(name);
  if (found == metadata_.end() || found->second.length > kMaxLoad || !Fetch(found->second, bytes)) {
    return {};
  }
  WireReader reader(bytes);
  (void)ReadText(reader);
  return ReadTexts(reader);
}

bool McapReader::Fetch(Extent extent, std::vector<std::byte>& into) {
  if (extent.start > size_ || extent.length > size_ - extent.start) return false;
  into.resize(extent.length);
  file_.clear();
  file_.seekg(static_cast<std::streamoff>(extent.start));
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a file is read as characters.
  file_.read(reinterpret_cast<char*>(into.data()), static_cast<std::streamsize>(extent.length));
  return file_.good();
}

}  // namespace kinetrel::mcap
