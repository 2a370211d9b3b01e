/* What a running Kinetrel publishes into shared memory: the block, its names and its rules.
 *
 * A tracker publishes into one slot (option -w, 1 to 16). A slot has 16 bins, and each bin has
 * three named objects: the block below, a mutex and an event. Sensor i is pose i of bin 0 unless
 * the host program maps it elsewhere. docs/clients.md and the examples minimal_client.c and
 * minimal_client_windows.c show how to open the objects and how to wait.
 *
 * Units    times in seconds; angles in radians; lengths in the unit that the flags name.
 * Frames   positions and angles are in the device's reference frame. An orientation is azimuth
 *          about z, then elevation about y, then roll about x, each about the axes as the rotation
 *          before left them. A quaternion has its scalar first.
 * Locking  hold the bin's mutex while you copy the block, and release it at once: the tracker skips
 *          a bin whose mutex is not free. Lock it once; it is not recursive on Linux. Reset the
 * event only with the mutex held and the newest frame copied. Never set the event. Trust    the
 * memory belongs to other processes too: check what you read before you use it.
 */
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  kinetrel_slots = 16,      /* the device number in a name is the slot less one: 0 to 15 */
  kinetrel_bins = 16,       /* per slot: 0 to 15 */
  kinetrel_pose_slots = 32, /* per bin: 0 to 31 */
  kinetrel_object_name_size = 64
};

/* Write the name of a bin's object into `name`. On Linux shm_open wants a '/' before it.
 * device, bin  0 to 15 */
static inline void kinetrel_block_name(char name[64], unsigned device, unsigned bin) {
  snprintf(name, kinetrel_object_name_size, "KinetrelShMem%X%X", device & 15U, bin & 15U);
}
static inline void kinetrel_mutex_name(char name[64], unsigned device, unsigned bin) {
  snprintf(name, kinetrel_object_name_size, "KinetrelMutex%X%X", device & 15U, bin & 15U);
}
static inline void kinetrel_event_name(char name[64], unsigned device, unsigned bin) {
  snprintf(name, kinetrel_object_name_size, "OrvixDataPublishedEvent-Dev%u-Bin%uEvent",
           device & 15U, bin & 15U);
}

/* The flags word. A component that is not published holds old numbers or zeros. */
enum {
  kinetrel_low_sensors_flags = 0xF,     /* the low four bits of sensorMask */
  kinetrel_position_flag = 1 << 4,      /* x y z are published */
  kinetrel_angles_flag = 1 << 5,        /* azimuth, elevation and roll are published */
  kinetrel_quaternion_flag = 1 << 6,    /* quaternions are published */
  kinetrel_component_shift = 4,         /* of the four component bits */
  kinetrel_unit_shift = 8,              /* of the four bits that hold a kinetrel_unit */
  kinetrel_buttons_valid_flag = 1 << 12 /* the buttons word counts */
};

enum kinetrel_unit {
  kinetrel_inch = 0,
  kinetrel_centimetre = 1,
  kinetrel_gps_metre = 2, /* metres of a GPS receiver */
  kinetrel_metre = 3
};

/* 1464 bytes, little-endian. Every gap is named, so no packing is needed. */
typedef struct kinetrel_track_block {
  int32_t reserved;         /* -1 once the block is initialised */
  uint32_t flags;           /* see above */
  uint32_t buttons;         /* bit i is button i; counts only while the flag says so */
  float poses[32][6];       /* x y z azimuth elevation roll */
  float quaternions[32][4]; /* w x y z; 1 0 0 0 until published */
  uint32_t padding0;
  double sampleTime;     /* s; when the device took the sample */
  double publishTime;    /* s from the writer's start, as is sampleTime */
  int32_t frameCount;    /* one more at each publication; 0 when a writer starts */
  uint8_t writerPresent; /* 1 while a writer has the block open */
  char deviceName[128];  /* ends with a 0 only where it is shorter */
  char padding1[3];      /* the first may hold the 0 of a name of full length */
  double frameRate;      /* Hz of each sensor, as the device states it */
  uint32_t sensorMask;   /* bit i is sensor i */
  uint32_t padding2;
} kinetrel_track_block;

static_assert(sizeof(kinetrel_track_block) == 1464, "the block's size");
static_assert(offsetof(kinetrel_track_block, flags) == 4, "the block's layout");
static_assert(offsetof(kinetrel_track_block, buttons) == 8, "the block's layout");
static_assert(offsetof(kinetrel_track_block, poses) == 12, "the block's layout");
static_assert(offsetof(kinetrel_track_block, quaternions) == 780, "the block's layout");
static_assert(offsetof(kinetrel_track_block, sampleTime) == 1296, "the block's layout");
static_assert(offsetof(kinetrel_track_block, publishTime) == 1304, "the block's layout");
static_assert(offsetof(kinetrel_track_block, frameCount) == 1312, "the block's layout");
static_assert(offsetof(kinetrel_track_block, writerPresent) == 1316, "the block's layout");
static_assert(offsetof(kinetrel_track_block, deviceName) == 1317, "the block's layout");
static_assert(offsetof(kinetrel_track_block, frameRate) == 1448, "the block's layout");
static_assert(offsetof(kinetrel_track_block, sensorMask) == 1456, "the block's layout");

/* Linux: the mutex's object is a pthread_mutex_t of the C library, and behind it this 32-bit mark.
 */
enum { kinetrel_mutex_mark = 0x4B4D5458 };

/* Linux: the event's object is one 32-bit word. Its low two bits are its state; above them it
 * counts how often it has been set. */
enum {
  kinetrel_event_unset = 0,
  kinetrel_event_set = 1,
  kinetrel_event_awaited = 2, /* not set, and a process may sleep on the word */
  kinetrel_event_state = 3    /* the state's bits */
};

#ifdef __cplusplus
}
#endif
