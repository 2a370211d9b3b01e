#include "bridge/posistagenet.h"

#include "bridge/text.h"
#include "program/program.h"

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

constexpr std::size_t kTimeSize = kChunkHead + 12;  // of a packet's header

// A chunk from here on, of which the length is written at its end.
class OpenChunk {
 public:
  OpenChunk(PacketWriter& packet, std::uint16_t id, bool holdsChunks = true)
      : packet_(packet), at_(packet.size()), head_(id | (holdsChunks ? 1U << 31 : 0)) {
    packet.U32Le(0);
  }
  ~OpenChunk() {
    const auto length = static_cast<std::uint32_t>(packet_.size() - at_ - kChunkHead);
    packet_.SetU32Le(at_, head_ | length << 16);
  }
  OpenChunk(const OpenChunk&) = delete;
  OpenChunk& operator=(const OpenChunk&) = delete;

 private:
  PacketWriter& packet_;
  const std::size_t at_;
  const std::uint32_t head_;
};

void AppendText(PacketWriter& packet, std::uint16_t id, std::string_view text) {
  const OpenChunk chunk(packet, id, false);
  packet.Text(text);
}

void AppendVector(PacketWriter& packet, std::uint16_t id, const std::array<double, 3>& vector) {
  const OpenChunk chunk(packet, id, false);
  for (const double value : vector) packet.F32Le(value);
}

std::size_t SizeOf(const PsnPose&) { return 56; }
std::size_t SizeOf(const PsnName& name) { return 2 * kChunkHead + name.name.size(); }

void Append(PacketWriter& packet, const PsnPose& pose) {
  const OpenChunk chunk(packet, pose.tracker);
  AppendVector(packet, kPosition, pose.position);
  AppendVector(packet, kOrientation, pose.orientation);
  {
    const OpenChunk validity(packet, kValidity, false);
    packet.F32Le(pose.valid ? 1 : 0);
  }
  const OpenChunk stamp(packet, kTimeStamp, false);
  packet.U64Le(pose.sampleUs);
}

void Append(PacketWriter& packet, const PsnName& name) {
  const OpenChunk chunk(packet, name.tracker);
  AppendText(packet, kName, name.name);
}

// How many of the first trackers have room.
template <typename Tracker>
std::size_t CountThatFits(std::span<const Tracker> trackers, std::size_t room) {
  std::size_t count = 0;
  for (const Tracker& tracker : trackers) {
    const std::size_t size = SizeOf(tracker);
    if (size > room) break;
    room -= size;
    ++count;
  }
  return count;
}

struct Frame {
  PacketKind kind;
  std::uint64_t timeUs;
  std::uint8_t number;
  std::string_view system;  // of INFO
  std::uint16_t listId;
};

template <typename Tracker>
void EncodePacket(PacketWriter& packet, const Frame& frame, std::size_t count,
                  std::span<const Tracker> trackers) {
  const OpenChunk whole(packet, static_cast<std::uint16_t>(frame.kind));
  {
    const OpenChunk header(packet, kHeader, false);
    packet.U64Le(frame.timeUs).U8(2).U8(3).U8(frame.number).U8(static_cast<std::uint32_t>(count));
  }
  if (frame.kind == PacketKind::Info) AppendText(packet, kSystemName, frame.system);
  const OpenChunk list(packet, frame.listId);
  for (const Tracker& tracker : trackers) Append(packet, tracker);
}

// Two walks, since each packet says how many there are.
template <typename Tracker>
void EncodeFrame(PacketBatch& packets, const Frame& frame, std::span<const Tracker> trackers) {
  std::size_t room = kLargestPacket - 2 * kChunkHead - kTimeSize;
  if (frame.kind == PacketKind::Info) room -= kChunkHead + frame.system.size();
  std::size_t count = 0;
  auto rest = trackers;
  do {
    rest = rest.subspan(CountThatFits(rest, room));
    ++count;
  } while (!rest.empty());
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t fits = CountThatFits(trackers, room);
    EncodePacket(packets.writer(), frame, count, trackers.first(fits));
    packets.End();
    trackers = trackers.subspan(fits);
  }
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

void EncodePsnData(PacketBatch& packets, std::uint64_t timeUs, std::uint8_t frame,
                   std::span<const PsnPose> poses) {
  EncodeFrame(packets, {PacketKind::Data, timeUs, frame, {}, kDataTrackers}, poses);
}

void EncodePsnInfo(PacketBatch& packets, std::uint64_t timeUs, std::uint8_t frame,
                   std::string_view system, std::span<const PsnName> names) {
  EncodeFrame(packets, {PacketKind::Info, timeUs, frame, system, kInfoTrackers}, names);
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
