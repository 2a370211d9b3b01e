// Ascension Flock of Birds, or a single Bird: binary commands and 14-bit words at 115200 baud.
//
// A position/angles record is 12 bytes: six words of two bytes, 7 bits in each, low first, as a
// signed number of 14 bits. Bit 7 is set in the first byte of a record and in no other.
//   offset  word       unit                       our axis
//   0       x          144 inch / 8192            x
//   2       y          144 inch / 8192            -y
//   4       z          144 inch / 8192            -z
//   6       azimuth    pi / 8192, about z         -yaw
//   8       elevation  pi / 8192, about y         -pitch
//   10      roll       pi / 8192, about x         roll
// There is no checksum: a changed byte that is not marked as the first one goes unnoticed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "devices/record_window.h"
#include "devices/tracker_device.h"

namespace kinetrel {

inline constexpr std::size_t kFlockRecordSize = 12;

// The six words in units of a quarter: -32768 to 32764, so that 32768 is the full scale.
std::array<int, 6> DecodeFlockRecord(std::span<const std::byte, kFlockRecordSize> record);

// How many of 12 bytes lie before the start of a record; 0 also when no start is marked, as a line
// of 7 data bits strips the marks.
std::size_t FindFlockRecord(std::span<const std::byte, kFlockRecordSize> bytes);

// What the flock says about itself.
struct FlockParameters {
  std::uint16_t systemStatus = 0;
  unsigned measurementRate = 0;  // measurements a second
  unsigned errorCode = 0;
  bool groupMode = false;
  float softwareRevision = 0;
  float sampleRate = 0;
  float crystalSpeed = 0;                      // Hz
  std::array<std::uint8_t, 14> flockStatus{};  // a byte for each address of the bus
  std::array<std::uint8_t, 5> autoConfig{};    // as last read while booting
  std::array<std::uint8_t, 5> fbbConfig{};     // the same, as last queried
  std::array<char, 11> modelId{};              // as the bird sent it
};

class FlockDevice final : public TrackerDevice {
 public:
  FlockDevice();

  // Opens the port at 115200 baud, whatever is asked for: a bird has no other rate for us.
  int OpenPort(const char* name, int baud) override;

  // Waits for the master bird (5 s, less for one that was there before), configures three birds
  // and prints what the flock says about itself. A bird that still streams is stopped first.
  //
  // Returns  kBooted; 0 when no bird answers, it has no status, its error cannot be read, the line
  //          breaks, or memory runs out.
  BootResult Boot(int reset) override;

  // Reads every parameter anew; see parameters(). Writes no text and returns 0.
  int QueryStatus(char* text, int size) override;

  // Reads one record into sensor 0; the others keep theirs.
  //
  // Returns  1, or 0 when no whole record came in time. A record that was cut or shifted is
  //          dropped whole and the next one read where its start is marked.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;
  void StartContinuous() override;

  // 0 inch, 1 centimetre, 3 metre; for any other value inches, as everywhere. Returns 1.
  int SetUnits(int units) override;

  unsigned SetComponentMask(unsigned mask) override;  // always position and angles; returns 0

  // Tells the bird at address `sensor` (0 to 14), or all on the bus (-1), on which side of the
  // transmitter it is: the axis of `zenith` that is exactly 1 or -1. Returns 0.
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
  bool HaveRecord();

  FlockParameters parameters_;
  RecordWindow window_;
  bool answerDue_ = false;  // polled, and the answer not read
  bool known_ = false;      // has booted before
};

}  // namespace kinetrel
