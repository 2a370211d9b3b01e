// A complete client of Kinetrel's shared memory for Linux, in C11. It links no Kinetrel library.
// docs/clients.md gives the rules that it follows.
//
//   cc -std=c11 -pthread -I include examples/minimal_client.c -o minimal_client
//   ./minimal_client [SLOT [BIN [FRAMES]]]      slot 1..16, bin 0..15; FRAMES 0: without end
//
// Prints the pose of the first sensor at every new frame.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "kinetrel/track_block.h"

struct MutexObject {
  pthread_mutex_t mutex;
  _Atomic uint32_t mark;
};

struct Bin {
  kinetrel_track_block* block;
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

// Null while no other process has the object open.
static void* TryOpen(const char* name, size_t size) {
  char path[kinetrel_object_name_size + 1];
  snprintf(path, sizeof path, "/%s", name);
  const int fd = shm_open(path, O_RDWR | O_CLOEXEC, 0);
  if (fd < 0 && errno != ENOENT) Fail(name);
  if (fd < 0) return NULL;
  // If we get the write lock, no process uses the object: a killed program left it behind. The read
  // lock makes us one of its users. It lasts until our process ends, so the descriptor stays open.
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

static struct Bin OpenBin(unsigned device, unsigned bin) {
  char name[kinetrel_object_name_size];
  struct Bin opened;
  kinetrel_block_name(name, device, bin);
  opened.block = Open(name, sizeof(kinetrel_track_block));
  kinetrel_mutex_name(name, device, bin);
  opened.mutex = Open(name, sizeof(struct MutexObject));
  if (opened.mutex->mark != kinetrel_mutex_mark) {
    fprintf(stderr, "%s is not a mutex\n", name);
    exit(1);
  }
  kinetrel_event_name(name, device, bin);
  opened.event = Open(name, sizeof(uint32_t));
  return opened;
}

static const uint32_t stateBits = kinetrel_event_state;

// ---- Waiting ----------------------------------------------------------------------------------

static void Lock(const struct Bin* bin) {
  const int code = pthread_mutex_lock(&bin->mutex->mutex);
  // The owner died while it held the mutex. Now we hold it, and must mark it as consistent.
  if (code == EOWNERDEAD && pthread_mutex_consistent(&bin->mutex->mutex) == 0) return;
  if (code != 0) {
    errno = code;
    Fail("locking the mutex");
  }
}

static void Unlock(const struct Bin* bin) { pthread_mutex_unlock(&bin->mutex->mutex); }

// Call it with the mutex held. Returns the ticket that AwaitEvent waits from.
static uint32_t ResetEvent(const struct Bin* bin) {
  uint32_t word = atomic_load(bin->event);
  while ((word & stateBits) == kinetrel_event_set &&
         !atomic_compare_exchange_weak(bin->event, &word, word & ~stateBits)) {
  }
  return word & ~stateBits;
}

// Call it without the mutex. Returns once the event has been set after the ticket was taken.
static void AwaitEvent(const struct Bin* bin, uint32_t ticket) {
  const struct timespec second = {.tv_sec = 1};  // a writer may be killed before it wakes us
  uint32_t word = atomic_load(bin->event);
  while ((word & stateBits) != kinetrel_event_set && (word & ~stateBits) == ticket) {
    if (atomic_compare_exchange_strong(bin->event, &word, ticket | kinetrel_event_awaited)) {
      syscall(SYS_futex, bin->event, FUTEX_WAIT, ticket | kinetrel_event_awaited, &second, NULL, 0);
      word = atomic_load(bin->event);
    }
  }
}

// Waits for a block whose count is not `last`, and copies it.
static kinetrel_track_block NextFrame(const struct Bin* bin, int32_t last) {
  Lock(bin);
  while (bin->block->frameCount == last) {
    const uint32_t ticket = ResetEvent(bin);
    Unlock(bin);
    AwaitEvent(bin, ticket);
    Lock(bin);
  }
  const kinetrel_track_block copy = *bin->block;
  Unlock(bin);
  return copy;
}

// ---- The program ------------------------------------------------------------------------------

static void Print(const kinetrel_track_block* block) {
  const float* const pose = block->poses[0];
  printf("frame %d", (int)block->frameCount);
  if (block->flags & kinetrel_position_flag)
    printf(" position %.4f %.4f %.4f", pose[0], pose[1], pose[2]);
  if (block->flags & kinetrel_angles_flag)
    printf(" angles %.4f %.4f %.4f", pose[3], pose[4], pose[5]);
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
  const struct Bin bin = OpenBin((unsigned)slot - 1, (unsigned)binNumber);
  Lock(&bin);
  int32_t last = bin.block->frameCount;
  Unlock(&bin);
  for (int shown = 0; frames == 0 || shown < frames;) {
    const kinetrel_track_block block = NextFrame(&bin, last);
    last = block.frameCount;
    if (last == 0) continue;  // a new writer has published nothing yet
    Print(&block);
    ++shown;
  }
  return 0;
}
