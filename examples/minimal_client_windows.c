// A complete client of Kinetrel's shared memory for Windows, in C11, with nothing but the system's
// own calls. clients.md tells the rules that it follows.
//
//   cl minimal_client_windows.c      or      gcc -std=c11 minimal_client_windows.c
//   minimal_client_windows [SLOT [BIN [FRAMES]]]    slot 1..16, bin 0..15; FRAMES 0: without end
//
// Prints the pose of the first sensor at every new frame.
#include <windows.h>

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

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

struct Bin {
  struct Block* block;
  HANDLE mutex;
  HANDLE event;
};

static void Fail(const char* what) {
  fprintf(stderr, "%s: error %lu\n", what, GetLastError());
  exit(1);
}

// ---- Opening ----------------------------------------------------------------------------------

// A client that opens what is there, and makes nothing, need not know how a block begins.
static struct Block* OpenBlock(const char* name) {
  HANDLE mapping = OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, name);
  if (mapping == NULL) fprintf(stderr, "waiting for %s\n", name);
  while (mapping == NULL) {
    if (GetLastError() != ERROR_FILE_NOT_FOUND) Fail(name);
    Sleep(200);
    mapping = OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, name);
  }
  void* const memory =
      MapViewOfFile(mapping, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(struct Block));
  if (memory == NULL) Fail(name);
  return memory;
}

// The three objects are made one after the other: the later ones may be a moment behind.
static struct Bin OpenBin(int device, int bin) {
  const char* const digits = "0123456789ABCDEF";
  char name[64];
  struct Bin opened;
  snprintf(name, sizeof name, "KinetrelShMem%c%c", digits[device], digits[bin]);
  opened.block = OpenBlock(name);
  snprintf(name, sizeof name, "KinetrelMutex%c%c", digits[device], digits[bin]);
  while ((opened.mutex = OpenMutexA(SYNCHRONIZE, FALSE, name)) == NULL) Sleep(1);
  snprintf(name, sizeof name, "OrvixDataPublishedEvent-Dev%d-Bin%dEvent", device, bin);
  const DWORD access = SYNCHRONIZE | EVENT_MODIFY_STATE;
  while ((opened.event = OpenEventA(access, FALSE, name)) == NULL) Sleep(1);
  return opened;
}

// ---- Waiting ----------------------------------------------------------------------------------

static void Lock(const struct Bin* bin) {
  const DWORD end = WaitForSingleObject(bin->mutex, INFINITE);
  // Abandoned: its owner died while it held the mutex. It is ours, and all is well.
  if (end != WAIT_OBJECT_0 && end != WAIT_ABANDONED) Fail("locking the mutex");
}

static void Unlock(const struct Bin* bin) { ReleaseMutex(bin->mutex); }

// Copies the first block whose count is not `last`. Waits for 100 ms at a time: another client may
// have reset the event again before our wait began.
static struct Block NextFrame(const struct Bin* bin, int32_t last) {
  Lock(bin);
  while (bin->block->frameCount == last) {
    ResetEvent(bin->event);
    Unlock(bin);
    WaitForSingleObject(bin->event, 100);
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
    fprintf(stderr, "usage: minimal_client_windows [SLOT [BIN [FRAMES]]]\n");
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
