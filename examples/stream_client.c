/* A complete client of the record stream in C11, for Linux and Windows; docs/stream.md tells more.
 *
 *   cc -std=c11 stream_client.c -o stream_client
 *   ./stream_client [SLOT [RECORDS]]      slot 1 to 16; RECORDS 0: without end
 *
 * Prints every record: sensor, position in metres, quaternion, and its age in milliseconds. */
#include <kinetrel/stream.h>
#include <stdio.h>
#include <stdlib.h>

static void PrintRecord(const kinetrel_record* record) {
  const double age_ms = (double)(kinetrel_now_ns() - record->sample_ns) / 1e6;
  printf("%llu sensor %u", (unsigned long long)record->number, record->sensor + 1);
  if ((record->flags & kinetrel_position_valid) != 0) {
    printf(" position %.4f %.4f %.4f", record->position[0], record->position[1],
           record->position[2]);
  }
  if ((record->flags & kinetrel_orientation_valid) != 0) {
    printf(" orientation %.4f %.4f %.4f %.4f", (double)record->orientation[0],
           (double)record->orientation[1], (double)record->orientation[2],
           (double)record->orientation[3]);
  }
  printf(" age %.2f ms\n", age_ms);
  fflush(stdout);
}

static void SayState(kinetrel_stream* stream) {
  char text[256];
  const kinetrel_state state = kinetrel_stream_state(stream, text);
  fprintf(stderr, "%s: %s\n", kinetrel_state_text(state), text);
}

int main(int argc, char** argv) {
  const int slot = argc > 1 ? atoi(argv[1]) : 1;
  long left = argc > 2 ? atol(argv[2]) : 0;
  kinetrel_stream stream;
  kinetrel_record record;
  uint64_t lost = 0;
  kinetrel_stream_result result = kinetrel_stream_open(&stream, slot, 10000);
  if (result != kinetrel_stream_ok) {
    fprintf(stderr, "slot %d: %s\n", slot, kinetrel_stream_result_text(result));
    return 1;
  }
  SayState(&stream);
  for (;;) {
    result = kinetrel_stream_next(&stream, &record, 1000);
    if (result == kinetrel_stream_ok) {
      PrintRecord(&record);
      if (--left == 0) break;
    } else if (result == kinetrel_stream_timed_out || result == kinetrel_stream_restarted) {
      SayState(&stream); /* silent, stopped or another tracker: go on */
    } else {
      fprintf(stderr, "slot %d: %s\n", slot, kinetrel_stream_result_text(result));
      break;
    }
    if (kinetrel_stream_lost(&stream) != lost) {
      lost = kinetrel_stream_lost(&stream);
      fprintf(stderr, "%llu records lost so far\n", (unsigned long long)lost);
    }
  }
  kinetrel_stream_close(&stream);
  return result == kinetrel_stream_ok ? 0 : 1;
}
