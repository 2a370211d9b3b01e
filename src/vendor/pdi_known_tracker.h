// A Liberty that needs no hardware: its frames come by the clock, and each pose tells the number of
// its frame.
//   KINETREL_PDI_STATIONS  the mask of the stations that have a sensor; default 15, the first four
//   KINETREL_PDI_MAP       the station map that it reports instead of the true one
//   KINETREL_PDI_BIT       the first word of its built-in test, until the test is cleared
//   KINETREL_PDI_FRAMES    faults, separated by commas:
//                            "stall@500+50"  the same frame for 50 periods from frame 500 on
//                            "jump@500+7"    7 frames are missing at frame 500
//                            "lost@500+50"   no connection for 50 periods
//                            "null@500"      a frame without an address
//                            "short@500"     a frame cut in half
//                            "lie@500"       a frame that is said to be 4 GiB long
//                            "move@500"      each call returns another address, and the memory of
//                                            the call before is gone
#pragma once

#include <memory>

#include "drivers/liberty_line.h"

namespace kinetrel::substitute {

std::unique_ptr<LibertyTracker> MakeKnownTracker();

}  // namespace kinetrel::substitute
