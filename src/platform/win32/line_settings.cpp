#include "platform/win32/line_settings.h"

#include "platform/win32/os.h"

namespace kinetrel {
namespace {

ModemControl ControlOf(DWORD bits) { return static_cast<ModemControl>(bits & 3U); }

// The system's record has signed characters.
char AsChar(std::uint8_t byte) { return static_cast<char>(byte); }

}  // namespace

Status ReadLine(HANDLE line, DCB& record) {
  record = {};
  record.DCBlength = sizeof record;
  if (::GetCommState(line, &record)) return {};
  return StatusOfLastError("read the line settings");
}

Status WriteLine(HANDLE line, DCB& record) {
  if (::SetCommState(line, &record)) return {};
  return StatusOfLastError("set the line settings");
}

// An error must not stop the line until it is cleared: the tracker's next record is good again.
void MakeRaw(DCB& record) {
  record.fBinary = 1;
  record.fNull = 0;
  record.fErrorChar = 0;
  record.fAbortOnError = 0;
  record.fDtrControl = DTR_CONTROL_ENABLE;
  record.fRtsControl = RTS_CONTROL_ENABLE;
}

void PutSettings(const LineSettings& settings, bool dtrRaised, DCB& record) {
  const bool raise = settings.dtr == ModemControl::Off && dtrRaised;
  const ModemControl dtr = raise ? ModemControl::On : settings.dtr;
  record.BaudRate = settings.baud;
  record.ByteSize = settings.byteSize;
  record.Parity = static_cast<BYTE>(settings.parity);
  record.fParity = settings.parity != Parity::None;
  record.StopBits = static_cast<BYTE>(settings.stopBits);
  record.fRtsControl = static_cast<unsigned>(settings.rts) & 3U;
  record.fDtrControl = static_cast<unsigned>(dtr) & 3U;
  record.fOutxCtsFlow = settings.ctsOutputFlow;
  record.fOutxDsrFlow = settings.dsrOutputFlow;
  record.fDsrSensitivity = settings.dsrSensitivity;
  record.fOutX = settings.xonXoffOutput;
  record.fInX = settings.xonXoffInput;
  record.fTXContinueOnXoff = settings.continueAfterXoff;
  record.XonChar = AsChar(settings.xonChar);
  record.XoffChar = AsChar(settings.xoffChar);
  record.XonLim = settings.xonLimit;
  record.XoffLim = settings.xoffLimit;
}

LineSettings GetSettings(const DCB& record) {
  LineSettings settings;
  settings.baud = record.BaudRate;
  settings.byteSize = record.ByteSize;
  settings.parity = static_cast<Parity>(record.Parity);
  settings.stopBits = static_cast<StopBits>(record.StopBits);
  settings.rts = ControlOf(record.fRtsControl);
  settings.dtr = ControlOf(record.fDtrControl);
  settings.ctsOutputFlow = record.fOutxCtsFlow != 0;
  settings.dsrOutputFlow = record.fOutxDsrFlow != 0;
  settings.dsrSensitivity = record.fDsrSensitivity != 0;
  settings.xonXoffOutput = record.fOutX != 0;
  settings.xonXoffInput = record.fInX != 0;
  settings.continueAfterXoff = record.fTXContinueOnXoff != 0;
  settings.xonChar = static_cast<std::uint8_t>(record.XonChar);
  settings.xoffChar = static_cast<std::uint8_t>(record.XoffChar);
  settings.xonLimit = record.XonLim;
  settings.xoffLimit = record.XoffLim;
  return settings;
}

}  // namespace kinetrel
