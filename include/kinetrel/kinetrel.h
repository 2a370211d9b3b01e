/* Kinetrel for hosts in C and in every language that calls C.
 *
 * One handle is one engine: it opens one tracker, samples it on a time-critical thread of its own
 * and publishes its poses into shared memory. Functions that can fail return 1 for success and 0
 * for refusal unless said otherwise; kinetrel_status_text tells why. A null handle is refused.
 *
 * Threads  any function but kinetrel_destroy may be called from any thread at any time.
 * Memory   texts and arrays are the caller's; nothing is kept after the call.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kinetrel_engine kinetrel_engine;

/* ---- Life ---------------------------------------------------------------------------------- */

kinetrel_engine* kinetrel_create(void);         /* null when there is no memory */
void kinetrel_destroy(kinetrel_engine* engine); /* stops and closes; null is nothing */

/* Sets the start configuration by the console program's options, the program's name first. What is
 * wrong with them is said on standard error. */
int kinetrel_set_options(kinetrel_engine* engine, int count, const char* const* arguments);

enum kinetrel_open_result {
  kinetrel_opened = 0,
  kinetrel_no_device = -1, /* a type that has no driver */
  kinetrel_already_open = -2,
  kinetrel_port_failed = -3,
  kinetrel_boot_failed = -4,
  kinetrel_no_engine = -5 /* a null handle, or no memory */
};

/* port   n of COMn, 257 for USB.
 * reset  nonzero: from the default configuration instead of what was set. */
enum kinetrel_open_result kinetrel_open(kinetrel_engine* engine, int device_type, int port,
                                        int reset);

/* Opens what the options named. */
enum kinetrel_open_result kinetrel_open_configured(kinetrel_engine* engine);
int kinetrel_close(kinetrel_engine* engine);
int kinetrel_is_open(const kinetrel_engine* engine);

int kinetrel_start_sampling(kinetrel_engine* engine);
int kinetrel_stop_sampling(kinetrel_engine* engine, int wait); /* with wait: up to 10 s */

/* 1: no sampling thread, or it ended within the time. */
int kinetrel_wait_sampling(const kinetrel_engine* engine, int timeout_ms);

/* Takes the azimuth last read from any sensor as zero for all; and back. */
int kinetrel_zero_azimuth(kinetrel_engine* engine);
int kinetrel_restore_azimuth(kinetrel_engine* engine);

/* Shared-memory device 0..15, negative: from the port. */
int kinetrel_set_shared_memory_device(kinetrel_engine* engine, int id);
int kinetrel_reset_mappings(kinetrel_engine* engine);
int kinetrel_add_default_mappings(kinetrel_engine* engine);

/* The newest message of the status log and its code, the text cut to size - 1 characters. */
int kinetrel_status_text(kinetrel_engine* engine, int* code, int size, char* text);

/* ---- Attributes ---------------------------------------------------------------------------- */

enum kinetrel_value_type { kinetrel_number = 0, kinetrel_text = 2, kinetrel_floats = 3 };

typedef struct kinetrel_attribute {
  int id;
  int value_type; /* see above */
  int count;      /* of values; -1 for a text */
  char name[32];
} kinetrel_attribute;

enum kinetrel_attribute_id {
  kinetrel_tracker_name = 0,
  kinetrel_current_status = 1,
  kinetrel_shared_memory_id = 2,
  kinetrel_sensor_mask = 3,
  kinetrel_component_mask = 4,
  kinetrel_units = 5,
  kinetrel_joystick_port = 6,
  kinetrel_offset = 7,
  kinetrel_hemisphere = 8,
  kinetrel_align_x = 9,
  kinetrel_align_y = 10,
  kinetrel_roll_all_sensors = 11,
  kinetrel_bore = 12,
  kinetrel_continuous = 13,
  kinetrel_query = 14,
  kinetrel_synchronization = 15,
  kinetrel_protocol = 16,
  kinetrel_control_string = 17,
  kinetrel_device_type = 18
};

int kinetrel_get_num_available_attributes(kinetrel_engine* engine, int* count);
int kinetrel_get_available_attributes(kinetrel_engine* engine, int count, kinetrel_attribute* rows);
int kinetrel_get_attribute_int(kinetrel_engine* engine, int id, int* value);
int kinetrel_set_attribute_int(kinetrel_engine* engine, int id, int value);
int kinetrel_get_attribute_floats(kinetrel_engine* engine, int id, int count, float* values);
int kinetrel_set_attribute_floats(kinetrel_engine* engine, int id, int count, const float* values);

/* At most size characters are copied: a text that fills them has no terminator. */
int kinetrel_get_attribute_string(kinetrel_engine* engine, int id, int size, char* text);
int kinetrel_set_attribute_string(kinetrel_engine* engine, int id, const char* text);

/* ---- Mappings ------------------------------------------------------------------------------ */
/* A key is {device, bin 0..15, pose slot 0..31}; the device is carried, not compared. */

int kinetrel_get_mapping_size(kinetrel_engine* engine, int* count);
int kinetrel_get_mapping_list(kinetrel_engine* engine, int count, int* keys); /* 3 ints each */
int kinetrel_get_mapping(kinetrel_engine* engine, const int key[3], int* sensor);
int kinetrel_set_mapping(kinetrel_engine* engine, const int key[3], int sensor); /* < 0 removes */

/* ---- Filters ------------------------------------------------------------------------------- */
/* A filter index of -1 means the mapping itself: its attributes are what is published for it and
 * its statistics, and can only be read. */

enum kinetrel_mapping_attribute_id {
  kinetrel_mapping_name = 0,
  kinetrel_mapping_position = 1,   /* 3 floats */
  kinetrel_mapping_euler = 2,      /* 3 floats, radians */
  kinetrel_mapping_quaternion = 3, /* 4 floats, scalar first */
  kinetrel_mapping_digital = 4,
  kinetrel_mapping_frame_count = 5,
  kinetrel_mapping_frame_rate = 6, /* 1 to 4 floats: mean, deviation, minimum, maximum; Hz */
  kinetrel_mapping_latency = 7     /* the same, seconds */
};

int kinetrel_add_filter(kinetrel_engine* engine, const int key[3], int type); /* index, or -1 */
int kinetrel_clear_filters(kinetrel_engine* engine, const int key[3]);
int kinetrel_clear_filter(kinetrel_engine* engine, const int key[3], int index);
int kinetrel_get_num_filters(kinetrel_engine* engine, const int key[3], int* count);
int kinetrel_get_filter_type(kinetrel_engine* engine, const int key[3], int index, int* type);
int kinetrel_move_filter(kinetrel_engine* engine, const int key[3], int index, int up);
int kinetrel_enable_filter(kinetrel_engine* engine, const int key[3], int index, int enable);
int kinetrel_get_filter_enabled(kinetrel_engine* engine, const int key[3], int index, int* enabled);

int kinetrel_set_filter_attribute_int(kinetrel_engine* engine, const int key[3], int index, int id,
                                      int value);
int kinetrel_set_filter_attribute_double(kinetrel_engine* engine, const int key[3], int index,
                                         int id, double value);
int kinetrel_set_filter_attribute_floats(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int count, const float* values);
int kinetrel_set_filter_attribute_string(kinetrel_engine* engine, const int key[3], int index,
                                         int id, const char* text);
int kinetrel_get_filter_attribute_int(kinetrel_engine* engine, const int key[3], int index, int id,
                                      int* value);
int kinetrel_get_filter_attribute_double(kinetrel_engine* engine, const int key[3], int index,
                                         int id, double* value);
int kinetrel_get_filter_attribute_floats(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int count, float* values);
int kinetrel_get_filter_attribute_string(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int size, char* text);
int kinetrel_get_num_available_filter_attributes(kinetrel_engine* engine, const int key[3],
                                                 int index, int* count);
int kinetrel_get_available_filter_attributes(kinetrel_engine* engine, const int key[3], int index,
                                             int count, kinetrel_attribute* rows);

#ifdef __cplusplus
}
#endif
