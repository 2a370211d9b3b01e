// The C interface of the InterSense library as our substitute implements it: the same names and
// record layouts, in 32-bit words of the machine's byte order. Reserved words stay zero.
#pragma once

#include <cstdint>

namespace kinetrel::substitute {

inline constexpr int kStations = 8;
inline constexpr int kDataSize = 1088;

struct TrackerWords {
  float version;
  std::uint32_t type, model, port, recordsPerSecond;
  float kBitsPerSecond;
  std::uint32_t syncState;
  float syncRate;
  std::uint32_t syncPhase, interface, reserved[11];
};
static_assert(sizeof(TrackerWords) == 21 * 4);

struct StationWords {
  std::uint32_t id, state, compass, inertiaCube, enhancement, sensitivity, prediction;
  std::uint32_t angleFormat;  // 1 Euler, 2 quaternion
  std::uint32_t timeStamped, reserved9, encoderData, reserved11, coordFrame, reserved13[7];
  std::uint32_t cameraData, reserved21[3];
};
static_assert(sizeof(StationWords) == 24 * 4);

struct StationBlock {
  std::uint8_t status, newData, reserved2[2];
  float orientation[4];
  std::uint8_t reserved20[116];
};
struct DataBlock {
  StationBlock stations[kStations];
};
static_assert(sizeof(DataBlock) == kDataSize);

}  // namespace kinetrel::substitute

extern "C" {
int ISD_OpenTracker(void* window, std::uint32_t port, int infoScreen, int verbose);
std::uint32_t ISD_OpenAllTrackers(void* window, int* handles, int infoScreen, int verbose);
int ISD_CloseTracker(int handle);
int ISD_GetCommInfo(int handle, kinetrel::substitute::TrackerWords* info);
int ISD_GetTrackerConfig(int handle, kinetrel::substitute::TrackerWords* info, int verbose);
int ISD_SetTrackerConfig(int handle, kinetrel::substitute::TrackerWords* info, int verbose);
int ISD_GetStationConfig(int handle, kinetrel::substitute::StationWords* info,
                         std::uint16_t station, int verbose);
int ISD_SetStationConfig(int handle, kinetrel::substitute::StationWords* info,
                         std::uint16_t station, int verbose);
int ISD_GetData(int handle, kinetrel::substitute::DataBlock* data);
int ISD_GetCameraData(int handle, void* data);
int ISD_SendScript(int handle, const char* script);
int ISD_NumOpenTrackers(std::uint16_t* count);
int ISD_ResetHeading(int handle, std::uint16_t station);
int ISD_Boresight(int handle, std::uint16_t station, int on);
int ISD_BoresightReferenced(int handle, std::uint16_t station, float yaw, float pitch, float roll);
float ISD_GetTime();
int ISD_ConfigureFromFile(int handle, const char* path, int verbose);
int ISD_AuxOutput(int handle, std::uint8_t station, std::uint8_t* bytes, std::uint32_t count);
int ISD_UdpBroadcastData(int handle, std::uint32_t port, kinetrel::substitute::DataBlock* data,
                         void* cameraData);
int ISD_GetSystemHardwareInfo(int handle, void* info);
}
