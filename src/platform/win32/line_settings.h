// The system's record of a serial line's settings, and what of it stands for ours.
#pragma once

#include <windows.h>

#include "platform/serial_line.h"

namespace kinetrel {

Status ReadLine(HANDLE line, DCB& record);
Status WriteLine(HANDLE line, DCB& record);

// Bytes pass as they are. DTR and RTS are raised; rate and framing stay.
void MakeRaw(DCB& record);

// dtrRaised  where the settings leave DTR alone: whether it is up.
void PutSettings(const LineSettings& settings, bool dtrRaised, DCB& record);

LineSettings GetSettings(const DCB& record);

}  // namespace kinetrel
