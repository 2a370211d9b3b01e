#include "bridge_ros2/dds_participant.h"

#include <functional>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

namespace kinetrel::bridge {
namespace {

using Qos = std::unique_ptr<dds_qos_t, decltype(&dds_delete_qos)>;

Qos NewQos() { return {dds_create_qos(), &dds_delete_qos}; }

// ---- What the library says ----------------------------------------------------------------------

// A library that cannot send says so with every message; its user wants to read it once.
constexpr std::int64_t kSilenceAfterLine = DDS_SECS(60);

struct LibraryLines {
  std::mutex lock;
  std::function<void(const std::string&)> say;  // empty: the library's lines are not shown
  std::string last;
  std::map<std::pair<std::string, std::uint32_t>, dds_time_t> saidAt;  // by the line of its source
};

// The one in the process, as the library has only one sink.
LibraryLines& Lines() {
  static LibraryLines lines;
  return lines;
}

void Say(void*, const dds_log_data_t* data) {
  std::string_view text(data->message, data->size);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) text.remove_suffix(1);
  LibraryLines& lines = Lines();
  const std::lock_guard<std::mutex> held(lines.lock);
  lines.last = text;
  if (!lines.say) return;
  const dds_time_t now = dds_time();
  dds_time_t& said = lines.saidAt[{data->file, data->line}];
  if (said != 0 && now - said < kSilenceAfterLine) return;
  said = now;
  lines.say("Cyclone DDS: " + lines.last);
}

// ---- Configuration ------------------------------------------------------------------------------

// ROS 2 nodes that are confined to their machine look for others at the first 33 participant
// indices of localhost, and only there.
constexpr std::string_view kFixedPorts =
    "<ParticipantIndex>auto</ParticipantIndex><MaxAutoParticipantIndex>32</"
    "MaxAutoParticipantIndex>";
constexpr std::string_view kAnyPorts = "<ParticipantIndex>none</ParticipantIndex>";
// As ROS 2 confines a node: it multicasts nothing and calls only localhost. It is not bound to the
// loopback interface, since nodes of other vendors give the addresses of the other ones.
constexpr std::string_view kNoMulticast =
    "<General><AllowMulticast>false</AllowMulticast></General>";
constexpr std::string_view kThisMachine = "<Peers><Peer address=\"127.0.0.1\"/></Peers>";

std::string Configuration(const DdsSettings& settings, std::string_view ports) {
  std::string xml = "<CycloneDDS><Domain>";
  if (settings.thisMachineOnly) xml += kNoMulticast;
  xml += "<Discovery>";
  xml += ports;
  if (settings.thisMachineOnly) xml += kThisMachine;
  xml += "</Discovery></Domain></CycloneDDS>";
  if (!settings.userConfiguration.empty()) xml += "," + settings.userConfiguration;
  return xml;
}

dds_entity_t CreateParticipant(std::uint32_t domain) {
  const Qos qos = NewQos();
  constexpr std::string_view kRosNode = "enclave=/;";
  dds_qset_userdata(qos.get(), kRosNode.data(), kRosNode.size());
  return dds_create_participant(domain, qos.get(), nullptr);
}

std::string Complain(std::uint32_t domain, dds_return_t code) {
  std::string text =
      "ROS domain " + std::to_string(domain) + " cannot be joined: " + dds_strretcode(code);
  LibraryLines& lines = Lines();
  const std::lock_guard<std::mutex> held(lines.lock);
  if (!lines.last.empty()) text += " (" + lines.last + ")";
  return text;
}

void ShowLines(const std::function<void(const std::string&)>& say) {
  LibraryLines& lines = Lines();
  const std::lock_guard<std::mutex> held(lines.lock);
  lines.say = say;
}

}  // namespace

std::unique_ptr<DdsParticipant> DdsParticipant::Join(const DdsSettings& settings,
                                                     std::string& complaint) {
  dds_set_log_sink(&Say, nullptr);
  dds_entity_t domain =
      dds_create_domain(settings.domain, Configuration(settings, kFixedPorts).c_str());
  if (domain < 0 && !settings.thisMachineOnly) {
    // All 33 may be taken. Nodes that multicast find us at any port.
    domain = dds_create_domain(settings.domain, Configuration(settings, kAnyPorts).c_str());
  }
  const dds_entity_t participant = domain < 0 ? domain : CreateParticipant(settings.domain);
  if (participant < 0) {  // told in one line
    complaint = Complain(settings.domain, participant);
    if (domain >= 0) dds_delete(domain);
    return nullptr;
  }
  ShowLines(settings.say);
  return std::unique_ptr<DdsParticipant>(new DdsParticipant(domain, participant));
}

DdsParticipant::~DdsParticipant() {
  dds_delete(participant_);
  dds_delete(domain_);
  ShowLines({});
}

std::unique_ptr<DdsWriter> DdsParticipant::CreateWriter(const dds_topic_descriptor_t& type,
                                                        const std::string& topicName,
                                                        const std::string& typeHash, int depth) {
  std::unique_ptr<DdsWriter> made(new DdsWriter(subscribers_));
  const dds_entity_t topic =
      dds_create_topic(participant_, &type, topicName.c_str(), nullptr, nullptr);
  const Qos qos = NewQos();
  // Reliable: ROS 2's usual subscriber asks for it, and one that asks for less is content too. The
  // time is how long a writer without room may wait.
  dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, 0);
  dds_qset_durability(qos.get(), DDS_DURABILITY_VOLATILE);
  dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, depth);
  dds_qset_writer_data_lifecycle(qos.get(), false);
  dds_data_representation_id_t plainCdr = DDS_DATA_REPRESENTATION_XCDR1;
  dds_qset_data_representation(qos.get(), 1, &plainCdr);
  const std::string userData = "typehash=" + typeHash + ";";
  dds_qset_userdata(qos.get(), userData.data(), userData.size());
  const std::unique_ptr<dds_listener_t, decltype(&dds_delete_listener)> listener(
      dds_create_listener(made.get()), &dds_delete_listener);
  dds_lset_publication_matched(listener.get(), &DdsWriter::NoteMatch);
  made->writer_ =
      topic < 0 ? topic : dds_create_writer(participant_, topic, qos.get(), listener.get());
  if (topic >= 0) dds_delete(topic);  // the writer keeps it for as long as it needs it
  return made;
}

// ---- A writer -----------------------------------------------------------------------------------

DdsWriter::~DdsWriter() {
  if (writer_ > 0) dds_delete(writer_);
}

void DdsWriter::NoteMatch(dds_entity_t, dds_publication_matched_status_t status, void* object) {
  auto& writer = *static_cast<DdsWriter*>(object);
  writer.subscribers_ += status.current_count_change;
  writer.all_ += status.current_count_change;
}

DdsWriter::Outcome DdsWriter::Write(const void* message) {
  if (writer_ > 0 && subscribers_ == 0) return Outcome::Unheard;
  const dds_return_t result = writer_ > 0 ? dds_write(writer_, message) : writer_;
  if (result == DDS_RETCODE_OK) return Outcome::Sent;
  failure_ = result;
  return Outcome::Dropped;
}

void DdsWriter::AwaitAcknowledgements(dds_time_t until) {
  const dds_duration_t rest = until - dds_time();
  if (writer_ > 0 && rest > 0) dds_wait_for_acks(writer_, rest);
}

std::string DdsWriter::Trouble() const { return dds_strretcode(failure_); }

}  // namespace kinetrel::bridge
