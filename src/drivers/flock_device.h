// Ascension Flock of Birds, or a single Bird: binary commands and 14-bit words at 115200 baud.
//
// A position/angles record has 12 bytes: six signed 14-bit words. A word is two bytes of 7 bits,
// low byte first. Bit 7 is set only in the first byte of a record.
//   offset  word       unit                       our axis
//   0       x          144 inch / 8192            x
//   2       y          144 inch / 8192            -y
//   4       z          144 inch / 8192            -z
//   6       azimuth    pi / 8192, about z         -yaw
//   8       elevation  pi / 8192, about y         -pitch
//   10      roll       pi / 8192, about x         roll
// A record has no checksum: a changed byte is noticed only if its bit 7 is wrong.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "devices/motion_gate.h"
#include "devices/stream_backlog.h"
#include "devices/tracker_device.h"

namespace kinetrel {

inline constexpr std::size_t kFlockRecordSize = 12;

// The six words in units of a quarter: -32768 to 32764, so that 32768 is the full scale.
std::array<int, 6> DecodeFlockRecord(std::span<const std::byte, kFlockRecordSize> record);

// Returns how many of 12 bytes lie before the start of a record. 0 also if no start is marked: a
// line of 7 data bits removes the marks.
std::size_t FindFlockRecord(std::span<const std::byte, kFlockRecordSize> bytes);

// What the flock reports about itself.
struct FlockParameters {
  std::uint16_t systemStatus = 0;
  unsigned measurementRate = 0;  // measurements a second
  unsigned errorCode = 0;
  bool groupMode = false;
  float softwareRevision = 0;
  float sampleRate = 0;
  float crystalSpeed = 0;                      // Hz
  std::array<std::uint8_t, 14> flockStatus{};  // a byte for each address of the bus
  std::array<std::uint8_t, 5> autoConfig{};    // read by Boot
  std::array<std::uint8_t, 5> fbbConfig{};     // the same, read by QueryStatus
  std::array<char, 11> modelId{};              // as the bird sent it
};

class FlockDevice final : public TrackerDevice {
 public:
  FlockDevice();

  // Opens the port at 115200 baud and ignores `baud`.
  int OpenPort(const char* name, int baud) override;

  // Waits for the master bird (5 s; 2 s if it has booted before), configures three birds and prints
  // what the flock reports about itself. Stops a bird that still streams.
  //
  // Returns  kBooted; 0 if no bird answers, its status is 0, its error cannot be read, the line
  //          breaks, or memory runs out.
  BootResult Boot(int reset) override;

  // Reads every parameter again; see parameters(). Writes no text and returns 0.
  int QueryStatus(char* text, int size) override;

  // Reads one record into sensor 0; the other sensors stay as they are.
  //
  // Returns  1, or 0 if no whole record came in time. A cut or shifted record is dropped; the next
  //          one is read from its mark on.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;
  void StartContinuous() override;

  // A mask without sensor 1 becomes sensor 1, and the console says so.
  unsigned SetSensorMask(unsigned mask, int sensorCount) override;

  // 0 inch, 1 centimetre, 3 metre; any other value means inches. Returns 1.
  int SetUnits(int units) override;

  unsigned SetComponentMask(unsigned mask) override;  // always position and angles; returns 0

  // Sets the hemisphere of the bird at address `sensor` (0 to 14), or of all birds on the bus (-1):
  // the axis of `zenith` that is exactly 1 or -1, else +x. Returns 0.
  int SetHemisphere(int sensor, const float zenith[3]) override;

  const FlockParameters& parameters() const { return parameters_; }

 private:
  enum class Parameter : std::uint8_t;
  class QuietLine;

  void StartOver();
  std::uint16_t AwaitMaster();
  bool ReportBirdError();
  void ConfigureBus();
  void PrintParameters() const;

  std::size_t Ask(Parameter parameter, std::span<std::uint8_t> into);
  std::size_t Ask(Parameter parameter, std::span<std::uint8_t> into, int patience);
  unsigned AskWord(Parameter parameter);
  unsigned AskByte(Parameter parameter);

  void DiscardInput();
  void AwaitSilence();
  void DropLateAnswer();
  bool FetchRecord();
  bool TakeRecord(double time);

  FlockParameters parameters_;
  RecordWindow window_;
  StreamBacklog backlog_;
  MotionGate gate_;
  bool answerDue_ = false;  // polled, and the answer has not been read
  bool known_ = false;      // has booted before
};

}  // namespace kinetrel
