// A subscriber of another DDS vendor, in a process of its own: a ROS 2 node as far as DDS sees one.
//   kinetrel-test-fastdds TOPIC TYPE RELIABILITY [confined]
//     RELIABILITY  reliable or best-effort; the history is ROS 2's default, the last 10
//     confined     it calls nodes at localhost, as a ROS 2 node that is confined to its machine
// Prints one line for each thing it sees:
//   writer TOPIC TYPE reliable|best-effort volatile|transient-local USER-DATA
//   participant USER-DATA
//   matched COUNT
//   message HEX                 the payload as it came, the encapsulation included

#include <fastdds/rtps/participant/ParticipantDiscoveryInfo.h>
#include <fastdds/rtps/transport/UDPv4TransportDescriptor.h>
#include <fastdds/rtps/writer/WriterDiscoveryInfo.h>
#include <fastrtps/utils/IPLocator.h>
#include <fastdds/dds/domain/DomainParticipant.hpp>
#include <fastdds/dds/domain/DomainParticipantFactory.hpp>
#include <fastdds/dds/domain/DomainParticipantListener.hpp>
#include <fastdds/dds/subscriber/DataReader.hpp>
#include <fastdds/dds/subscriber/DataReaderListener.hpp>
#include <fastdds/dds/subscriber/SampleInfo.hpp>
#include <fastdds/dds/subscriber/Subscriber.hpp>
#include <fastdds/dds/topic/TopicDataType.hpp>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fast = eprosima::fastdds::dds;
namespace rtps = eprosima::fastrtps::rtps;
using ReturnCode = eprosima::fastrtps::types::ReturnCode_t;
using Bytes = std::vector<unsigned char>;

void Print(const std::string& line) {  // in one call: several threads print
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

// Keeps the bytes of a message as they came.
class RawMessage : public fast::TopicDataType {
 public:
  explicit RawMessage(const std::string& name) {
    setName(name.c_str());
    m_typeSize = 64 * 1024;
    m_isGetKeyDefined = false;
    auto_fill_type_object(false);
    auto_fill_type_information(false);
  }
  bool serialize(void*, rtps::SerializedPayload_t*) override { return false; }
  bool deserialize(rtps::SerializedPayload_t* payload, void* into) override {
    static_cast<Bytes*>(into)->assign(payload->data, payload->data + payload->length);
    return true;
  }
  std::function<std::uint32_t()> getSerializedSizeProvider(void*) override { return {}; }
  void* createData() override { return new Bytes; }
  void deleteData(void* data) override { delete static_cast<Bytes*>(data); }
  bool getKey(void*, rtps::InstanceHandle_t*, bool) override { return false; }
};

class Discovery : public fast::DomainParticipantListener {
  void on_publisher_discovery(fast::DomainParticipant*,
                              rtps::WriterDiscoveryInfo&& found) override {
    const auto& writer = found.info;
    const auto& data = writer.m_qos.m_userData;
    Print("writer " + writer.topicName().to_string() + " " + writer.typeName().to_string() +
          (writer.m_qos.m_reliability.kind == fast::RELIABLE_RELIABILITY_QOS ? " reliable"
                                                                             : " best-effort") +
          (writer.m_qos.m_durability.kind == fast::VOLATILE_DURABILITY_QOS ? " volatile "
                                                                           : " transient-local ") +
          std::string(data.begin(), data.end()));
  }
  void on_participant_discovery(fast::DomainParticipant*,
                                rtps::ParticipantDiscoveryInfo&& found) override {
    const auto& data = found.info.m_userData;
    Print("participant " + std::string(data.begin(), data.end()));
  }
};

class Printer : public fast::DataReaderListener {
  void on_subscription_matched(fast::DataReader*,
                               const fast::SubscriptionMatchedStatus& status) override {
    Print("matched " + std::to_string(status.current_count));
  }
  void on_data_available(fast::DataReader* reader) override {
    Bytes bytes;
    fast::SampleInfo info;
    while (reader->take_next_sample(&bytes, &info) == ReturnCode::RETCODE_OK) {
      if (!info.valid_data) continue;
      std::string line = "message ";
      for (const unsigned char byte : bytes) {
        line += "0123456789abcdef"[byte >> 4];
        line += "0123456789abcdef"[byte & 15];
      }
      Print(line);
    }
  }
};

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return 2;
  const std::string reliability = arguments[3];
  const char* const wanted = std::getenv("ROS_DOMAIN_ID");
  const auto domain = static_cast<std::uint32_t>(wanted == nullptr ? 0 : std::atoi(wanted));
  fast::DomainParticipantQos participantQos;
  // Not the shared memory that this vendor adds: it would leave the namespace.
  participantQos.transport().use_builtin_transports = false;
  participantQos.transport().user_transports.push_back(
      std::make_shared<eprosima::fastdds::rtps::UDPv4TransportDescriptor>());
  for (std::uint32_t index = 0; count > 4 && index < 33; ++index) {
    rtps::Locator_t place;
    rtps::IPLocator::setIPv4(place, 127, 0, 0, 1);
    place.port = 7410 + 250 * domain + 2 * index;
    participantQos.wire_protocol().builtin.initialPeersList.push_back(place);
  }
  Discovery discovery;
  auto* const participant = fast::DomainParticipantFactory::get_instance()->create_participant(
      domain, participantQos, &discovery, fast::StatusMask::none());
  if (participant == nullptr) return 1;
  fast::TypeSupport type(new RawMessage(arguments[2]));
  if (type.register_type(participant) != ReturnCode::RETCODE_OK) return 1;
  auto* const topic =
      participant->create_topic(arguments[1], arguments[2], fast::TOPIC_QOS_DEFAULT);
  auto* const subscriber = participant->create_subscriber(fast::SUBSCRIBER_QOS_DEFAULT);
  if (topic == nullptr || subscriber == nullptr) return 1;
  fast::DataReaderQos qos;
  qos.reliability().kind = reliability == "reliable" ? fast::RELIABLE_RELIABILITY_QOS
                                                     : fast::BEST_EFFORT_RELIABILITY_QOS;
  qos.history().kind = fast::KEEP_LAST_HISTORY_QOS;
  qos.history().depth = 10;
  Printer printer;
  if (subscriber->create_datareader(topic, qos, &printer) == nullptr) return 1;
  Print("ready");
  while (std::getchar() != EOF) {
  }
  std::_Exit(0);  // the end of standard input: the test has what it wants
}
