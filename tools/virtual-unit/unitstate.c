/* The virtual unit's state folder: config parsing and writing, presence, locking. */
#include "tools/virtual-unit/unitstate.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

int vu_path(char* out, size_t size, const char* dir, const char* name)
{
    int n = snprintf(out, size, "%s/%s", dir, name);
    return (n < 0 || (size_t)n >= size) ? -1 : 0;
}

static void copy_trimmed(char* out, size_t size, const char* begin, const char* end)
{
    while (begin < end && (*begin == ' ' || *begin == '\t'))
        ++begin;
    while (end > begin && (end[-1] == ' ' || end[-1] == '\t' || end[-1] == '\r'))
        --end;
    size_t n = (size_t)(end - begin);
    if (n >= size)
        n = size - 1;
    memcpy(out, begin, n);
    out[n] = '\0';
}

void vu_conf_parse(struct vu_conf* conf, const char* text, size_t length)
{
    conf->count = 0;
    const char* end = text + length;
    for (const char* line = text; line < end;) {
        const char* eol = memchr(line, '\n', (size_t)(end - line));
        if (!eol)
            eol = end;
        const char* eq = memchr(line, '=', (size_t)(eol - line));
        if (eq && line[0] != '#') {
            char key[VU_KEY_MAX];
            char value[VU_VALUE_MAX];
            copy_trimmed(key, sizeof key, line, eq);
            copy_trimmed(value, sizeof value, eq + 1, eol);
            if (key[0])
                vu_conf_set(conf, key, value);
        }
        line = eol + 1;
    }
}

int vu_conf_load(struct vu_conf* conf, const char* dir)
{
    conf->count = 0;
    char path[4096];
    if (vu_path(path, sizeof path, dir, VU_FILE_CONFIG))
        return -1;
    FILE* f = fopen(path, "rb");
    if (!f)
        return -1;
    char text[VU_CONF_MAX * (VU_KEY_MAX + VU_VALUE_MAX + 2)];
    size_t n = fread(text, 1, sizeof text, f);
    fclose(f);
    vu_conf_parse(conf, text, n);
    return 0;
}

int vu_conf_save(const struct vu_conf* conf, const char* dir)
{
    char path[4096];
    char temp[4096];
    if (vu_path(path, sizeof path, dir, VU_FILE_CONFIG) ||
        snprintf(temp, sizeof temp, "%s.%ld.tmp", path, (long)getpid()) >= (int)sizeof temp)
        return -1;
    FILE* f = fopen(temp, "wb");
    if (!f)
        return -1;
    int failed = fprintf(f, "# Lumaxis virtual DfuSe unit\n") < 0;
    for (int i = 0; i < conf->count; ++i)
        failed |= fprintf(f, "%s=%s\n", conf->entries[i].key, conf->entries[i].value) < 0;
    failed |= fflush(f) != 0;
    failed |= fsync(fileno(f)) != 0;
    failed |= fclose(f) != 0;
    if (failed || rename(temp, path) != 0) {
        unlink(temp);
        return -1;
    }
    return 0;
}

static int find(const struct vu_conf* conf, const char* key)
{
    for (int i = 0; i < conf->count; ++i)
        if (strcmp(conf->entries[i].key, key) == 0)
            return i;
    return -1;
}

const char* vu_conf_get(const struct vu_conf* conf, const char* key, const char* fallback)
{
    int i = find(conf, key);
    return i < 0 ? fallback : conf->entries[i].value;
}

long long vu_conf_get_int(const struct vu_conf* conf, const char* key, long long fallback)
{
    const char* text = vu_conf_get(conf, key, NULL);
    if (!text || !*text)
        return fallback;
    char* end = NULL;
    errno = 0;
    long long value = strtoll(text, &end, 0);
    return (errno || *end) ? fallback : value;
}

void vu_conf_set(struct vu_conf* conf, const char* key, const char* value)
{
    int i = find(conf, key);
    if (i < 0) {
        if (conf->count == VU_CONF_MAX)
            return;
        i = conf->count++;
        snprintf(conf->entries[i].key, VU_KEY_MAX, "%s", key);
    }
    snprintf(conf->entries[i].value, VU_VALUE_MAX, "%s", value);
}

void vu_conf_set_int(struct vu_conf* conf, const char* key, long long value)
{
    char text[32];
    snprintf(text, sizeof text, "%lld", value);
    vu_conf_set(conf, key, text);
}

void vu_conf_remove(struct vu_conf* conf, const char* key)
{
    int i = find(conf, key);
    if (i < 0)
        return;
    memmove(&conf->entries[i], &conf->entries[i + 1],
            (size_t)(conf->count - i - 1) * sizeof conf->entries[0]);
    --conf->count;
}

long long vu_now_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

enum vu_presence vu_conf_presence(const struct vu_conf* conf, long long now_ms)
{
    /* A unit running its application shows no DFU interface until the bootloader is started. */
    if (vu_conf_get_int(conf, "plugged", 0) != 1 || vu_conf_get_int(conf, "in_application", 0) == 1)
        return VU_ABSENT;
    long long left_at = vu_conf_get_int(conf, "left_at_ms", 0);
    if (left_at <= 0)
        return VU_PRESENT;
    long long back = left_at + vu_conf_get_int(conf, "absent_ms", VU_DEFAULT_ABSENT_MS);
    if (now_ms < back)
        return VU_ABSENT;
    if (strcmp(vu_conf_get(conf, "leave_mode", "dfu"), "reenumerate") == 0) {
        long long window = vu_conf_get_int(conf, "reenumerate_ms", VU_DEFAULT_REENUMERATE_MS);
        if (now_ms < back + window / 2)
            return VU_OPEN_DENIED;
        if (now_ms < back + window)
            return VU_NO_STRINGS;
    }
    return VU_PRESENT;
}

int vu_lock(const char* dir, int timeout_ms)
{
    char path[4096];
    if (vu_path(path, sizeof path, dir, VU_FILE_LOCK))
        return -1;
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return -1;
    for (int waited = 0;; waited += 10) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0)
            return fd;
        if (errno != EWOULDBLOCK || waited >= timeout_ms)
            break;
        usleep(10 * 1000);
    }
    close(fd);
    return -1;
}

void vu_unlock(int fd)
{
    if (fd < 0)
        return;
    flock(fd, LOCK_UN);
    close(fd);
}

void vu_trace(const char* format, ...)
{
    const char* path = getenv(VU_ENV_TRACE);
    if (!path || !*path)
        return;
    FILE* f = fopen(path, "a");
    if (!f)
        return;
    va_list args;
    va_start(args, format);
    vfprintf(f, format, args);
    va_end(args);
    fputc('\n', f);
    fclose(f);
}
