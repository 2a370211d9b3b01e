/* A host in C: opens the simulated tracker, publishes its first sensor into a second bin as well,
 * reads how fast and how late, and takes the present azimuth as zero.
 *
 *   cc steer.c $(pkg-config --cflags --libs kinetrel) -o steer
 */
#include <stdio.h>

#include <kinetrel/kinetrel.h>

static int Refused(kinetrel_engine* tracker, const char* what) {
  char why[256];
  kinetrel_status_text(tracker, NULL, sizeof why, why);
  fprintf(stderr, "\n%s: %s\n", what, why);
  kinetrel_destroy(tracker);
  return 1;
}

int main(int count, char** arguments) {
  static const char* const standard[] = {"steer", "-d8", "-z-", "-w1"};
  kinetrel_engine* tracker = kinetrel_create();
  const int given = count > 1;
  if (!kinetrel_set_options(tracker, given ? count : 4,
                            given ? (const char* const*)arguments : standard) ||
      kinetrel_open_configured(tracker) != kinetrel_opened) {
    return Refused(tracker, "not opened");
  }

  int slot = 0;
  kinetrel_get_attribute_int(tracker, kinetrel_shared_memory_id, &slot);
  const int second_bin[3] = {slot, 1, 0};
  if (!kinetrel_set_mapping(tracker, second_bin, 0) || !kinetrel_start_sampling(tracker)) {
    return Refused(tracker, "not sampling");
  }

  kinetrel_wait_sampling(tracker, 1000);
  float rate[4];
  float latency[4];
  float euler[3];
  kinetrel_zero_azimuth(tracker);
  kinetrel_wait_sampling(tracker, 100);
  if (!kinetrel_get_filter_attribute_floats(tracker, second_bin, -1, kinetrel_mapping_frame_rate, 4,
                                            rate) ||
      !kinetrel_get_filter_attribute_floats(tracker, second_bin, -1, kinetrel_mapping_latency, 4,
                                            latency) ||
      !kinetrel_get_filter_attribute_floats(tracker, second_bin, -1, kinetrel_mapping_euler, 3,
                                            euler)) {
    return Refused(tracker, "nothing published");
  }
  printf("\n%.1f Hz (%.1f to %.1f), %.3f ms late, azimuth now %.3f rad\n", rate[0], rate[2],
         rate[3], 1000 * latency[0], euler[0]);
  kinetrel_close(tracker);
  kinetrel_destroy(tracker);
  return 0;
}
