/* The record stream: how a program reads a tracker that Kinetrel publishes.
 *
 * Every slot (option -w, 1 to 16) has one stream: an object in shared memory that its writer fills
 * and any number of clients map for reading. A client takes no lock, writes nothing and is not
 * registered anywhere, so it cannot disturb the tracker or another client. This header is the whole
 * reader: there is nothing to link. C11 or C++17, Linux or Windows.
 *
 *     kinetrel_stream stream;
 *     kinetrel_record record;
 *     if (kinetrel_stream_open(&stream, 1, 5000) == kinetrel_stream_ok) {
 *       while (kinetrel_stream_next(&stream, &record, 1000) == kinetrel_stream_ok) use(&record);
 *       kinetrel_stream_close(&stream);
 *     }
 *
 * Units    metres, radians, seconds; times named _ns are nanoseconds of kinetrel_now_ns().
 * Frame    the tracker's own reference frame, as it was told to use. An orientation turns by
 * azimuth about z, then elevation about y, then roll about x, each about the axes as the rotation
 *          before left them. A quaternion is w, x, y, z.
 * Sensors  count from 0 here; people count them from 1.
 * Threads  one at a time for each kinetrel_stream; any number of streams. Each thread opens its
 * own. Memory   nothing is allocated. A kinetrel_stream must not be copied while it is open. Trust
 * the object's content is checked before it is used. Nothing outside the mapping is read and no
 * wait is without end, whatever the object holds. One case is left to the system: a program of the
 * writer's account that truncates the object while it is mapped ends its clients with SIGBUS. The
 * reader looks at the size when it opens the object and then four times a second.
 *
 * docs/stream.md describes the format for other languages.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#if defined(KINETREL_STREAM_LAYOUT_ONLY) /* for a writer: no reader, no header of the system */
#elif defined(_WIN32)
#if !defined(WIN32_LEAN_AND_MEAN)
#define WIN32_LEAN_AND_MEAN
#endif
#if !defined(NOMINMAX)
#define NOMINMAX
#endif
#include <windows.h>
#elif defined(__linux__)
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#else
#error "kinetrel/stream.h knows Linux and Windows."
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Layout --------------------------------------------------------------------------------
 *
 * The object holds, in the machine's byte order (little-endian): the head, the live words, the run,
 * the newest record of each sensor, the log, the ring of records, and the ring of the device's own
 * poses. The head tells where each part lies and how large its entries are, which later versions
 * may make larger.
 *
 * Run, records, log lines and poses begin with a 64-bit sequence number that is odd while the
 * writer changes the entry. A reader loads it, copies the entry, loads it again, and has a whole
 * entry if both are the same even number. */

enum {
  kinetrel_stream_version = 1,
  kinetrel_stream_slots = 16,
  kinetrel_stream_sensors = 32,
  kinetrel_stream_records = 8192, /* in the ring */
  kinetrel_stream_log_lines = 64,
  kinetrel_stream_sensor_name_size = 32
};

/* Written once, before the magic number; only the magic number tells that it is there. */
typedef struct kinetrel_stream_head {
  char magic[8]; /* "KINETREL" */
  uint32_t version;
  uint32_t head_size;
  uint64_t total_size; /* bytes of the whole object */
  uint64_t instance;   /* another one with every writer; never 0 */
  uint32_t writer_pid; /* in the writer's own namespace of process ids */
  uint32_t slot;       /* 1 to 16 */
  uint32_t live_offset;
  uint32_t live_size;
  uint32_t run_offset;
  uint32_t run_size;
  uint32_t sensor_offset; /* newest record of each sensor; an entry is as large as in the ring */
  uint32_t sensor_count;
  uint32_t log_offset; /* line n is entry n % log_count */
  uint32_t log_count;
  uint32_t log_line_size;
  uint32_t ring_offset; /* record n is entry n % ring_count */
  uint32_t ring_count;
  uint32_t record_size;
  uint32_t device_pose_offset; /* of record n: entry n % ring_count; 0: the stream has none */
  uint32_t device_pose_size;
  uint64_t reserved[2];
} kinetrel_stream_head;

/* Words that change all the time. Each is loaded by itself. */
typedef struct kinetrel_stream_live {
  uint64_t newest;   /* number of the newest record; 0: none yet */
  uint32_t arrivals; /* one more with every arrival and change of state: the word to wait for */
  uint32_t reserved0;
  uint64_t log_newest;  /* number of the newest log line; 0: none yet */
  int64_t heartbeat_ns; /* set every second for as long as the writer lives */
  uint64_t reserved[4];
} kinetrel_stream_live;

/* Bits of kinetrel_record.flags. What is not valid is NaN. */
enum {
  kinetrel_position_valid = 1 << 0,
  kinetrel_orientation_valid = 1 << 1,  /* quaternion and angles */
  kinetrel_buttons_valid = 1 << 2,      /* for the bits of buttons_known */
  kinetrel_code_valid = 1 << 3,         /* device_code */
  kinetrel_device_position = 1 << 8,    /* the device itself delivered the position */
  kinetrel_device_angles = 1 << 9,      /* ... azimuth, elevation and roll */
  kinetrel_device_quaternion = 1 << 10, /* ... the quaternion; else computed from the angles */
  kinetrel_filtered = 1 << 11,          /* the pose went through filters; the device's own one is
                                           asked with kinetrel_stream_device_pose */
  kinetrel_filter_failed = 1 << 12      /* and at least one of them could not work on it */
};

/* What the device said of one sensor at one moment. */
typedef struct kinetrel_record {
  uint64_t number;      /* running, from 1; in shared memory it is the sequence number: 2 x number,
                           less 1 while the record is written */
  uint64_t frame;       /* the same for the records of one device frame; from 1 */
  int64_t sample_ns;    /* when the device took the sample, as well as the driver knows */
  int64_t publish_ns;   /* when the record was written here */
  double position[3];   /* m: x, y, z */
  float orientation[4]; /* unit quaternion w, x, y, z; the azimuth zero is applied */
  float angles[3];      /* rad: azimuth, elevation, roll; the azimuth zero is applied */
  uint32_t sensor;      /* from 0 */
  uint32_t flags;       /* see above */
  int32_t device_code;  /* the device's own status or error code for this record */
  uint32_t buttons;     /* bit i is button i */
  uint32_t buttons_known;
} kinetrel_record;

/* The pose of a filtered record as it would be without filters. */
typedef struct kinetrel_device_pose {
  uint64_t number;      /* of the record; in shared memory the sequence number, as of a record */
  double position[3];   /* as of a record ... */
  float orientation[4]; /* ... */
  float angles[3];      /* ... */
  uint32_t flags;       /* only the bits of position and orientation */
} kinetrel_device_pose;

typedef enum kinetrel_state {
  kinetrel_state_unknown = 0,
  kinetrel_state_starting = 1,
  kinetrel_state_running = 2,
  kinetrel_state_silent = 3,     /* the tracker sends nothing usable */
  kinetrel_state_recovering = 4, /* its port has gone or it is started anew */
  kinetrel_state_stopped = 5,    /* the writer has closed */
  kinetrel_state_failed = 6,     /* the writer gave up */
  kinetrel_state_lost = 7        /* never written: the reader's word for a writer without heartbeat,
                                    killed or held up */
} kinetrel_state;

/* The run: its device, state and statistics. Written anew every second and with every change. */
typedef struct kinetrel_run {
  uint64_t sequence;
  int64_t clock_ns; /* a pair: this moment of kinetrel_now_ns() ... */
  int64_t utc_ns;   /* ... is this one since 1970-01-01 00:00 UTC */
  int64_t started_ns;
  int64_t state_since_ns;
  int32_t state;         /* kinetrel_state */
  int32_t device_type;   /* number of the driver, as in option -d */
  int32_t port;          /* n of COMn; 0 simulated; negative: none */
  uint32_t unit;         /* of the device: 0 inch, 1 cm, 2 m of a GPS receiver, 3 m */
  uint32_t components;   /* delivered by the device: bit 0 position, 1 angles, 2 quaternion */
  uint32_t sensor_mask;  /* active sensors: bit i is sensor i */
  double nominal_rate;   /* Hz of each sensor, as the device states it; 0 unknown */
  double measured_rate;  /* Hz, frames, of about the last second; 0 unknown */
  double azimuth_zero;   /* rad; taken off every azimuth and orientation */
  double latency_mean;   /* s from sample to publication, of about the last second */
  double latency_max;    /* s, of the run */
  double jitter;         /* s, standard deviation of the time between frames, as latency_mean */
  uint64_t frames;       /* published */
  uint64_t failed_reads; /* without any usable record */
  uint64_t dropped;      /* records that the device sent and that could not be used */
  uint64_t recoveries;   /* times that the tracker was lost and came back */
  uint64_t bytes_in;     /* from the device; 0 where its line does not count */
  uint64_t bytes_out;
  char state_text[256]; /* a sentence that the user can act on */
  char device_name[128];
  char sensor_names[kinetrel_stream_sensors][kinetrel_stream_sensor_name_size];
  uint16_t filter_lag[kinetrel_stream_sensors]; /* 10 us: how late the sensor's filters were
                                                   measured to make moving positions; 0: nothing */
} kinetrel_run;

typedef struct kinetrel_log_line {
  uint64_t number; /* running, from 1; in shared memory the sequence number, as of a record */
  int64_t utc_ns;  /* since 1970; whole seconds */
  int32_t code;    /* negative: a failure */
  int32_t reserved;
  char text[232];
} kinetrel_log_line;

#ifdef __cplusplus
#define KINETREL_LAYOUT(condition) static_assert(condition, #condition)
#else
#define KINETREL_LAYOUT(condition) _Static_assert(condition, #condition)
#endif
#define KINETREL_AT(type, field, offset) KINETREL_LAYOUT(offsetof(type, field) == (offset))
KINETREL_AT(kinetrel_stream_head, version, 8);
KINETREL_AT(kinetrel_stream_head, head_size, 12);
KINETREL_AT(kinetrel_stream_head, total_size, 16);
KINETREL_AT(kinetrel_stream_head, instance, 24);
KINETREL_AT(kinetrel_stream_head, writer_pid, 32);
KINETREL_AT(kinetrel_stream_head, slot, 36);
KINETREL_AT(kinetrel_stream_head, live_offset, 40);
KINETREL_AT(kinetrel_stream_head, live_size, 44);
KINETREL_AT(kinetrel_stream_head, run_offset, 48);
KINETREL_AT(kinetrel_stream_head, run_size, 52);
KINETREL_AT(kinetrel_stream_head, sensor_offset, 56);
KINETREL_AT(kinetrel_stream_head, sensor_count, 60);
KINETREL_AT(kinetrel_stream_head, log_offset, 64);
KINETREL_AT(kinetrel_stream_head, log_count, 68);
KINETREL_AT(kinetrel_stream_head, log_line_size, 72);
KINETREL_AT(kinetrel_stream_head, ring_offset, 76);
KINETREL_AT(kinetrel_stream_head, ring_count, 80);
KINETREL_AT(kinetrel_stream_head, record_size, 84);
KINETREL_AT(kinetrel_stream_head, device_pose_offset, 88);
KINETREL_AT(kinetrel_stream_head, device_pose_size, 92);
KINETREL_LAYOUT(sizeof(kinetrel_stream_head) == 112);
KINETREL_AT(kinetrel_stream_live, newest, 0);
KINETREL_AT(kinetrel_stream_live, arrivals, 8);
KINETREL_AT(kinetrel_stream_live, log_newest, 16);
KINETREL_AT(kinetrel_stream_live, heartbeat_ns, 24);
KINETREL_LAYOUT(sizeof(kinetrel_stream_live) == 64);
KINETREL_AT(kinetrel_record, frame, 8);
KINETREL_AT(kinetrel_record, sample_ns, 16);
KINETREL_AT(kinetrel_record, publish_ns, 24);
KINETREL_AT(kinetrel_record, position, 32);
KINETREL_AT(kinetrel_record, orientation, 56);
KINETREL_AT(kinetrel_record, angles, 72);
KINETREL_AT(kinetrel_record, sensor, 84);
KINETREL_AT(kinetrel_record, flags, 88);
KINETREL_AT(kinetrel_record, device_code, 92);
KINETREL_AT(kinetrel_record, buttons, 96);
KINETREL_AT(kinetrel_record, buttons_known, 100);
KINETREL_LAYOUT(sizeof(kinetrel_record) == 104);
KINETREL_AT(kinetrel_device_pose, position, 8);
KINETREL_AT(kinetrel_device_pose, orientation, 32);
KINETREL_AT(kinetrel_device_pose, angles, 48);
KINETREL_AT(kinetrel_device_pose, flags, 60);
KINETREL_LAYOUT(sizeof(kinetrel_device_pose) == 64);
KINETREL_AT(kinetrel_run, clock_ns, 8);
KINETREL_AT(kinetrel_run, utc_ns, 16);
KINETREL_AT(kinetrel_run, started_ns, 24);
KINETREL_AT(kinetrel_run, state_since_ns, 32);
KINETREL_AT(kinetrel_run, state, 40);
KINETREL_AT(kinetrel_run, device_type, 44);
KINETREL_AT(kinetrel_run, port, 48);
KINETREL_AT(kinetrel_run, unit, 52);
KINETREL_AT(kinetrel_run, components, 56);
KINETREL_AT(kinetrel_run, sensor_mask, 60);
KINETREL_AT(kinetrel_run, nominal_rate, 64);
KINETREL_AT(kinetrel_run, measured_rate, 72);
KINETREL_AT(kinetrel_run, azimuth_zero, 80);
KINETREL_AT(kinetrel_run, latency_mean, 88);
KINETREL_AT(kinetrel_run, latency_max, 96);
KINETREL_AT(kinetrel_run, jitter, 104);
KINETREL_AT(kinetrel_run, frames, 112);
KINETREL_AT(kinetrel_run, failed_reads, 120);
KINETREL_AT(kinetrel_run, dropped, 128);
KINETREL_AT(kinetrel_run, recoveries, 136);
KINETREL_AT(kinetrel_run, bytes_in, 144);
KINETREL_AT(kinetrel_run, bytes_out, 152);
KINETREL_AT(kinetrel_run, state_text, 160);
KINETREL_AT(kinetrel_run, device_name, 416);
KINETREL_AT(kinetrel_run, sensor_names, 544);
KINETREL_AT(kinetrel_run, filter_lag, 1568);
KINETREL_LAYOUT(sizeof(kinetrel_run) == 1632);
KINETREL_AT(kinetrel_log_line, utc_ns, 8);
KINETREL_AT(kinetrel_log_line, code, 16);
KINETREL_AT(kinetrel_log_line, text, 24);
KINETREL_LAYOUT(sizeof(kinetrel_log_line) == 256);
#undef KINETREL_AT
#undef KINETREL_LAYOUT

/* x86-64 loads pairs of words in order as it does words, in half the time. The thread sanitizer
 * knows atomic words only. */
#if defined(__x86_64__) && defined(__SSE2__) && defined(__GNUC__) && !defined(__SANITIZE_THREAD__)
#if defined(__has_feature)
#if !__has_feature(thread_sanitizer)
#define KINETREL_HAS_PAIRS
#endif
#else
#define KINETREL_HAS_PAIRS
#endif
#endif
#if defined(KINETREL_HAS_PAIRS)
typedef long long kinetrel_pair_ __attribute__((vector_size(16), aligned(8), may_alias));
#endif

#if !defined(KINETREL_STREAM_LAYOUT_ONLY)

/* ---- Reader -------------------------------------------------------------------------------- */

typedef enum kinetrel_stream_result {
  kinetrel_stream_ok = 0,
  kinetrel_stream_timed_out,     /* nothing new within the time */
  kinetrel_stream_restarted,     /* a new writer has the slot; ask again for its records */
  kinetrel_stream_none,          /* the slot has no stream; of a sensor: it has no record yet */
  kinetrel_stream_busy,          /* the writer was stopped or killed while it wrote this */
  kinetrel_stream_not_a_stream,  /* what is there is not a Kinetrel stream, or is damaged */
  kinetrel_stream_newer_version, /* a later Kinetrel writes there; this program must be rebuilt */
  kinetrel_stream_denied,        /* this account may not read the stream */
  kinetrel_stream_invalid, /* an argument: no such slot or sensor, a stream that is not open */
  kinetrel_stream_system   /* the system refused something else */
} kinetrel_stream_result;

enum { kinetrel_forever = -1 }; /* as a time-out */

/* An open stream. The fields are the reader's own. */
typedef struct kinetrel_stream {
  kinetrel_stream_head head; /* a checked copy */
  const unsigned char* memory;
  size_t size;
  int slot;
  int file;         /* Linux; -1: none, the memory is the caller's */
  void* section;    /* Windows */
  void* wake[2];    /* Windows */
  uint64_t next;    /* number of the record to read next */
  uint64_t lost;    /* records */
  int64_t check_ns; /* when to look next whether the writer is still the same */
} kinetrel_stream;

/* Nanoseconds of the clock that all times of a stream are in: CLOCK_MONOTONIC on Linux, the
 * performance counter on Windows. `kinetrel_now_ns() - record.sample_ns` is the age of a pose. */
static inline int64_t kinetrel_now_ns(void);

/* Opens the stream of a slot, for the records that come from now on.
 *
 * slot     1 to 16, as in option -w.
 * wait_ms  how long to wait for a tracker: 0 not at all, kinetrel_forever without end.
 * Returns  ok, none, not_a_stream, newer_version, denied, invalid, system. A stream that could not
 * be opened may be closed again, and needs not to be. */
static inline kinetrel_stream_result kinetrel_stream_open(kinetrel_stream* stream, int slot,
                                                          int wait_ms);

/* Reads a stream from memory instead: a recorded one, or that of a test. The memory is the
 * caller's, aligned to 8 bytes, and stays until the stream is closed. */
static inline kinetrel_stream_result kinetrel_stream_attach(kinetrel_stream* stream,
                                                            const void* memory, size_t size);

static inline void kinetrel_stream_close(kinetrel_stream* stream);

/* The next record that this stream has not returned yet; waits for it if there is none.
 *
 * timeout_ms  0: does not wait; kinetrel_forever: waits without end.
 * Returns     ok, timed_out, restarted, not_a_stream, newer_version, invalid, system.
 *
 * A writer that ends is no error: the call waits for the next one on the slot, answers restarted
 * once it is there, and goes on with its first record. Ask kinetrel_stream_state why nothing comes.
 * A caller that was held up for longer than the ring lasts (two seconds of the fastest tracker, a
 * minute of a usual one) goes on with the oldest records that are still there. */
static inline kinetrel_stream_result kinetrel_stream_next(kinetrel_stream* stream,
                                                          kinetrel_record* record, int timeout_ms);

static inline void kinetrel_stream_skip(kinetrel_stream* stream);   /* to what comes from now on */
static inline void kinetrel_stream_rewind(kinetrel_stream* stream); /* to the oldest record kept */

/* Records that this stream missed since it was opened because they were overwritten. */
static inline uint64_t kinetrel_stream_lost(const kinetrel_stream* stream);

/* The newest record of a sensor (from 0), whether kinetrel_stream_next has returned it or not.
 * Returns  ok, none, busy, invalid. Does not wait. */
static inline kinetrel_stream_result kinetrel_stream_newest(kinetrel_stream* stream,
                                                            unsigned sensor,
                                                            kinetrel_record* record);

/* The device's own pose of a record that this stream has returned; ask before the next call of
 * kinetrel_stream_next. Of a record without the bit kinetrel_filtered it is the record's.
 * Returns  ok, none (overwritten since then), invalid. */
static inline kinetrel_stream_result kinetrel_stream_device_pose(kinetrel_stream* stream,
                                                                 const kinetrel_record* record,
                                                                 kinetrel_device_pose* pose);

/* The run as it was last written; texts end with a zero and have no control characters.
 * Returns  ok, busy, invalid (also while the next writer is awaited). */
static inline kinetrel_stream_result kinetrel_stream_run(kinetrel_stream* stream,
                                                         kinetrel_run* run);

/* The state now, and its sentence unless `text` is null. lost: no heartbeat for three seconds. */
static inline kinetrel_state kinetrel_stream_state(kinetrel_stream* stream, char text[256]);

/* Copies the newest lines of the status log, oldest first. Returns how many, at most `count`. */
static inline int kinetrel_stream_log(kinetrel_stream* stream, kinetrel_log_line* lines, int count);

/* A time of the stream as nanoseconds since 1970 UTC, by the run's pair of clocks. */
static inline int64_t kinetrel_run_utc_ns(const kinetrel_run* run, int64_t time_ns);

/* Seconds that the filters of a sensor (from 0) delay its positions while it moves, as measured;
 * 0 when they delay nothing, and for a sensor that the run does not have. */
static inline double kinetrel_run_filter_lag(const kinetrel_run* run, unsigned sensor);

static inline const char* kinetrel_stream_result_text(kinetrel_stream_result result);
static inline const char* kinetrel_state_text(kinetrel_state state);

/* ---- From here on: how it is done ---------------------------------------------------------- */

enum {
  kinetrel_check_every_ms_ = 250,
  kinetrel_heartbeat_patience_ms_ = 3000,
  kinetrel_tries_ = 1000 /* a writer needs far less than that many reads for one entry */
};

#if defined(_MSC_VER) && !defined(__clang__)
/* A volatile read acquires in this compiler's default mode for x86 and x64. */
static inline uint64_t kinetrel_load64_(const void* from) {
  return *(const volatile uint64_t*)from;
}
static inline uint32_t kinetrel_load32_(const void* from) {
  return *(const volatile uint32_t*)from;
}
#else
static inline uint64_t kinetrel_load64_(const void* from) {
  return __atomic_load_n((const uint64_t*)from, __ATOMIC_ACQUIRE);
}
static inline uint32_t kinetrel_load32_(const void* from) {
  return __atomic_load_n((const uint32_t*)from, __ATOMIC_ACQUIRE);
}
#endif

/* Copies by words that are loaded in order, so a sequence number that is loaded afterwards tells
 * whether one of them was too new. */
static inline void kinetrel_copy_(void* to, const void* from, size_t size) {
  size_t i = 0;
#if defined(KINETREL_HAS_PAIRS)
  for (; size - i >= 16; i += 16) {
    const kinetrel_pair_ pair =
        *(const volatile kinetrel_pair_*)(const void*)((const unsigned char*)from + i);
    memcpy((unsigned char*)to + i, &pair, sizeof pair);
  }
  __asm__ volatile("" ::: "memory"); /* the compiler keeps the order too */
#endif
  for (; i < size; i += 8) {
    const uint64_t word = kinetrel_load64_((const unsigned char*)from + i);
    memcpy((unsigned char*)to + i, &word, 8);
  }
}

/* One try to copy an entry that begins with its sequence number. Returns that number, of a whole
 * copy even and otherwise odd. */
static inline uint64_t kinetrel_try_copy_(void* to, const unsigned char* from, size_t size) {
  const uint64_t before = kinetrel_load64_(from);
  if ((before & 1) != 0) return before;
  memcpy(to, &before, sizeof before);
  kinetrel_copy_((unsigned char*)to + 8, from + 8, size - 8);
  return kinetrel_load64_(from) == before ? before : before | 1;
}

/* The same until the copy is whole; 1 when it is. */
static inline int kinetrel_copy_whole_(void* to, const unsigned char* from, size_t size) {
  int tries;
  for (tries = 0; tries < kinetrel_tries_; ++tries) {
    if ((kinetrel_try_copy_(to, from, size) & 1) == 0) return 1;
  }
  return 0;
}

static inline void kinetrel_clean_text_(char* text, size_t size) {
  size_t i;
  text[size - 1] = '\0';
  for (i = 0; text[i] != '\0'; ++i) {
    if ((unsigned char)text[i] < 0x20 || text[i] == 0x7F) text[i] = '?';
  }
}

static inline const unsigned char* kinetrel_live_(const kinetrel_stream* stream, size_t field) {
  return stream->memory + stream->head.live_offset + field;
}

static inline uint64_t kinetrel_newest_(const kinetrel_stream* stream) {
  return kinetrel_load64_(kinetrel_live_(stream, offsetof(kinetrel_stream_live, newest)));
}

static inline uint32_t kinetrel_arrivals_(const kinetrel_stream* stream) {
  return kinetrel_load32_(kinetrel_live_(stream, offsetof(kinetrel_stream_live, arrivals)));
}

/* ---- The system's part ---- */

/* Of the object that a stream has open. */
typedef enum kinetrel_standing_ {
  kinetrel_current_,
  kinetrel_replaced_, /* its name leads to another object by now, or to none */
  kinetrel_truncated_
} kinetrel_standing_;

#if defined(_WIN32)

static inline int64_t kinetrel_now_ns(void) {
  LARGE_INTEGER now, frequency;
  QueryPerformanceCounter(&now);
  QueryPerformanceFrequency(&frequency);
  return now.QuadPart / frequency.QuadPart * 1000000000 +
         now.QuadPart % frequency.QuadPart * 1000000000 / frequency.QuadPart;
}

static inline void kinetrel_sleep_(int milliseconds) { Sleep((DWORD)milliseconds); }

static inline void kinetrel_unmap_(kinetrel_stream* stream) {
  int i;
  if (stream->section != NULL) {
    if (stream->memory != NULL) UnmapViewOfFile(stream->memory);
    CloseHandle(stream->section);
  }
  for (i = 0; i < 2; ++i) {
    if (stream->wake[i] != NULL) CloseHandle(stream->wake[i]);
    stream->wake[i] = NULL;
  }
  stream->section = NULL;
  stream->memory = NULL;
}

static inline kinetrel_stream_result kinetrel_map_(kinetrel_stream* stream) {
  char name[] = "KinetrelStream0Wake0";
  MEMORY_BASIC_INFORMATION about;
  int i;
  name[14] = "0123456789ABCDEF"[stream->slot - 1];
  for (i = 0; i < 2; ++i) {
    name[19] = (char)('0' + i);
    stream->wake[i] = OpenEventA(SYNCHRONIZE, FALSE, name);
  }
  name[15] = '\0';
  stream->section = OpenFileMappingA(FILE_MAP_READ, FALSE, name);
  if (stream->section == NULL || stream->wake[0] == NULL || stream->wake[1] == NULL) {
    return GetLastError() == ERROR_ACCESS_DENIED ? kinetrel_stream_denied : kinetrel_stream_none;
  }
  stream->memory = (const unsigned char*)MapViewOfFile(stream->section, FILE_MAP_READ, 0, 0, 0);
  if (stream->memory == NULL) return kinetrel_stream_system;
  if (VirtualQuery(stream->memory, &about, sizeof about) != sizeof about) {
    return kinetrel_stream_system;
  }
  /* Memory that is only reserved must not be touched. */
  stream->size = about.State == MEM_COMMIT ? about.RegionSize : 0;
  return kinetrel_stream_ok;
}

/* The section is the same for every writer while a client has it open, and keeps its size. */
static inline kinetrel_standing_ kinetrel_standing_of_(kinetrel_stream* stream) {
  (void)stream;
  return kinetrel_current_;
}

/* Two events take turns: the one of the count's parity is set when the count goes on. A client that
 * oversleeps two arrivals would wait for the third, so a wait is short. */
static inline void kinetrel_wait_(kinetrel_stream* stream, uint32_t arrivals, int milliseconds) {
  if (stream->section == NULL) {
    kinetrel_sleep_(1);
    return;
  }
  WaitForSingleObject(stream->wake[arrivals & 1], (DWORD)(milliseconds < 100 ? milliseconds : 100));
}

#else

#ifndef __cplusplus
/* Strict C11 hides them. */
extern long syscall(long number, ...);
extern int clock_gettime(int clock, struct timespec* now);
extern int nanosleep(const struct timespec* time, struct timespec* left);
#endif

static inline int64_t kinetrel_now_ns(void) {
  struct timespec now;
  clock_gettime(1 /* CLOCK_MONOTONIC */, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static inline void kinetrel_sleep_(int milliseconds) {
  struct timespec time;
  time.tv_sec = milliseconds / 1000;
  time.tv_nsec = (long)(milliseconds % 1000) * 1000000;
  nanosleep(&time, NULL);
}

static inline void kinetrel_unmap_(kinetrel_stream* stream) {
  if (stream->file >= 0) {
    if (stream->memory != NULL) munmap((void*)(uintptr_t)stream->memory, stream->size);
    close(stream->file);
  }
  stream->file = -1;
  stream->memory = NULL;
}

static inline kinetrel_stream_result kinetrel_map_(kinetrel_stream* stream) {
  char name[] = "/KinetrelStream0";
  struct stat about;
  void* memory;
  name[15] = "0123456789ABCDEF"[stream->slot - 1];
  stream->file = shm_open(name, O_RDONLY, 0);
  if (stream->file < 0) {
    if (errno == ENOENT) return kinetrel_stream_none;
    return errno == EACCES ? kinetrel_stream_denied : kinetrel_stream_system;
  }
  if (fstat(stream->file, &about) != 0) return kinetrel_stream_system;
  if (!S_ISREG(about.st_mode) || about.st_size < (off_t)sizeof(kinetrel_stream_head)) {
    return kinetrel_stream_not_a_stream;
  }
  stream->size = (size_t)about.st_size;
  memory = mmap(NULL, stream->size, PROT_READ, MAP_SHARED, stream->file, 0);
  if (memory == MAP_FAILED) return kinetrel_stream_system;
  stream->memory = (const unsigned char*)memory;
  return kinetrel_stream_ok;
}

static inline kinetrel_standing_ kinetrel_standing_of_(kinetrel_stream* stream) {
  struct stat about;
  if (stream->file < 0) return kinetrel_current_;
  if (fstat(stream->file, &about) != 0) return kinetrel_current_;
  if (about.st_size < 0 || (uint64_t)about.st_size < stream->size) return kinetrel_truncated_;
  return about.st_nlink == 0 ? kinetrel_replaced_ : kinetrel_current_;
}

/* Sleeps until the count is no longer `arrivals`, and not longer than the time. */
static inline void kinetrel_wait_(kinetrel_stream* stream, uint32_t arrivals, int milliseconds) {
  struct {
    long seconds, nanoseconds; /* as the kernel has it, however long time_t is */
  } time;
  if (stream->file < 0) {
    kinetrel_sleep_(1);
    return;
  }
  time.seconds = milliseconds / 1000;
  time.nanoseconds = (long)(milliseconds % 1000) * 1000000;
  syscall(SYS_futex, kinetrel_live_(stream, offsetof(kinetrel_stream_live, arrivals)),
          0 /* FUTEX_WAIT, between processes */, arrivals, &time, NULL, 0);
}

#endif

/* ---- Opening ---- */

/* Whether `count` entries of `size` bytes lie at `offset` within the object. */
static inline int kinetrel_part_fits_(const kinetrel_stream_head* head, uint32_t offset,
                                      uint32_t count, uint32_t size, size_t known_size) {
  return offset % 8 == 0 && size % 8 == 0 && size >= known_size && count > 0 &&
         offset >= head->head_size && offset <= head->total_size &&
         (uint64_t)count * size <= head->total_size - offset;
}

/* Copies and checks the head of mapped memory. */
static inline kinetrel_stream_result kinetrel_take_head_(kinetrel_stream* stream) {
  kinetrel_stream_head head;
  if (stream->size < sizeof head) return kinetrel_stream_not_a_stream;
  kinetrel_copy_(&head, stream->memory, sizeof head);
  if (memcmp(head.magic, "KINETREL", 8) != 0 || head.version == 0) {
    return kinetrel_stream_not_a_stream;
  }
  if (head.version > kinetrel_stream_version) return kinetrel_stream_newer_version;
  if (head.head_size < sizeof head || head.total_size > stream->size || head.instance == 0 ||
      !kinetrel_part_fits_(&head, head.live_offset, 1, head.live_size,
                           sizeof(kinetrel_stream_live)) ||
      !kinetrel_part_fits_(&head, head.run_offset, 1, head.run_size, sizeof(kinetrel_run)) ||
      !kinetrel_part_fits_(&head, head.sensor_offset, head.sensor_count, head.record_size,
                           sizeof(kinetrel_record)) ||
      !kinetrel_part_fits_(&head, head.log_offset, head.log_count, head.log_line_size,
                           sizeof(kinetrel_log_line)) ||
      !kinetrel_part_fits_(&head, head.ring_offset, head.ring_count, head.record_size,
                           sizeof(kinetrel_record)) ||
      (head.device_pose_offset != 0 &&
       !kinetrel_part_fits_(&head, head.device_pose_offset, head.ring_count, head.device_pose_size,
                            sizeof(kinetrel_device_pose))) ||
      head.ring_count < kinetrel_stream_sensors) {
    return kinetrel_stream_not_a_stream;
  }
  stream->head = head;
  return kinetrel_stream_ok;
}

static inline void kinetrel_clear_(kinetrel_stream* stream) {
  memset(stream, 0, sizeof *stream);
  stream->file = -1;
}

static inline kinetrel_stream_result kinetrel_try_open_(kinetrel_stream* stream, int slot) {
  kinetrel_stream_result result;
  kinetrel_clear_(stream);
  stream->slot = slot;
  result = kinetrel_map_(stream);
  if (result == kinetrel_stream_ok) result = kinetrel_take_head_(stream);
  if (result != kinetrel_stream_ok) {
    kinetrel_unmap_(stream);
    kinetrel_clear_(stream);
  }
  return result;
}

static inline kinetrel_stream_result kinetrel_stream_open(kinetrel_stream* stream, int slot,
                                                          int wait_ms) {
  const int64_t start = kinetrel_now_ns();
  kinetrel_clear_(stream);
  if (slot < 1 || slot > kinetrel_stream_slots) return kinetrel_stream_invalid;
  for (;;) {
    const kinetrel_stream_result result = kinetrel_try_open_(stream, slot);
    if (result == kinetrel_stream_ok) {
      kinetrel_stream_skip(stream);
      return result;
    }
    if (wait_ms >= 0 && kinetrel_now_ns() - start >= (int64_t)wait_ms * 1000000) return result;
    kinetrel_sleep_(20);
  }
}

static inline kinetrel_stream_result kinetrel_stream_attach(kinetrel_stream* stream,
                                                            const void* memory, size_t size) {
  kinetrel_stream_result result;
  kinetrel_clear_(stream);
  if (memory == NULL || (uintptr_t)memory % 8 != 0) return kinetrel_stream_invalid;
  stream->memory = (const unsigned char*)memory;
  stream->size = size;
  result = kinetrel_take_head_(stream);
  if (result == kinetrel_stream_ok) {
    kinetrel_stream_skip(stream);
  } else {
    stream->memory = NULL;
  }
  return result;
}

static inline void kinetrel_stream_close(kinetrel_stream* stream) {
  kinetrel_unmap_(stream);
  kinetrel_clear_(stream);
}

/* ---- Records ---- */

static inline const unsigned char* kinetrel_entry_(const kinetrel_stream* stream, uint64_t number) {
  return stream->memory + stream->head.ring_offset +
         (size_t)(number % stream->head.ring_count) * stream->head.record_size;
}

static inline void kinetrel_stream_skip(kinetrel_stream* stream) {
  if (stream->memory != NULL) stream->next = kinetrel_newest_(stream) + 1;
}

/* The oldest record that the writer will not overwrite at once. */
static inline uint64_t kinetrel_oldest_(const kinetrel_stream* stream, uint64_t newest) {
  const uint64_t kept = stream->head.ring_count - stream->head.ring_count / 32;
  return newest > kept ? newest - kept + 1 : 1;
}

static inline void kinetrel_stream_rewind(kinetrel_stream* stream) {
  if (stream->memory != NULL) stream->next = kinetrel_oldest_(stream, kinetrel_newest_(stream));
}

static inline uint64_t kinetrel_stream_lost(const kinetrel_stream* stream) { return stream->lost; }

/* Takes the next record without waiting: ok, none, or not_a_stream. */
static inline kinetrel_stream_result kinetrel_take_(kinetrel_stream* stream,
                                                    kinetrel_record* record) {
  int tries;
  for (tries = 0; tries < kinetrel_tries_; ++tries) {
    const uint64_t newest = kinetrel_newest_(stream);
    uint64_t sequence;
    if (newest + 1 == stream->next) return kinetrel_stream_none;
    if (newest < stream->next) return kinetrel_stream_not_a_stream; /* it went back */
    if (newest - stream->next < stream->head.ring_count) {
      sequence = kinetrel_try_copy_(record, kinetrel_entry_(stream, stream->next), sizeof *record);
      if (sequence == 2 * stream->next) {
        record->number = stream->next++;
        return kinetrel_stream_ok;
      }
      if (sequence < 2 * stream->next) return kinetrel_stream_not_a_stream;
    }
    /* The writer has come round: go on where it will not be soon. */
    sequence = kinetrel_oldest_(stream, newest);
    if (sequence > stream->next) {
      stream->lost += sequence - stream->next;
      stream->next = sequence;
    }
  }
  return kinetrel_stream_not_a_stream;
}

/* Looks whether another writer has the slot, and goes over to it.
 * Returns  ok: still the same one; none: it has gone, and the next one is not there yet; restarted;
 *          newer_version; system. */
static inline kinetrel_stream_result kinetrel_follow_(kinetrel_stream* stream) {
  kinetrel_stream next;
  kinetrel_stream_result result;
  if (stream->slot == 0) return kinetrel_stream_ok; /* the caller's memory */
  if (stream->memory != NULL) {
    const kinetrel_standing_ standing = kinetrel_standing_of_(stream);
    if (standing == kinetrel_truncated_) {
      kinetrel_unmap_(stream); /* before it is touched again */
    } else if (standing == kinetrel_current_ &&
               kinetrel_load64_(stream->memory) == kinetrel_load64_(stream->head.magic) &&
               kinetrel_load64_(stream->memory + offsetof(kinetrel_stream_head, instance)) ==
                   stream->head.instance) {
      return kinetrel_stream_ok;
    }
  }
  result = kinetrel_try_open_(&next, stream->slot);
  if (result == kinetrel_stream_newer_version || result == kinetrel_stream_system) return result;
  if (result != kinetrel_stream_ok) return kinetrel_stream_none;
  if (stream->memory != NULL && next.head.instance == stream->head.instance) {
    kinetrel_unmap_(&next);
    return kinetrel_stream_ok;
  }
  kinetrel_unmap_(stream);
  next.lost = stream->lost;
  *stream = next;
  stream->next = kinetrel_oldest_(stream, kinetrel_newest_(stream));
  return kinetrel_stream_restarted;
}

static inline int kinetrel_is_open_(const kinetrel_stream* stream) {
  return stream->memory != NULL || stream->slot != 0;
}

/* How long to sleep in one step, in ms; 0: the time is up. */
static inline int kinetrel_step_(int64_t start_ns, int64_t now_ns, int timeout_ms) {
  int64_t left;
  if (timeout_ms < 0) return kinetrel_check_every_ms_;
  left = ((int64_t)timeout_ms * 1000000 - (now_ns - start_ns) + 999999) / 1000000;
  if (left <= 0) return 0;
  return left < kinetrel_check_every_ms_ ? (int)left : kinetrel_check_every_ms_;
}

static inline kinetrel_stream_result kinetrel_stream_next(kinetrel_stream* stream,
                                                          kinetrel_record* record, int timeout_ms) {
  int64_t start = 0;
  int in_vain = 0; /* waits in a row that ended at once and brought nothing */
  if (!kinetrel_is_open_(stream)) return kinetrel_stream_invalid;
  for (;;) {
    kinetrel_stream_result result = kinetrel_stream_none;
    uint32_t arrivals = 0;
    int64_t now;
    int step;
    if (stream->memory != NULL) {
      arrivals = kinetrel_arrivals_(stream); /* before the look, so that no arrival is overslept */
      result = kinetrel_take_(stream, record);
      if (result == kinetrel_stream_ok) return result;
    }
    now = kinetrel_now_ns();
    if (start == 0) start = now;
    if (now >= stream->check_ns || result != kinetrel_stream_none) {
      const kinetrel_stream_result followed = kinetrel_follow_(stream);
      stream->check_ns = now + (int64_t)kinetrel_check_every_ms_ * 1000000;
      if (followed == kinetrel_stream_ok && result != kinetrel_stream_none) return result;
      if (followed != kinetrel_stream_ok && followed != kinetrel_stream_none) return followed;
      if (followed == kinetrel_stream_none) stream->check_ns = 0;
    }
    step = kinetrel_step_(start, now, timeout_ms);
    if (step == 0) return kinetrel_stream_timed_out;
    if (stream->check_ns == 0) {
      kinetrel_sleep_(step < 10 ? step : 10); /* until the next writer comes */
    } else {
      kinetrel_wait_(stream, arrivals, step);
      in_vain = kinetrel_now_ns() - now < 100000 ? in_vain + 1 : 0;
      if (in_vain > 10) kinetrel_sleep_(1); /* a count that goes on without records */
    }
  }
}

/* ---- The rest ---- */

static inline kinetrel_stream_result kinetrel_stream_newest(kinetrel_stream* stream,
                                                            unsigned sensor,
                                                            kinetrel_record* record) {
  const unsigned char* entry;
  if (!kinetrel_is_open_(stream) || sensor >= kinetrel_stream_sensors) {
    return kinetrel_stream_invalid;
  }
  if (stream->memory == NULL || sensor >= stream->head.sensor_count) return kinetrel_stream_none;
  entry = stream->memory + stream->head.sensor_offset + (size_t)sensor * stream->head.record_size;
  if (!kinetrel_copy_whole_(record, entry, sizeof *record)) return kinetrel_stream_busy;
  if (record->number == 0) return kinetrel_stream_none;
  record->number /= 2;
  return kinetrel_stream_ok;
}

static inline kinetrel_stream_result kinetrel_stream_device_pose(kinetrel_stream* stream,
                                                                 const kinetrel_record* record,
                                                                 kinetrel_device_pose* pose) {
  const uint32_t pose_bits = kinetrel_position_valid | kinetrel_orientation_valid |
                             kinetrel_device_position | kinetrel_device_angles |
                             kinetrel_device_quaternion;
  const unsigned char* entry;
  if (!kinetrel_is_open_(stream)) return kinetrel_stream_invalid;
  if ((record->flags & kinetrel_filtered) == 0) {
    pose->number = record->number;
    memcpy(pose->position, record->position, sizeof pose->position);
    memcpy(pose->orientation, record->orientation, sizeof pose->orientation);
    memcpy(pose->angles, record->angles, sizeof pose->angles);
    pose->flags = record->flags & pose_bits;
    return kinetrel_stream_ok;
  }
  if (stream->memory == NULL || stream->head.device_pose_offset == 0) return kinetrel_stream_none;
  entry = stream->memory + stream->head.device_pose_offset +
          (size_t)(record->number % stream->head.ring_count) * stream->head.device_pose_size;
  if (kinetrel_try_copy_(pose, entry, sizeof *pose) != 2 * record->number) {
    return kinetrel_stream_none;
  }
  pose->number = record->number;
  pose->flags &= pose_bits;
  return kinetrel_stream_ok;
}

static inline kinetrel_stream_result kinetrel_stream_run(kinetrel_stream* stream,
                                                         kinetrel_run* run) {
  int i;
  if (stream->memory == NULL) return kinetrel_stream_invalid;
  if (!kinetrel_copy_whole_(run, stream->memory + stream->head.run_offset, sizeof *run)) {
    return kinetrel_stream_busy;
  }
  kinetrel_clean_text_(run->state_text, sizeof run->state_text);
  kinetrel_clean_text_(run->device_name, sizeof run->device_name);
  for (i = 0; i < kinetrel_stream_sensors; ++i) {
    kinetrel_clean_text_(run->sensor_names[i], sizeof run->sensor_names[i]);
  }
  return kinetrel_stream_ok;
}

static inline kinetrel_state kinetrel_stream_state(kinetrel_stream* stream, char text[256]) {
  kinetrel_run run;
  int64_t heartbeat;
  kinetrel_state state = kinetrel_state_lost;
  const char* sentence = "The tracker's program shows no sign of life: it was killed or held up.";
  memset(&run, 0, sizeof run);
  if (stream->memory != NULL) {
    if (kinetrel_stream_run(stream, &run) != kinetrel_stream_ok) run.state = 0;
    heartbeat = (int64_t)kinetrel_load64_(
        kinetrel_live_(stream, offsetof(kinetrel_stream_live, heartbeat_ns)));
    if (run.state == (int32_t)kinetrel_state_stopped ||
        run.state == (int32_t)kinetrel_state_failed ||
        kinetrel_now_ns() / 1000000 - heartbeat / 1000000 < kinetrel_heartbeat_patience_ms_) {
      state = run.state > 0 && run.state < (int32_t)kinetrel_state_lost ? (kinetrel_state)run.state
                                                                        : kinetrel_state_unknown;
      sentence = run.state_text;
    }
  }
  if (text != NULL) {
    const size_t length = strlen(sentence);
    memcpy(text, sentence, length + 1);
  }
  return state;
}

static inline int kinetrel_stream_log(kinetrel_stream* stream, kinetrel_log_line* lines,
                                      int count) {
  uint64_t newest, number;
  int copied = 0;
  if (stream->memory == NULL || count <= 0) return 0;
  newest = kinetrel_load64_(kinetrel_live_(stream, offsetof(kinetrel_stream_live, log_newest)));
  number = (uint64_t)count < stream->head.log_count ? (uint64_t)count : stream->head.log_count;
  if (newest < number) number = newest;
  for (; number > 0; --number) {
    const uint64_t wanted = newest - number + 1;
    const unsigned char* entry =
        stream->memory + stream->head.log_offset +
        (size_t)(wanted % stream->head.log_count) * stream->head.log_line_size;
    kinetrel_log_line* const line = &lines[copied];
    if (kinetrel_try_copy_(line, entry, sizeof *line) != 2 * wanted) continue;
    line->number = wanted;
    kinetrel_clean_text_(line->text, sizeof line->text);
    ++copied;
  }
  return copied;
}

static inline double kinetrel_run_filter_lag(const kinetrel_run* run, unsigned sensor) {
  return sensor < kinetrel_stream_sensors ? run->filter_lag[sensor] / 1e5 : 0.0;
}

static inline int64_t kinetrel_run_utc_ns(const kinetrel_run* run, int64_t time_ns) {
  return (int64_t)((uint64_t)run->utc_ns + (uint64_t)time_ns - (uint64_t)run->clock_ns);
}

static inline const char* kinetrel_stream_result_text(kinetrel_stream_result result) {
  switch (result) {
    case kinetrel_stream_ok:
      return "ok";
    case kinetrel_stream_timed_out:
      return "nothing new within the time";
    case kinetrel_stream_restarted:
      return "a new writer has the slot";
    case kinetrel_stream_none:
      return "no tracker publishes on this slot";
    case kinetrel_stream_busy:
      return "the writer was interrupted while it wrote";
    case kinetrel_stream_not_a_stream:
      return "not a Kinetrel stream";
    case kinetrel_stream_newer_version:
      return "newer version: a later Kinetrel writes this stream";
    case kinetrel_stream_denied:
      return "this account may not read the stream";
    case kinetrel_stream_invalid:
      return "invalid argument, or the stream is not open";
    case kinetrel_stream_system:
      return "the system refused";
  }
  return "unknown";
}

static inline const char* kinetrel_state_text(kinetrel_state state) {
  switch (state) {
    case kinetrel_state_unknown:
      return "unknown";
    case kinetrel_state_starting:
      return "starting";
    case kinetrel_state_running:
      return "running";
    case kinetrel_state_silent:
      return "silent";
    case kinetrel_state_recovering:
      return "recovering";
    case kinetrel_state_stopped:
      return "stopped";
    case kinetrel_state_failed:
      return "failed";
    case kinetrel_state_lost:
      return "lost";
  }
  return "unknown";
}

#endif

#ifdef __cplusplus
}
#endif
