// A complete client of Kinetrel's shared memory for Windows, in C11. It links no Kinetrel library.
// docs/clients.md gives the rules that it follows.
//
//   cl /std:c11 /I include examples/minimal_client_windows.c
//   gcc -std=c11 -I include examples/minimal_client_windows.c -o minimal_client_windows
//   minimal_client_windows [SLOT [BIN [FRAMES]]]    slot 1..16, bin 0..15; FRAMES 0: without end
//
// Prints the pose of the first sensor at every new frame.
#include <windows.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "kinetrel/track_block.h"

struct Bin {
  kinetrel_track_block* block;
  HANDLE mutex;
  HANDLE event;
};

static void Fail(const char* what) {
  fprintf(stderr, "%s: error %lu\n", what, GetLastError());
  exit(1);
}

// ---- Opening ----------------------------------------------------------------------------------

// Opens only what a tracker has made, so it never has to initialise a block.
static kinetrel_track_block* OpenBlock(const char* name) {
  HANDLE mapping = OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, name);
  if (mapping == NULL) fprintf(stderr, "waiting for %s\n", name);
  while (mapping == NULL) {
    if (GetLastError() != ERROR_FILE_NOT_FOUND) Fail(name);
    Sleep(200);
    mapping = OpenFileMappingA(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, name);
  }
  void* const memory =
      MapViewOfFile(mapping, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(kinetrel_track_block));
  if (memory == NULL) Fail(name);
  return memory;
}

// The tracker makes the three objects one after the other: the later ones may come a moment later.
static struct Bin OpenBin(unsigned device, unsigned bin) {
  char name[kinetrel_object_name_size];
  struct Bin opened;
  kinetrel_block_name(name, device, bin);
  opened.block = OpenBlock(name);
  kinetrel_mutex_name(name, device, bin);
  while ((opened.mutex = OpenMutexA(SYNCHRONIZE, FALSE, name)) == NULL) Sleep(1);
  kinetrel_event_name(name, device, bin);
  const DWORD access = SYNCHRONIZE | EVENT_MODIFY_STATE;
  while ((opened.event = OpenEventA(access, FALSE, name)) == NULL) Sleep(1);
  return opened;
}

// ---- Waiting ----------------------------------------------------------------------------------

static void Lock(const struct Bin* bin) {
  const DWORD end = WaitForSingleObject(bin->mutex, INFINITE);
  // Abandoned: the owner died while it held the mutex. Now we hold it.
  if (end != WAIT_OBJECT_0 && end != WAIT_ABANDONED) Fail("locking the mutex");
}

static void Unlock(const struct Bin* bin) { ReleaseMutex(bin->mutex); }

// Waits for a block whose count is not `last`, and copies it. Each wait is 100 ms at most: another
// client may reset the event before our wait begins.
static kinetrel_track_block NextFrame(const struct Bin* bin, int32_t last) {
  Lock(bin);
  while (bin->block->frameCount == last) {
    ResetEvent(bin->event);
    Unlock(bin);
    WaitForSingleObject(bin->event, 100);
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
    fprintf(stderr, "usage: minimal_client_windows [SLOT [BIN [FRAMES]]]\n");
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
