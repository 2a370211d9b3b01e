// This program's place in a DDS domain, where ROS 2's nodes find it.
#pragma once

#include <dds/dds.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kinetrel::bridge {

struct DdsSettings {
  std::uint32_t domain = 0;       // ROS_DOMAIN_ID
  bool thisMachineOnly = false;   // is found by and sends to nodes on this machine only
  std::string userConfiguration;  // of Cyclone DDS, as CYCLONEDDS_URI has it; it wins over ours
  std::function<void(const std::string&)> say;  // gets the library's lines; must not wait
};

// A writer as ROS 2's own are: one that answers for messages that were lost, and that does not
// wait.
class DdsWriter {
 public:
  enum class Outcome {
    Sent,     // to the network
    Unheard,  // no subscriber has found the topic yet; nothing was done
    Dropped,  // see Trouble
  };

  ~DdsWriter();
  DdsWriter(const DdsWriter&) = delete;
  DdsWriter& operator=(const DdsWriter&) = delete;

  // message  of the type that the writer was made for; not used after the call.
  // Threads  any.
  Outcome Write(const void* message);

  // Waits until the subscribers have what was sent.
  // until  of dds_time(): when it gives up
  void AwaitAcknowledgements(dds_time_t until);

  std::string Trouble() const;  // of the newest message that was dropped

 private:
  friend class DdsParticipant;
  explicit DdsWriter(std::atomic<int>& subscribers) : all_(subscribers) {}

  static void NoteMatch(dds_entity_t writer, dds_publication_matched_status_t status, void* object);

  dds_entity_t writer_ = 0;  // negative: why it could not be made
  std::atomic<int> subscribers_{0};
  std::atomic<int>& all_;  // of all writers
  std::atomic<dds_return_t> failure_{DDS_RETCODE_OK};
};

inline constexpr std::uint32_t kLargestDomain = 232;  // the next one's ports are past 65535

// Threads  any; the library has threads of its own, which send what is repeated and discover
// readers.
class DdsParticipant {
 public:
  // Joins the domain; one participant in a process.
  // complaint  receives one line when the result is null.
  static std::unique_ptr<DdsParticipant> Join(const DdsSettings& settings, std::string& complaint);

  ~DdsParticipant();  // says good-bye, so that readers know at once
  DdsParticipant(const DdsParticipant&) = delete;
  DdsParticipant& operator=(const DdsParticipant&) = delete;

  // type      descriptor that idlc made
  // topic     with ROS 2's prefix rt/
  // typeHash  of the message's description: RIHS01_ and 64 digits
  // depth     how many messages are kept for readers that missed them
  // Returns   never null; a writer that could not be made drops its messages. It goes before the
  //           participant.
  std::unique_ptr<DdsWriter> CreateWriter(const dds_topic_descriptor_t& type,
                                          const std::string& topic, const std::string& typeHash,
                                          int depth);

  // Of all writers; a program that subscribes to two topics counts twice.
  int Subscribers() const { return subscribers_; }

 private:
  DdsParticipant(dds_entity_t domain, dds_entity_t participant)
      : domain_(domain), participant_(participant) {}

  const dds_entity_t domain_;
  const dds_entity_t participant_;
  std::atomic<int> subscribers_{0};
};

}  // namespace kinetrel::bridge
