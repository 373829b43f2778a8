/*
 * Facts and services of the device: who it is, its configuration values, its system log. A maker's build
 * links its own library of this name, which defines these functions with C linkage and these types.
 *
 * Here, on plain Linux, the facts come from "/etc/velmora/board.json" (members "sku", an integer,
 * "deviceModel", "serialNumber" and "otherVersion", texts) and the configuration from
 * "/mnt/flash/config/db.json".
 */
#pragma once

#define BOARD_FILE "/etc/velmora/board.json"
#define DB_FILE "/mnt/flash/config/db.json"

enum {
    SERIAL_NUMBER_SIZE = 128, /* the buffer that get_serial_number fills */
    DEVICE_IP_SIZE = 16,      /* the buffer that get_device_ip fills */
};

extern "C" {

/* The number of the hardware variant, 0 when unknown. */
int get_sku(void);

/* The model's name and the standby image's software version, empty when unknown. Valid until the next call.
 */
const char *get_device_model(void);
const char *get_other_version(void);

/*
 * Fills a buffer of SERIAL_NUMBER_SIZE bytes with the terminated serial number, cut if need be, and sets its
 * length. Returns 0, or -1 with both untouched when there is none. A blank store reads as bytes of 0xFF.
 */
int get_serial_number(char *buffer, int *length);

/*
 * Fills a buffer of DEVICE_IP_SIZE bytes with the dotted IPv4 address of "eth0", or of the first other
 * interface that is up and not loopback. Returns 0, or -1 with an empty text when there is none.
 */
int get_device_ip(char *buffer);

/* One item of the device's configuration, null when there is none. The caller frees it with free(3). */
char *db_read(const char *key);

/* The name under which clog_print logs. */
void clog_set_daemonname(const char *name);

/* One line for the system log. The level is a syslog severity, 0..7; others count as 7. */
void clog_print(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
}
