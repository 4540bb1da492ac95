/* The virtual unit's state folder: file names, memory map, the key=value config and its lock. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The environment variable naming the state folder. */
#define VU_ENV_DIR "LUMAXIS_VIRTUAL_UNIT"
/* Set to a file path to append one line per libusb call and request (for debugging). */
#define VU_ENV_TRACE "LUMAXIS_VIRTUAL_UNIT_TRACE"

#define VU_FILE_CONFIG "unit.conf"
#define VU_FILE_FLASH "flash.bin"
#define VU_FILE_OTP "otp.bin"
#define VU_FILE_LOCK "lock"
/* What the current transfer has done so far (see report_progress in bootloader.c). */
#define VU_FILE_PROGRESS "progress"

/* STM32F4 with 1 MiB of flash: sectors 4x16K, 1x64K, 7x128K. */
#define VU_FLASH_BASE 0x08000000u
#define VU_FLASH_SIZE 0x100000u
/* 512 data bytes followed by 16 lock bytes. */
#define VU_OTP_BASE 0x1FFF7800u
#define VU_OTP_SIZE 528u
#define VU_OPTION_BASE 0x1FFFC000u
#define VU_OPTION_SIZE 16u
#define VU_FEATURE_BASE 0xFFFF0000u
#define VU_FEATURE_SIZE 4u

#define VU_DEFAULT_SERIAL "3473375A3334"
#define VU_DEFAULT_ABSENT_MS 2000
#define VU_DEFAULT_REENUMERATE_MS 3000

#define VU_CONF_MAX 64
#define VU_KEY_MAX 40
#define VU_VALUE_MAX 216

struct vu_conf_entry
{
    char key[VU_KEY_MAX];
    char value[VU_VALUE_MAX];
};

/* The config keeps its entries in file order, so a rewrite keeps keys a reader does not know. */
struct vu_conf
{
    int count;
    struct vu_conf_entry entries[VU_CONF_MAX];
};

/* Joins dir and name into out; returns 0, or -1 when it does not fit. */
int vu_path(char* out, size_t size, const char* dir, const char* name);

/* Parses "key=value" lines; '#' lines and blank lines are skipped. */
void vu_conf_parse(struct vu_conf* conf, const char* text, size_t length);
/* Returns 0, or -1 when the folder holds no config. */
int vu_conf_load(struct vu_conf* conf, const char* dir);
/* Writes a temporary file and renames it over the config, so a reader never sees half a file. */
int vu_conf_save(const struct vu_conf* conf, const char* dir);

const char* vu_conf_get(const struct vu_conf* conf, const char* key, const char* fallback);
/* Accepts decimal and 0x-prefixed hexadecimal; a missing or malformed value gives fallback. */
long long vu_conf_get_int(const struct vu_conf* conf, const char* key, long long fallback);
void vu_conf_set(struct vu_conf* conf, const char* key, const char* value);
void vu_conf_set_int(struct vu_conf* conf, const char* key, long long value);
void vu_conf_remove(struct vu_conf* conf, const char* key);

/* Wall-clock milliseconds, comparable across processes. */
long long vu_now_ms(void);
/* Where the unit stands on the bus. After a leave in leave_mode "reenumerate" it is back after
 * absent_ms but, for the first half of reenumerate_ms, not yet open to this user (udev has not
 * applied its rule), then for the second half without string descriptors. */
enum vu_presence { VU_ABSENT, VU_OPEN_DENIED, VU_NO_STRINGS, VU_PRESENT };
enum vu_presence vu_conf_presence(const struct vu_conf* conf, long long now_ms);

/* Takes the folder's exclusive lock, retrying for up to timeout_ms; returns its fd or -1. */
int vu_lock(const char* dir, int timeout_ms);
void vu_unlock(int fd);

/* Appends one formatted line to the file named by VU_ENV_TRACE, if it is set. */
void vu_trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif
