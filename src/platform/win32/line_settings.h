// Converts between the system's record of a serial line and the settings of platform/serial_line.h.
#pragma once

#include <windows.h>

#include "platform/serial_line.h"

namespace kinetrel {

Status ReadLine(HANDLE line, DCB& record);
Status WriteLine(HANDLE line, DCB& record);

// Bytes pass unchanged. DTR and RTS are raised; rate and framing stay.
void MakeRaw(DCB& record);

// dtrRaised  whether DTR is up now; used when the settings do not change it.
void PutSettings(const LineSettings& settings, bool dtrRaised, DCB& record);

LineSettings GetSettings(const DCB& record);

}  // namespace kinetrel
