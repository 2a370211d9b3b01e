// Waking and identifying a unit of the FASTRAK family.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>

#include "devices/bounded_text.h"
#include "drivers/fastrak_device.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

// True while a unit boots: commands that need a booted unit are then sent too. One flag for the
// process, because only one device of this family boots at a time.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
std::atomic<bool> bootInProgress{false};

class BootInProgress {
 public:
  BootInProgress() { bootInProgress = true; }
  ~BootInProgress() { bootInProgress = false; }
  BootInProgress(const BootInProgress&) = delete;
  BootInProgress& operator=(const BootInProgress&) = delete;
};

constexpr BootResult kNoAnswerAfterReset = -11;

constexpr unsigned kLetterPause = 2;      // ms after a single letter
constexpr int kFirstReplyMs = 200;        // how long the first answer may take
constexpr int kKnownReplyMs = 1500;       // the same for a unit that was there before
constexpr int kBootsBeforeSearch = 8;     // of a unit that was there before, at its own rate
constexpr int kSlowReplyMs = 200;         // a slow adapter delays the status record
constexpr int kMostStatusPasses = 16;     // each clears one test error
constexpr std::size_t kLongFailure = 48;  // characters; a longer text means that the unit answered

constexpr Milliseconds kSearchPatience{2000};

// Rates that units of this family are set to; tried after the rate the port was opened with.
constexpr int kOtherRates[] = {9600, 19200, 38400, 57600, 115200};

}  // namespace

bool FastrakDevice::AcceptsCommands() { return bootInProgress || IsBooted(); }

// ---- Boot ----------------------------------------------------------------------------------

BootResult FastrakDevice::Boot(int reset) {
  if (portStatus() != PortStatus::Simulated && !HasHandle()) return kPortNotOpen;
  SetHandshake(0);
  const BootInProgress inProgress;
  booted_ = false;
  lastModeByte_ = 0;
  window_.Clear();
  FreeSensors();
  SetReadTimeouts(10, 2, 3);
  if (const int baud = static_cast<int>(GetBaudRate()); HasHandle() && baud > 0) {
    const int perByte = 1000000 / baud + 1;
    SetReadTimeouts(3 * perByte, perByte, 2 * perByte);
  }
  const BootResult found =
      knownRate_ > 0 && failedBoots_ < kBootsBeforeSearch ? FindKnownUnit(reset) : FindUnit(reset);
  failedBoots_ = found == kBooted ? 0 : failedBoots_ + 1;
  if (found != kBooted) return found;
  knownRate_ = static_cast<int>(GetBaudRate());
  return Configure();
}

// A unit that was there before is asked at its own rate only. At any other rate it receives noise,
// and one byte of that may be the Ctrl-Y that restarts it. It may also be restarting at present:
// then it answers after some seconds what it received meanwhile.
BootResult FastrakDevice::FindKnownUnit(int reset) {
  if (static_cast<int>(GetBaudRate()) != knownRate_) SetLineSettings(knownRate_, 8, 0, 0, 0);
  std::array<char, 2048> failure{};
  const BootResult found = Identify(reset, kKnownReplyMs, failure);
  if (found != kBooted) PrintError("%s", failure.data());
  return found;
}

// A unit whose switches are set to another rate answers nothing, or noise. So the other rates are
// tried too. The read time-outs are long enough for all rates.
BootResult FastrakDevice::FindUnit(int reset) {
  const Deadline patience(kSearchPatience);  // for a line that carries only noise
  std::array<char, 2048> failure{};
  const BootResult first = Identify(reset, kFirstReplyMs, failure);
  const bool hopeless = first == kReadFailed || first == kNoAnswerAfterReset;
  if (first == kBooted || hopeless) return first;
  const int opened = static_cast<int>(GetBaudRate());
  for (const int rate : kOtherRates) {
    if (patience.Passed()) break;
    if (rate == opened || !SetLineSettings(rate, 8, 0, 0, 0)) continue;
    PurgeInput();
    std::array<char, 2048> text;
    if (Identify(reset, kFirstReplyMs, text) != kBooted) continue;
    Post(statusLog_, StatusCode::Setup, "The unit is set to %d baud.", rate);
    return kBooted;
  }
  SetLineSettings(opened, 8, 0, 0, 0);
  PrintError("%s", failure.data());
  return first;
}

// failure  receives the text of a failed status query.
BootResult FastrakDevice::Identify(int reset, int patienceMs, std::span<char> failure) {
  if (const BootResult woken = WakeUnit(patienceMs); woken != kBooted) return woken;
  SilenceUnit();
  if (reset != 0 && !Reinitialize()) return kNoAnswerAfterReset;
  if (QueryStatus(failure.data(), static_cast<int>(failure.size())) != 0) return kBooted;
  if (std::strlen(failure.data()) < kLongFailure) return kNoResponse;
  return (statusWord_ & kFastrakFromStart) != 0 ? kNoStatus : kNoSensors;
}

// Ends streaming and any half-sent command, then asks for a record.
BootResult FastrakDevice::WakeUnit(int patienceMs) {
  Write("c", 1);
  Write("\r", 1);
  FlushOutput();
  Write("P", 1);
  return WaitForReply(patienceMs);
}

// A silent line is read for one byte only: the time-out of a longer read would be seconds.
BootResult FastrakDevice::WaitForReply(int timeoutMs) {
  std::array<char, 250> reply;
  unsigned got = 0;
  const bool came = WaitForRX(timeoutMs, 1);
  const unsigned wanted = came ? static_cast<unsigned>(reply.size()) : 1;
  if (!ReadSome(reply.data(), wanted, &got)) return kReadFailed;
  return got > 0 ? JudgeFastrakReply({reply.data(), got}) : kTimedOut;
}

// A streaming unit with half a command pending takes our 'c' as the end of that command and goes on
// streaming. So 'c' is sent again.
void FastrakDevice::SilenceUnit() {
  for (int round = 0; round < 3; ++round) {
    PurgeInput();
    if (!WaitForRX(kFastrakQuietMs, 1)) return;
    Write("c", 1);
    FlushOutput();
  }
}

// Ctrl-Y restarts the unit. It does not listen for some seconds, then it answers the 'S'.
bool FastrakDevice::Reinitialize() {
  constexpr int kTries = 200;
  constexpr unsigned kTryMs = 100;
  PurgeInput();
  WriteCommand("\x19", kLetterPause);
  Write("S", 1);
  for (int i = 0; i < kTries; ++i) {
    if (InputQueueLength() > 0) {
      PurgeInput();
      return true;
    }
    Pause(kTryMs);
  }
  return false;
}

BootResult FastrakDevice::Configure() {
  if ((statusWord_ & kFastrakParsed) == 0) return kUnrecognizedProduct;
  const FastrakProduct& model = FindFastrakProduct(Model());
  TakeModel(model);
  if (IsFastrakClass()) {
    ConfigureFastrak(model.stations);
  } else {
    ConfigureIsotrak();
  }
  SetSensorMask(sensorMask_, model.stations);
  SetUnits(units_);
  WriteCommand("f", kLetterPause);  // binary
  WriteCommand("c", kLetterPause);
  FlushOutput();
  PurgeAll();
  std::array<char, 128> text;
  if (QueryStatus(text.data(), static_cast<int>(text.size())) == 0) {
    ReadString(text.data(), static_cast<int>(text.size()), '\0');
    return kInitializationFailed;
  }
  if (!AllocateSensors(static_cast<unsigned>(model.stations))) return kStorageFailed;
  LayOutRecords();
  booted_ = true;
  return kBooted;
}

void FastrakDevice::TakeModel(const FastrakProduct& model) {
  totalFrameRate_ = model.frameRate;
  protocol_ = static_cast<int>(model.protocol);
  modelFormat_ = model.format;
  SetName(model.name);
  deviceType_ = static_cast<int>(Model() << 16) + model.stations;
}

void FastrakDevice::ConfigureFastrak(int stations) {
  constexpr unsigned kFourStations = 0xF;
  SendStationCommand(crLf_ != 0 ? "O1, 2, 4,1\r" : "O1,2,4\r", kFourStations, stations);
  SendStationCommand("R1\r", kFourStations, stations);
  if (Model() == kFastrakProper) SendStationCommand("N1,0,0,0\r", kFourStations, stations);
}

void FastrakDevice::ConfigureIsotrak() {
  WriteCommand("K", kLetterPause);
  WriteCommand("R1\r", kLetterPause);
  WriteCommand(crLf_ != 0 ? "O2,4,1\r" : "O2,4\r", kLetterPause);
}

// ---- Status --------------------------------------------------------------------------------

// The answer to 'S', always terminated.
struct FastrakDevice::Reply {
  std::array<char, 256> text{};
  unsigned size = 0;

  std::string_view view() const { return {text.data(), size}; }
};

int FastrakDevice::QueryStatus(char* text, int size) {
  if (!AcceptsCommands()) return 0;
  const QuietLine quiet(*this);  // the answer would be lost between the records
  const std::uint32_t wordBefore = statusWord_;
  Reply reply;
  std::array<char, 2048> room;
  TextAppender diagnosis(room);
  const bool found = ClearBitErrors(reply, diagnosis);
  // A booted unit that fails to answer once is still the same model.
  if (!found && booted_) statusWord_ = wordBefore;
  CopyTruncated(text, size, found ? reply.text.data() : diagnosis.c_str());
  return found ? 1 : 0;
}

// The unit reports one error at a time.
bool FastrakDevice::ClearBitErrors(Reply& reply, TextAppender& diagnosis) {
  bool found = false;
  for (int attempt = 0; attempt < kMostStatusPasses; ++attempt) {
    const FastrakStatusRecord status = QueryOnce(reply, diagnosis);
    found = status.found;
    const int error = status.bitError;
    if (error == 0) return found;
    diagnosis.AppendF("%d: Cleared bit error %d: %s\n", attempt, error, BitErrorText(error));
    Post(statusLog_, found ? StatusCode::Progress : StatusCode::Report,
         "%d: Cleared bit error %d: %s", attempt, error, BitErrorText(error));
    ClearBitError(error);
  }
  diagnosis.AppendF("Maximum number of errors reached.  Current status: \n%s", reply.text.data());
  Post(statusLog_, StatusCode::DeviceErrorLimit, "Maximum number of errors reached.");
  Post(statusLog_, StatusCode::DeviceErrorLimit, "Status: %s", reply.text.data());
  return found;
}

FastrakStatusRecord FastrakDevice::QueryOnce(Reply& reply, TextAppender& diagnosis) {
  const bool answered = RequestStatus(reply);
  const FastrakStatusRecord status =
      answered ? ParseFastrakStatus(reply.view()) : FastrakStatusRecord{};
  statusWord_ = status.word;
  if (status.found) return status;
  if (answered) {
    const int reason = static_cast<int>(status.fault);
    diagnosis.AppendF("Failed. %u bytes read, reason: %d\n", reply.size, reason);
    Post(statusLog_, StatusCode::Report, "Failed. %u bytes read, reason: %d", reply.size, reason);
  }
  if (reply.text[0] != 'F') {
    diagnosis.Append("WaitForRX failed.\n");
    Post(statusLog_, StatusCode::Report, "WaitForRX failed");
  }
  return status;
}

bool FastrakDevice::RequestStatus(Reply& reply) {
  constexpr unsigned kMostOfIt = 30;  // bytes of a status record
  reply = Reply{};
  PurgeInput();
  Write("S", 1);
  FlushOutput();
  const unsigned baud = GetBaudRate();
  for (int i = 0; i < 3 && InputQueueLength() <= kMostOfIt; ++i) {
    if (baud > 0) Pause(800000 / baud + 1);
  }
  if (InputQueueLength() > 0 || WaitForRX(kSlowReplyMs, 1)) return ReadReply(reply);
  constexpr int kShortest = 20;
  const int length = ReadString(reply.text.data(), static_cast<int>(reply.text.size()), '\r');
  reply.size = static_cast<unsigned>(std::max(length, 0));
  return length >= kShortest;
}

// False if nothing was read, or if the unit goes on sending: a status record ends.
bool FastrakDevice::ReadReply(Reply& reply) {
  const auto room = static_cast<unsigned>(reply.text.size()) - 1;
  for (int i = 0; i < 6 && reply.size == 0; ++i) ReadSome(reply.text.data(), room, &reply.size);
  return reply.size > 0 && InputQueueLength() == 0;
}

bool FastrakDevice::ClearBitError(int code) {
  if (code == 0) return true;
  if (code < kFirstBitError || code > kLastBitError) return false;
  std::array<char, 16> room;
  TextAppender command(room);
  command.AppendF("T%d,0\n", code);  // LF: the unit reports an error for a CR
  const unsigned baud = GetBaudRate();
  WriteCommand(command.c_str(), baud > 0 ? 200000 / baud + 1 : 0);
  return true;
}

}  // namespace kinetrel
