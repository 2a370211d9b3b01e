#include "mcap/mcap_writer.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

namespace kinetrel::mcap {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{1} << 20;
constexpr std::uint64_t kChunkTime = 1'000'000'000;  // ns
constexpr std::size_t kMaxIds = std::numeric_limits<std::uint16_t>::max();

Status FileFailure(const char* what) {
  const int code = errno;
  switch (code) {
    case ENOSPC:
    case EFBIG:
      return {Error::NoSpace, code, what};
    case EACCES:
    case EPERM:
    case EROFS:
      return {Error::Denied, code, what};
    case ENOENT:
    case ENOTDIR:
      return {Error::NotFound, code, what};
    default:
      return {Error::Failed, code, what};
  }
}

}  // namespace

Status McapWriter::Open(const std::filesystem::path& path, std::string_view profile) {
  if (!path_.empty()) return {Error::Invalid, 0, "opening a second recording with one writer"};
  path_ = path;
  file_.reset(std::fopen(path.string().c_str(), "wb"));
  if (!file_) return failure_ = FileFailure("creating the recording");
  // One write for each chunk, and nothing waits in the process when it is killed.
  std::setvbuf(file_.get(), nullptr, _IONBF, 0);
  std::vector<std::byte> head(kMagic.begin(), kMagic.end());
  ByteSink sink(head);
  const std::size_t begin = sink.BeginRecord(Opcode::Header);
  sink.Text(profile);
  sink.Text("kinetrel");
  sink.EndRecord(begin);
  return Append(head);
}

Status McapWriter::AddMetadata(const std::string& name, const TextMap& texts) {
  if (Status written = Flush(); !written.Ok()) return written;  // it stands between two chunks
  scratch_.clear();
  ByteSink sink(scratch_);
  const std::size_t begin = sink.BeginRecord(Opcode::Metadata);
  sink.Text(name);
  sink.Texts(texts);
  sink.EndRecord(begin);
  const std::uint64_t start = size_;
  Status written = Append(scratch_);
  if (written.Ok()) metadata_.push_back({start, scratch_.size(), name});
  return written;
}

std::uint16_t McapWriter::AddSchema(Schema schema) {
  if (schemas_.size() >= kMaxIds) return 0;
  schemas_.push_back(std::move(schema));
  const auto id = static_cast<std::uint16_t>(schemas_.size());
  if (!chunk_.empty()) AppendSchema(chunk_, id, schemas_.back());
  return id;
}

std::uint16_t McapWriter::AddChannel(Channel channel) {
  if (channels_.size() >= kMaxIds) return 0;
  channels_.push_back({.channel = std::move(channel), .messages = 0, .index = {}});
  const auto id = static_cast<std::uint16_t>(channels_.size());
  if (!chunk_.empty()) AppendChannel(chunk_, id, channels_.back().channel);
  return id;
}

void McapWriter::BeginChunk() {
  for (std::size_t i = 0; i < schemas_.size(); ++i) {
    AppendSchema(chunk_, static_cast<std::uint16_t>(i + 1), schemas_[i]);
  }
  for (std::size_t i = 0; i < channels_.size(); ++i) {
    AppendChannel(chunk_, static_cast<std::uint16_t>(i + 1), channels_[i].channel);
  }
}

Status McapWriter::Write(std::uint16_t channel, std::uint32_t sequence, std::uint64_t logTime,
                         std::uint64_t publishTime, std::span<const std::byte> data) {
  if (!failure_.Ok()) return failure_;
  if (channel == 0 || channel > channels_.size()) return {Error::Invalid, 0, "writing a message"};
  if (chunkMessages_ > 0 && (chunk_.size() >= kChunkBytes || logTime >= chunkFirst_ + kChunkTime)) {
    if (Status written = Flush(); !written.Ok()) return written;
  }
  if (chunk_.empty()) BeginChunk();

  ChannelState& state = channels_[channel - 1U];
  state.index.emplace_back(logTime, chunk_.size());
  ByteSink sink(chunk_);
  const std::size_t begin = sink.BeginRecord(Opcode::Message);
  sink.U16(channel);
  sink.U32(sequence);
  sink.U64(logTime);
  sink.U64(publishTime);
  sink.Bytes(data);
  sink.EndRecord(begin);
  chunkFirst_ = chunkMessages_ == 0 ? logTime : std::min(chunkFirst_, logTime);
  chunkLast_ = chunkMessages_ == 0 ? logTime : std::max(chunkLast_, logTime);
  ++chunkMessages_;
  return {};
}

Status McapWriter::Flush() {
  if (!failure_.Ok() || chunkMessages_ == 0) return failure_;
  scratch_.clear();
  ByteSink sink(scratch_);
  std::size_t begin = sink.BeginRecord(Opcode::Chunk);
  sink.U64(chunkFirst_);
  sink.U64(chunkLast_);
  sink.U64(chunk_.size());
  sink.U32(Crc32(chunk_));
  sink.Text("");  // not compressed: read everywhere, also after a cut
  sink.U64(chunk_.size());
  sink.Bytes(chunk_);
  sink.EndRecord(begin);

  ChunkPlace place{.start = size_,
                   .length = scratch_.size(),
                   .firstTime = chunkFirst_,
                   .lastTime = chunkLast_,
                   .size = chunk_.size(),
                   .indexes = {},
                   .indexLength = 0};
  for (std::size_t i = 0; i < channels_.size(); ++i) {
    if (channels_[i].index.empty()) continue;
    place.indexes.emplace_back(static_cast<std::uint16_t>(i + 1), size_ + scratch_.size());
    begin = sink.BeginRecord(Opcode::MessageIndex);
    sink.U16(static_cast<std::uint16_t>(i + 1));
    const std::size_t entries = sink.Begin32();
    for (const auto& [time, offset] : channels_[i].index) {
      sink.U64(time);
      sink.U64(offset);
    }
    sink.End32(entries);
    sink.EndRecord(begin);
  }
  place.indexLength = scratch_.size() - place.length;

  const Status written = Append(scratch_);
  if (written.Ok()) {
    firstTime_ = messages_ == 0 ? chunkFirst_ : std::min(firstTime_, chunkFirst_);
    lastTime_ = messages_ == 0 ? chunkLast_ : std::max(lastTime_, chunkLast_);
    messages_ += chunkMessages_;
    for (ChannelState& state : channels_) state.messages += state.index.size();
    chunks_.push_back(std::move(place));
  }
  for (ChannelState& state : channels_) state.index.clear();
  chunk_.clear();
  chunkMessages_ = 0;
  return written;
}

// A part of a record that a full disk took would hide what a later, shorter write adds.
Status McapWriter::Append(std::span<const std::byte> bytes) {
  if (!file_) return {Error::Closed, 0, "writing the recording"};
  if (std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size()) {
    const Status failed = FileFailure("writing the recording");
    if (failure_.Ok()) failure_ = failed;
    std::error_code ignored;
    std::filesystem::resize_file(path_, size_, ignored);
    return failed;
  }
  size_ += bytes.size();
  crc_ = Crc32(bytes, crc_);
  return {};
}

Status McapWriter::Close() {
  if (!file_) return failure_;
  (void)Flush();  // its failure is kept
  if (failure_.Ok()) {
    std::vector<std::byte> end;
    ByteSink sink(end);
    const std::size_t begin = sink.BeginRecord(Opcode::DataEnd);
    sink.U32(crc_);
    sink.EndRecord(begin);
    AppendSummary(end);
    (void)Append(end);
  }
  file_.reset();
  return failure_;
}

// The records of a group stand together, and the groups in the order of their first readers.
void McapWriter::AppendSummary(std::vector<std::byte>& into) const {
  ByteSink sink(into);
  const std::size_t summary = into.size();
  struct Group {
    Opcode opcode;
    std::size_t start, length;
  };
  std::vector<Group> groups;
  const auto group = [&](Opcode opcode, auto append) {
    const std::size_t start = into.size();
    append();
    if (into.size() > start) groups.push_back({opcode, start, into.size() - start});
  };
  group(Opcode::Schema, [&] {
    for (std::size_t i = 0; i < schemas_.size(); ++i) {
      AppendSchema(into, static_cast<std::uint16_t>(i + 1), schemas_[i]);
    }
  });
  group(Opcode::Channel, [&] {
    for (std::size_t i = 0; i < channels_.size(); ++i) {
      AppendChannel(into, static_cast<std::uint16_t>(i + 1), channels_[i].channel);
    }
  });
  group(Opcode::Statistics, [&] {
    const std::size_t begin = sink.BeginRecord(Opcode::Statistics);
    sink.U64(messages_);
    sink.U16(static_cast<std::uint16_t>(schemas_.size()));
    sink.U32(static_cast<std::uint32_t>(channels_.size()));
    sink.U32(0);  // attachments
    sink.U32(static_cast<std::uint32_t>(metadata_.size()));
    sink.U32(static_cast<std::uint32_t>(chunks_.size()));
    sink.U64(firstTime_);
    sink.U64(lastTime_);
    const std::size_t counts = sink.Begin32();
    for (std::size_t i = 0; i < channels_.size(); ++i) {
      if (channels_[i].messages == 0) continue;
      sink.U16(static_cast<std::uint16_t>(i + 1));
      sink.U64(channels_[i].messages);
    }
    sink.End32(counts);
    sink.EndRecord(begin);
  });
  group(Opcode::MetadataIndex, [&] {
    for (const MetadataPlace& place : metadata_) {
      const std::size_t begin = sink.BeginRecord(Opcode::MetadataIndex);
      sink.U64(place.start);
      sink.U64(place.length);
      sink.Text(place.name);
      sink.EndRecord(begin);
    }
  });
  group(Opcode::ChunkIndex, [&] {
    for (const ChunkPlace& place : chunks_) {
      const std::size_t begin = sink.BeginRecord(Opcode::ChunkIndex);
      sink.U64(place.firstTime);
      sink.U64(place.lastTime);
      sink.U64(place.start);
      sink.U64(place.length);
      const std::size_t indexes = sink.Begin32();
      for (const auto& [channel, at] : place.indexes) {
        sink.U16(channel);
        sink.U64(at);
      }
      sink.End32(indexes);
      sink.U64(place.indexLength);
      sink.Text("");
      sink.U64(place.size);
      sink.U64(place.size);
      sink.EndRecord(begin);
    }
  });

  const auto inFile = [&](std::size_t at) { return size_ + at; };
  const std::size_t offsets = into.size();
  for (const Group& each : groups) {
    const std::size_t begin = sink.BeginRecord(Opcode::SummaryOffset);
    sink.U8(static_cast<std::uint8_t>(each.opcode));
    sink.U64(inFile(each.start));
    sink.U64(each.length);
    sink.EndRecord(begin);
  }
  sink.U8(static_cast<std::uint8_t>(Opcode::Footer));
  sink.U64(kFooterSize - kRecordHeadSize);
  sink.U64(inFile(summary));
  sink.U64(inFile(offsets));
  sink.U32(Crc32(std::span(into).subspan(summary)));  // of the footer too, as far as it is written
  sink.Bytes(kMagic);
}

}  // namespace kinetrel::mcap
