/* Kinetrel for hosts in C and in every language that calls C.
 *
 * One handle is one engine. It opens one tracker, samples it on a time-critical thread of its own
 * and publishes the poses into shared memory.
 *
 * Results  an int is 1 for success and 0 for refusal, unless said otherwise. A refused call changes
 *          nothing, and kinetrel_status_text tells the reason. A null handle and a null pointer are
 *          refused.
 * Units    positions and offsets are in the length unit of the units attribute; angles are in
 *          radians, in the order azimuth, elevation, roll. Quaternions have the scalar first.
 * Threads  any thread may call any function at any time, except kinetrel_destroy: no other call on
 *          the handle may be running then.
 * Output   the engine prints its progress and failures on standard error; see
 *          kinetrel_set_printing. A closed standard stream does not end the host by SIGPIPE.
 * Memory   the caller owns all texts and arrays; the engine keeps no pointer after the call.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kinetrel_engine kinetrel_engine;

/* ---- Life ---------------------------------------------------------------------------------- */

/* Makes a closed engine with the default configuration. The caller owns it and ends it with
 * kinetrel_destroy. Null without memory. */
kinetrel_engine* kinetrel_create(void);

/* Stops sampling, closes the device and frees the engine. Null does nothing. */
void kinetrel_destroy(kinetrel_engine* engine);

/* Switches off (`on` 0) or on all printing of the library on standard output and standard error,
 * for all engines of the process. On at first. The status log keeps every message all the same. */
void kinetrel_set_printing(int on);

/* Sets the start configuration with the options of the console program, such as "-d8".
 *
 * arguments  count texts; the first one is the name of the program and is not an option.
 * Returns    1 if all options were accepted. 0 at the first malformed option; the options before it
 *            stay applied. 0 and no change while the engine is open. Every accepted value and every
 *            error is printed on standard error. The newest text of the status log tells
 *            the error too.
 */
int kinetrel_set_options(kinetrel_engine* engine, int count, const char* const* arguments);

enum kinetrel_open_result {
  kinetrel_opened = 0,
  kinetrel_no_device = -1, /* no driver for the type */
  kinetrel_already_open = -2,
  kinetrel_port_failed = -3,
  kinetrel_boot_failed = -4,
  kinetrel_no_engine = -5 /* a null handle, or no memory */
};

/* Opens the port of a tracker, boots the tracker and sends it the configuration. Blocks until the
 * tracker has booted, which may take many seconds. Does not start sampling.
 *
 * device_type  a number of the -d option.
 * port         n of COMn, or 257 for USB.
 * reset        nonzero: starts from the default configuration and forgets the options set before.
 */
enum kinetrel_open_result kinetrel_open(kinetrel_engine* engine, int device_type, int port,
                                        int reset);

/* Like kinetrel_open, with the device type and the port of the options (-d, -p). */
enum kinetrel_open_result kinetrel_open_configured(kinetrel_engine* engine);

/* Stops sampling and closes the device. Waits up to 10 s for the sampling thread; a thread that
 * hangs in its device is abandoned. 0 if the engine is not open. */
int kinetrel_close(kinetrel_engine* engine);

/* 1 from a successful open to the next close. */
int kinetrel_is_open(const kinetrel_engine* engine);

/* Starts the sampling thread, unless it runs. 0 if the engine is not open. The first frame is
 * published some time after the return. */
int kinetrel_start_sampling(kinetrel_engine* engine);

/* Tells the sampling thread to end; also 1 if there is none.
 *
 * wait  nonzero: returns when the thread has ended, after at most 10 s.
 */
int kinetrel_stop_sampling(kinetrel_engine* engine, int wait);

/* Waits for the sampling thread to end by itself or by a stop.
 *
 * timeout_ms  milliseconds; 0 or less returns at once.
 * Returns     1 if there is no sampling thread or it ended in time, 0 if it still runs.
 */
int kinetrel_wait_sampling(const kinetrel_engine* engine, int timeout_ms);

/* Makes the azimuth that was last read from any sensor the zero of all published azimuths. */
int kinetrel_zero_azimuth(kinetrel_engine* engine);

/* Publishes azimuths as the tracker reports them again. */
int kinetrel_restore_azimuth(kinetrel_engine* engine);

/* Chooses the shared-memory device number to publish on. Stops and restarts a running sampling
 * thread.
 *
 * id       0 to 15; negative: the number that belongs to the port.
 * Returns  0 for 16 and above.
 */
int kinetrel_set_shared_memory_device(kinetrel_engine* engine, int id);

/* Replaces all mappings and their filters by the default: sensor i is published in bin 0, pose slot
 * i, for every sensor of the sensor mask. */
int kinetrel_reset_mappings(kinetrel_engine* engine);

/* Adds the default mappings that are missing and keeps the others. */
int kinetrel_add_default_mappings(kinetrel_engine* engine);

/* Reads the newest message of the status log.
 *
 * code  receives the code of the message: negative for a failure. May be null.
 * text  receives the message, cut to size - 1 characters and terminated. May be null.
 */
int kinetrel_status_text(kinetrel_engine* engine, int* code, int size, char* text);

/* ---- Attributes ---------------------------------------------------------------------------- */
/* The settings of the engine, by number. All functions but the first two need an open engine. A
 * setting that the tracker cannot take while it samples stops the sampling thread and starts it
 * again; the frame counts then begin again at zero. */

enum kinetrel_value_type { kinetrel_number = 0, kinetrel_text = 2, kinetrel_floats = 3 };

typedef struct kinetrel_attribute {
  int id;
  int value_type; /* a kinetrel_value_type */
  int count;      /* number of values: 1 for a number, -1 for a text */
  char name[32];
} kinetrel_attribute;

enum kinetrel_attribute_id {
  kinetrel_tracker_name = 0,      /* text: a name that the host gives */
  kinetrel_current_status = 1,    /* text: the newest status message; setting it has no effect */
  kinetrel_shared_memory_id = 2,  /* 0 to 15; set negative: the number that belongs to the port */
  kinetrel_sensor_mask = 3,       /* bit i: sensor i is sampled */
  kinetrel_component_mask = 4,    /* bit 0 position, 1 Euler angles, 2 quaternion */
  kinetrel_units = 5,             /* 0 inch, 1 centimetre, 3 metre; 2 for GPS receivers */
  kinetrel_joystick_port = 6,     /* 0: no joystick */
  kinetrel_offset = 7,            /* 6 floats: mounting offset, position and angles */
  kinetrel_hemisphere = 8,        /* 3 floats: zenith of the operating hemisphere */
  kinetrel_align_x = 9,           /* 3 floats: x axis of the alignment frame */
  kinetrel_align_y = 10,          /* 3 floats: y axis of the alignment frame */
  kinetrel_roll_all_sensors = 11, /* 1: all sensors are turned by -pi; reads -1 for another roll */
  kinetrel_bore = 12,             /* a number that the engine keeps for the host */
  kinetrel_continuous = 13,      /* 1 streaming, 0 polled; counts from the next start of sampling */
  kinetrel_query = 14,           /* set nonzero: prints and logs the status of the tracker */
  kinetrel_synchronization = 15, /* 0 internal, 1 external, 2 CRT */
  kinetrel_protocol = 16,        /* text that begins with the number of the record format */
  kinetrel_control_string = 17,  /* text: a command for the driver of the tracker */
  kinetrel_device_type = 18      /* the status word of the tracker; cannot be set */
};

/* Reads the number of attributes. Works on a closed engine too. */
int kinetrel_get_num_available_attributes(kinetrel_engine* engine, int* count);

/* Copies the descriptions of the first `count` attributes, or of all if there are fewer. Works on a
 * closed engine too.
 *
 * rows  room for `count` rows.
 */
int kinetrel_get_available_attributes(kinetrel_engine* engine, int count, kinetrel_attribute* rows);

/* Reads an attribute that is a number. */
int kinetrel_get_attribute_int(kinetrel_engine* engine, int id, int* value);

/* Sets an attribute that is a number and sends it to the tracker. Returns when the setting is done;
 * after a restart of sampling the first new frame may not be published yet. */
int kinetrel_set_attribute_int(kinetrel_engine* engine, int id, int value);

/* Reads an attribute of floats.
 *
 * count  must be the count of the attribute.
 */
int kinetrel_get_attribute_floats(kinetrel_engine* engine, int id, int count, float* values);

/* Sets an attribute of floats and sends it to the tracker; otherwise as
 * kinetrel_set_attribute_int.
 *
 * count  must be the count of the attribute.
 */
int kinetrel_set_attribute_floats(kinetrel_engine* engine, int id, int count, const float* values);

/* Reads an attribute that is a text. Copies at most `size` characters: a text that fills them has
 * no terminator. */
int kinetrel_get_attribute_string(kinetrel_engine* engine, int id, int size, char* text);

/* Sets an attribute that is a text. 0 if the tracker refuses the protocol or the command. */
int kinetrel_set_attribute_string(kinetrel_engine* engine, int id, const char* text);

/* ---- Mappings ------------------------------------------------------------------------------ */
/* A mapping says that a sensor is published in a pose slot of a bin. Its key is
 * {device, bin 0..15, pose slot 0..31}. The device number is ignored, except when published
 * data is read with a filter index of -1. All functions need an open engine. */

/* Reads the number of mappings. */
int kinetrel_get_mapping_size(kinetrel_engine* engine, int* count);

/* Copies the keys of all mappings, ordered by bin and pose slot.
 *
 * count  must be the number of mappings.
 * keys   room for 3 x count ints.
 */
int kinetrel_get_mapping_list(kinetrel_engine* engine, int count, int* keys);

/* Reads the sensor of a mapping, from 0. 0 is returned if the mapping does not exist. */
int kinetrel_get_mapping(kinetrel_engine* engine, const int key[3], int* sensor);

/* Adds or changes a mapping.
 *
 * sensor  0 to 31; negative removes the mapping, and also succeeds if it does not exist.
 */
int kinetrel_set_mapping(kinetrel_engine* engine, const int key[3], int sensor);

/* ---- Filters ------------------------------------------------------------------------------- */
/* The filters of a mapping are numbered from 0 in the order in which they are applied.
 *
 * A filter index of -1 means the mapping itself. Its attributes are the data published for it and
 * its statistics; they are read-only. Position, Euler, quaternion, digital and frame count are read
 * from the shared-memory device that the key names; for the others the device number is ignored. */

enum kinetrel_mapping_attribute_id {
  kinetrel_mapping_name = 0,        /* text: "Mapping Name" */
  kinetrel_mapping_position = 1,    /* 3 floats */
  kinetrel_mapping_euler = 2,       /* 3 floats, radians */
  kinetrel_mapping_quaternion = 3,  /* 4 floats, scalar first */
  kinetrel_mapping_digital = 4,     /* the buttons, one bit each */
  kinetrel_mapping_frame_count = 5, /* publications of the bin since sampling started */
  kinetrel_mapping_frame_rate = 6,  /* 1 to 4 floats: mean, deviation, minimum, maximum; Hz */
  kinetrel_mapping_latency = 7 /* 1 to 4 floats, as above; seconds from sample to publication */
};

enum kinetrel_filter_type {
  kinetrel_offset_filter = 3,
  kinetrel_filter_chain = 9,
  kinetrel_rigid_transform_filter = 32,
  kinetrel_one_euro_filter = 33,
  kinetrel_outlier_gate_filter = 34,
  kinetrel_dropout_filter = 35,
  kinetrel_prediction_filter = 36,
  kinetrel_distortion_filter = 37
};

/* Adds a filter to a mapping, which is made if it does not exist. Returns the index of the filter,
 * or -1. No filter can be added by number, so the result is always -1: see
 * kinetrel_add_filter_named. */
int kinetrel_add_filter(kinetrel_engine* engine, const int key[3], int type);

/* Adds a filter to the end of a mapping's list, also while sampling. The mapping must exist.
 *
 * text     the name of the filter and its parameters: "rigid:translation-m=0.1/0/2.5,scale=2".
 *          docs/filters.md lists all. A key that is left out keeps its standard value.
 * Returns  the index of the filter; -1 if it cannot be made.
 */
int kinetrel_add_filter_named(kinetrel_engine* engine, const int key[3], const char* text);

/* Removes all filters of a mapping, which is made if it does not exist. */
int kinetrel_clear_filters(kinetrel_engine* engine, const int key[3]);

/* Removes one filter. The filters after it move down by one index. */
int kinetrel_clear_filter(kinetrel_engine* engine, const int key[3], int index);

/* Reads the number of filters of a mapping. */
int kinetrel_get_num_filters(kinetrel_engine* engine, const int key[3], int* count);

/* Reads the type of a filter: a kinetrel_filter_type. */
int kinetrel_get_filter_type(kinetrel_engine* engine, const int key[3], int index, int* type);

/* Swaps a filter with the one before it (`up` nonzero) or after it. */
int kinetrel_move_filter(kinetrel_engine* engine, const int key[3], int index, int up);

/* Enables (`enable` nonzero) or disables a filter. A disabled filter leaves poses unchanged. */
int kinetrel_enable_filter(kinetrel_engine* engine, const int key[3], int index, int enable);

/* Reads 1 for an enabled filter, 0 for a disabled one. */
int kinetrel_get_filter_enabled(kinetrel_engine* engine, const int key[3], int index, int* enabled);

/* Set one attribute of a filter. 0 if the filter has no such attribute of that type, and always for
 * the index -1. For floats, `count` must be the count of the attribute. */
int kinetrel_set_filter_attribute_int(kinetrel_engine* engine, const int key[3], int index, int id,
                                      int value);
int kinetrel_set_filter_attribute_double(kinetrel_engine* engine, const int key[3], int index,
                                         int id, double value);
int kinetrel_set_filter_attribute_floats(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int count, const float* values);
int kinetrel_set_filter_attribute_string(kinetrel_engine* engine, const int key[3], int index,
                                         int id, const char* text);

/* Read one attribute of a filter, or of the mapping itself with the index -1. 0 if there is no such
 * attribute of that type. Published data is refused until sampling has started, statistics until
 * the third frame. */
int kinetrel_get_filter_attribute_int(kinetrel_engine* engine, const int key[3], int index, int id,
                                      int* value);
int kinetrel_get_filter_attribute_double(kinetrel_engine* engine, const int key[3], int index,
                                         int id, double* value);
int kinetrel_get_filter_attribute_floats(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int count, float* values);

/* Copies at most `size` characters: a text that fills them has no terminator. */
int kinetrel_get_filter_attribute_string(kinetrel_engine* engine, const int key[3], int index,
                                         int id, int size, char* text);

/* Reads the number of attributes of a filter, or of the mapping itself with the index -1. */
int kinetrel_get_num_available_filter_attributes(kinetrel_engine* engine, const int key[3],
                                                 int index, int* count);

/* Copies the descriptions of the first `count` of these attributes, or of all if there are fewer.
 */
int kinetrel_get_available_filter_attributes(kinetrel_engine* engine, const int key[3], int index,
                                             int count, kinetrel_attribute* rows);

#ifdef __cplusplus
}
#endif
