#include "bridge/posistagenet.h"

#include "bridge/text.h"

namespace kinetrel::bridge {
namespace {

enum class PacketKind : std::uint16_t { Data = 0x6755, Info = 0x6756 };
constexpr std::uint16_t kHeader = 0x0000;
constexpr std::uint16_t kSystemName = 0x0001;  // INFO
constexpr std::uint16_t kDataTrackers = 0x0001;
constexpr std::uint16_t kInfoTrackers = 0x0002;
constexpr std::uint16_t kName = 0x0000;      // of a tracker: INFO
constexpr std::uint16_t kPosition = 0x0000;  // of a tracker: DATA
constexpr std::uint16_t kOrientation = 0x0002;
constexpr std::uint16_t kValidity = 0x0003;
constexpr std::uint16_t kTimeStamp = 0x0006;
constexpr std::size_t kChunkHead = 4;
constexpr std::size_t kHeaderSize = 12;

void AppendChunk(PacketWriter& packet, std::uint16_t id, bool holdsChunks,
                 std::span<const std::byte> content) {
  const auto length = static_cast<std::uint32_t>(content.size());
  packet.U32Le(id | length << 16 | (holdsChunks ? 1U << 31 : 0)).Bytes(content);
}

void AppendText(PacketWriter& packet, std::uint16_t id, const std::string& text) {
  AppendChunk(packet, id, false, std::as_bytes(std::span(text)));
}

void AppendVector(PacketWriter& packet, std::uint16_t id, const std::array<double, 3>& vector) {
  PacketWriter content;
  for (const double value : vector) content.F32Le(value);
  AppendChunk(packet, id, false, content.bytes());
}

Packet TrackerChunk(const PsnPose& pose) {
  PacketWriter content;
  AppendVector(content, kPosition, pose.position);
  AppendVector(content, kOrientation, pose.orientation);
  AppendChunk(content, kValidity, false, PacketWriter().F32Le(pose.valid ? 1 : 0).bytes());
  AppendChunk(content, kTimeStamp, false, PacketWriter().U64Le(pose.sampleUs).bytes());
  PacketWriter chunk;
  AppendChunk(chunk, pose.tracker, true, content.bytes());
  return chunk.Take();
}

Packet TrackerChunk(const PsnName& name) {
  PacketWriter content;
  AppendText(content, kName, name.name);
  PacketWriter chunk;
  AppendChunk(chunk, name.tracker, true, content.bytes());
  return chunk.Take();
}

// front  the chunks between the header and the list of trackers, which every packet repeats.
template <typename Tracker>
std::vector<Packet> EncodeFrame(PacketKind kind, std::uint64_t timeUs, std::uint8_t frame,
                                const Packet& front, std::uint16_t listId,
                                std::span<const Tracker> trackers) {
  const std::size_t room = kLargestPacket - 3 * kChunkHead - kHeaderSize - front.size();
  std::vector<PacketWriter> lists(1);
  for (const Tracker& tracker : trackers) {
    const Packet chunk = TrackerChunk(tracker);
    if (lists.back().size() + chunk.size() > room) lists.emplace_back();
    lists.back().Bytes(chunk);
  }
  std::vector<Packet> packets;
  for (const PacketWriter& list : lists) {
    PacketWriter header;
    header.U64Le(timeUs).U8(2).U8(3).U8(frame).U8(static_cast<std::uint32_t>(lists.size()));
    PacketWriter content;
    AppendChunk(content, kHeader, false, header.bytes());
    content.Bytes(front);
    AppendChunk(content, listId, true, list.bytes());
    PacketWriter packet;
    AppendChunk(packet, static_cast<std::uint16_t>(kind), true, content.bytes());
    packets.push_back(packet.Take());
  }
  return packets;
}

// ---- Reading ----

struct Chunk {
  std::uint16_t id = 0;
  PacketReader content;
};

Chunk TakeChunk(PacketReader& reader) {
  const auto head = reader.U32Le();
  return {static_cast<std::uint16_t>(head & 0xFFFF),
          PacketReader(reader.Bytes(head >> 16 & 0x7FFF))};
}

std::string TakeVector(PacketReader& reader) {
  std::string text = "(";
  for (int i = 0; i < 3; ++i) text.append(i > 0 ? ", " : "").append(Fixed(reader.F32Le(), 6));
  return text + ")";
}

std::string TakeText(PacketReader& reader) {
  return Printable(AsText(reader.Bytes(reader.rest().size())));
}

void DescribeTrackerData(std::string& text, PacketReader& tracker) {
  while (!tracker.rest().empty()) {
    Chunk field = TakeChunk(tracker);
    switch (field.id) {
      case kPosition:
        text += " position " + TakeVector(field.content);
        break;
      case kOrientation:
        text += " orientation " + TakeVector(field.content);
        break;
      case kValidity:
        text += field.content.F32Le() > 0.5F ? " valid" : " not valid";
        break;
      case kTimeStamp:
        text += " at " + std::to_string(field.content.U64Le()) + " us";
        break;
      default:
        break;
    }
    if (!field.content.Ok()) tracker.Spoil();
  }
}

// Each list of trackers, one a line.
void DescribeTrackers(std::string& text, PacketKind kind, PacketReader& list) {
  while (!list.rest().empty()) {
    Chunk tracker = TakeChunk(list);
    text += "\n  tracker " + std::to_string(tracker.id);
    if (kind == PacketKind::Data) {
      DescribeTrackerData(text, tracker.content);
    } else {
      Chunk name = TakeChunk(tracker.content);
      text += " \"" + TakeText(name.content) + "\"";
    }
    if (!tracker.content.Ok()) list.Spoil();
  }
}

void DescribeHeader(std::string& text, PacketReader& header) {
  text += std::to_string(header.U64Le()) + " us";
  (void)header.Bytes(2);  // version
  text += " frame " + std::to_string(header.U8());
  text += ", " + std::to_string(header.U8()) + " packets";
}

}  // namespace

std::vector<Packet> EncodePsnData(std::uint64_t timeUs, std::uint8_t frame,
                                  std::span<const PsnPose> poses) {
  return EncodeFrame(PacketKind::Data, timeUs, frame, {}, kDataTrackers, poses);
}

std::vector<Packet> EncodePsnInfo(std::uint64_t timeUs, std::uint8_t frame,
                                  const std::string& system, std::span<const PsnName> names) {
  PacketWriter front;
  AppendText(front, kSystemName, system);
  return EncodeFrame(PacketKind::Info, timeUs, frame, front.bytes(), kInfoTrackers, names);
}

std::string DescribePsn(std::span<const std::byte> packet) {
  PacketReader reader(packet);
  Chunk whole = TakeChunk(reader);
  const auto kind = static_cast<PacketKind>(whole.id);
  bool ok = reader.AtEnd() && (kind == PacketKind::Data || kind == PacketKind::Info);
  const std::uint16_t listId = kind == PacketKind::Data ? kDataTrackers : kInfoTrackers;
  std::string text = kind == PacketKind::Data ? "DATA " : "INFO ";
  while (ok && !whole.content.rest().empty()) {
    Chunk chunk = TakeChunk(whole.content);
    if (chunk.id == kHeader) {
      DescribeHeader(text, chunk.content);
    } else if (chunk.id == listId) {
      DescribeTrackers(text, kind, chunk.content);
    } else if (chunk.id == kSystemName) {
      text += ", system \"" + TakeText(chunk.content) + "\"";
    }
    ok = whole.content.Ok() && chunk.content.Ok();
  }
  return ok ? text : "damaged PosiStageNet packet";
}

}  // namespace kinetrel::bridge
