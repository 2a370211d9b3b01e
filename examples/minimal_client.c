// A complete client of Kinetrel's shared memory for Linux, in C11 and without a library of ours.
// clients.md tells the rules that it follows.
//
//   cc -std=c11 -pthread minimal_client.c -o minimal_client
//   ./minimal_client [SLOT [BIN [FRAMES]]]      slot 1..16, bin 0..15; FRAMES 0: without end
//
// Prints the pose of the first sensor at every new frame.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

struct Block {
  int32_t reserved;
  uint32_t flags;
  uint32_t buttons;
  float poses[32][6];        // x y z azimuth elevation roll
  float quaternions[32][4];  // scalar first
  uint32_t padding0;
  double sampleTime;
  double publishTime;
  int32_t frameCount;
  uint8_t writerPresent;
  char deviceName[128];
  char padding1[3];
  double frameRate;
  uint32_t sensorMask;
  uint32_t padding2;
};
_Static_assert(sizeof(struct Block) == 1464, "1464 bytes");
_Static_assert(offsetof(struct Block, sampleTime) == 1296, "as on every machine");

struct MutexObject {
  pthread_mutex_t mutex;
  _Atomic uint32_t mark;
};

static const uint32_t mutexMark = 0x4B4D5458;

struct Bin {
  struct Block* block;
  struct MutexObject* mutex;
  _Atomic uint32_t* event;
};

static void Fail(const char* what) {
  perror(what);
  exit(1);
}

static void Pause(void) {
  const struct timespec moment = {.tv_nsec = 200 * 1000 * 1000};
  nanosleep(&moment, NULL);
}

// ---- Opening ----------------------------------------------------------------------------------

static int SetUseLock(int fd, short type) {
  struct flock lock = {.l_type = type, .l_whence = SEEK_SET, .l_start = 0, .l_len = 1};
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// The object as others have it open; null while nobody has.
static void* TryOpen(const char* name, size_t size) {
  const int fd = shm_open(name, O_RDWR | O_CLOEXEC, 0);
  if (fd < 0 && errno != ENOENT) Fail(name);
  if (fd < 0) return NULL;
  // The write lock is to be had only where nobody uses the object: a killed program left it. With
  // the read lock we are one of its users, until our process ends; the descriptor stays open.
  struct stat about;
  const int inUse = !SetUseLock(fd, F_WRLCK) && SetUseLock(fd, F_RDLCK);
  if (!inUse || fstat(fd, &about) != 0 || about.st_nlink == 0 || about.st_size != (off_t)size) {
    close(fd);
    return NULL;
  }
  void* const memory = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) Fail(name);
  return memory;
}

static void* Open(const char* name, size_t size) {
  void* memory = TryOpen(name, size);
  if (memory == NULL) fprintf(stderr, "waiting for %s\n", name);
  while (memory == NULL) {
    Pause();
    memory = TryOpen(name, size);
  }
  return memory;
}

static struct Bin OpenBin(int device, int bin) {
  const char* const digits = "0123456789ABCDEF";
  char name[64];
  struct Bin opened;
  snprintf(name, sizeof name, "/KinetrelShMem%c%c", digits[device], digits[bin]);
  opened.block = Open(name, sizeof(struct Block));
  snprintf(name, sizeof name, "/KinetrelMutex%c%c", digits[device], digits[bin]);
  opened.mutex = Open(name, sizeof(struct MutexObject));
  if (opened.mutex->mark != mutexMark) {
    fprintf(stderr, "%s is no mutex\n", name);
    exit(1);
  }
  snprintf(name, sizeof name, "/OrvixDataPublishedEvent-Dev%d-Bin%dEvent", device, bin);
  opened.event = Open(name, sizeof(uint32_t));
  return opened;
}

// ---- Waiting ----------------------------------------------------------------------------------

static void Lock(const struct Bin* bin) {
  const int code = pthread_mutex_lock(&bin->mutex->mutex);
  // Its owner died while it held the mutex: the mutex is ours, and has to be told that all is well.
  if (code == EOWNERDEAD && pthread_mutex_consistent(&bin->mutex->mutex) == 0) return;
  if (code != 0) {
    errno = code;
    Fail("locking the mutex");
  }
}

static void Unlock(const struct Bin* bin) { pthread_mutex_unlock(&bin->mutex->mutex); }

// With the mutex held. The answer stands for all that is set from now on.
static uint32_t ResetEvent(const struct Bin* bin) {
  uint32_t word = atomic_load(bin->event);
  while ((word & 3) == 1 && !atomic_compare_exchange_weak(bin->event, &word, word & ~3U)) {
  }
  return word & ~3U;
}

// Without the mutex.
static void AwaitEvent(const struct Bin* bin, uint32_t ticket) {
  const struct timespec second = {.tv_sec = 1};  // a writer may be killed before it wakes us
  uint32_t word = atomic_load(bin->event);
  while ((word & 3) != 1 && (word & ~3U) == ticket) {
    if (atomic_compare_exchange_strong(bin->event, &word, ticket | 2U)) {
      syscall(SYS_futex, bin->event, FUTEX_WAIT, ticket | 2U, &second, NULL, 0);
      word = atomic_load(bin->event);
    }
  }
}

// Copies the first block whose count is not `last`.
static struct Block NextFrame(const struct Bin* bin, int32_t last) {
  Lock(bin);
  while (bin->block->frameCount == last) {
    const uint32_t ticket = ResetEvent(bin);
    Unlock(bin);
    AwaitEvent(bin, ticket);
    Lock(bin);
  }
  const struct Block copy = *bin->block;
  Unlock(bin);
  return copy;
}

// ---- The program ------------------------------------------------------------------------------

static void Print(const struct Block* block) {
  const float* const pose = block->poses[0];
  printf("frame %d", (int)block->frameCount);
  if (block->flags & 1U << 4) printf(" position %.4f %.4f %.4f", pose[0], pose[1], pose[2]);
  if (block->flags & 1U << 5) printf(" angles %.4f %.4f %.4f", pose[3], pose[4], pose[5]);
  printf("\n");
  fflush(stdout);
}

int main(int count, char** arguments) {
  const int slot = count > 1 ? atoi(arguments[1]) : 1;
  const int binNumber = count > 2 ? atoi(arguments[2]) : 0;
  const int frames = count > 3 ? atoi(arguments[3]) : 0;
  if (slot < 1 || slot > 16 || binNumber < 0 || binNumber > 15) {
    fprintf(stderr, "usage: minimal_client [SLOT [BIN [FRAMES]]]\n");
    return 2;
  }
  const struct Bin bin = OpenBin(slot - 1, binNumber);
  Lock(&bin);
  int32_t last = bin.block->frameCount;
  Unlock(&bin);
  for (int shown = 0; frames == 0 || shown < frames;) {
    const struct Block block = NextFrame(&bin, last);
    last = block.frameCount;
    if (last == 0) continue;  // a writer has begun afresh
    Print(&block);
    ++shown;
  }
  return 0;
}
