// kinetrel-calibrate: measures a room, a tool or a distortion, and writes filters for kinetrel.
#include "calibrate/calibration.h"
#include "program/program.h"

int main(int count, char** arguments) {
  return kinetrel::RunProgram("kinetrel-calibrate", [&] {
    const auto command = kinetrel::calibrate::ParseCalibrateCommand(count, arguments);
    return command.ending ? Print(*command.ending, "kinetrel-calibrate")
                          : kinetrel::calibrate::Calibrate(command.options);
  });
}
