/* The emulated STM32F4 DfuSe bootloader: descriptors, flash and OTP memory, DFU requests. */
#include "tools/virtual-unit/bootloader.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <libusb.h>

/* The real unit's layout strings; the blank before "e" is the unit's own quirk, which makes
 * dfu-util warn "Non-valid multiplier" while it still parses the segment. */
static const char* const unit_alt_names[] = {
    "@Internal Flash  /0x08000000/04*016Kg,01*064Kg,07*128Kg",
    "@Option Bytes  /0x1FFFC000/01*016 e",
    "@OTP Memory /0x1FFF7800/01*512 e,01*016 e",
    "@Device Feature/0xFFFF0000/01*004 e",
};

static const char* const foreign_alt_names[] = {
    "@Internal Flash   /0x08000000/8*001Ka,120*001Kg",
};

/* What each kind of device shows on the bus. */
static const struct model
{
    uint16_t vendor;
    uint16_t product;
    uint16_t bcd_device;
    const char* manufacturer;
    const char* product_name;
    int alt_count;
    const char* const* alt_names;
    /* The DFU functional descriptor after the last alternate setting. */
    uint8_t functional[9];
} models[] = {
    [VU_KIND_UNIT] = {VU_VENDOR,
                      VU_PRODUCT,
                      VU_BCD_DEVICE,
                      "STMicroelectronics",
                      "STM32  BOOTLOADER",
                      VU_ALT_COUNT,
                      unit_alt_names,
                      /* bmAttributes 0x0B: can download, can upload, will detach; bcdDFU
                       * 0x011a selects DfuSe. */
                      {9, 0x21, 0x0B, 0xFF, 0x00, VU_TRANSFER_SIZE & 0xff, VU_TRANSFER_SIZE >> 8,
                       0x1A, 0x01}},
    /* Another maker's device in its DFU mode: plain DFU 1.1, one alternate setting. */
    [VU_KIND_FOREIGN] = {VU_FOREIGN_VENDOR,
                         VU_FOREIGN_PRODUCT,
                         0x0100,
                         "Other Maker",
                         "DFU Bootloader",
                         1,
                         foreign_alt_names,
                         {9, 0x21, 0x0F, 0xFF, 0x00, 0x00, 0x04, 0x10, 0x01}},
};

/* User options and RDP 0xAA (level 0) at 0x1FFFC000, every nWRP bit set at 0x1FFFC008:
 * neither read nor write protection. */
static const uint8_t default_option_bytes[VU_OPTION_SIZE] = {
    0xED, 0xAA, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
};

enum {
    STRING_MANUFACTURER = 1,
    STRING_PRODUCT = 2,
    STRING_SERIAL = 3,
    STRING_FIRST_ALT = 4,
};

enum {
    DFU_DNLOAD = 1,
    DFU_UPLOAD = 2,
    DFU_GETSTATUS = 3,
    DFU_CLRSTATUS = 4,
    DFU_GETSTATE = 5,
    DFU_ABORT = 6,
};

int vu_device_descriptor(enum vu_device_kind kind, uint8_t* out)
{
    const struct model* m = &models[kind];
    const uint8_t d[LIBUSB_DT_DEVICE_SIZE] = {
        LIBUSB_DT_DEVICE_SIZE,
        LIBUSB_DT_DEVICE,
        0x00,
        0x02,
        0x00,
        0x00,
        0x00,
        64,
        m->vendor & 0xff,
        m->vendor >> 8,
        m->product & 0xff,
        m->product >> 8,
        m->bcd_device & 0xff,
        m->bcd_device >> 8,
        STRING_MANUFACTURER,
        STRING_PRODUCT,
        STRING_SERIAL,
        1,
    };
    memcpy(out, d, sizeof d);
    return (int)sizeof d;
}

int vu_config_descriptor(enum vu_device_kind kind, uint8_t* out, int size)
{
    const struct model* m = &models[kind];
    uint8_t d[VU_CONFIG_MAX];
    const int total = LIBUSB_DT_CONFIG_SIZE + m->alt_count * LIBUSB_DT_INTERFACE_SIZE + 9;
    const uint8_t head[LIBUSB_DT_CONFIG_SIZE] = {
        LIBUSB_DT_CONFIG_SIZE, LIBUSB_DT_CONFIG, total & 0xff, total >> 8, 1, 1, 0, 0xC0, 50,
    };
    memcpy(d, head, sizeof head);
    for (int alt = 0; alt < m->alt_count; ++alt) {
        uint8_t* p = d + LIBUSB_DT_CONFIG_SIZE + alt * LIBUSB_DT_INTERFACE_SIZE;
        const uint8_t intf[LIBUSB_DT_INTERFACE_SIZE] = {
            LIBUSB_DT_INTERFACE_SIZE,          LIBUSB_DT_INTERFACE, 0, (uint8_t)alt, 0, 0xFE, 1, 2,
            (uint8_t)(STRING_FIRST_ALT + alt),
        };
        memcpy(p, intf, sizeof intf);
    }
    /* Like the real unit, the functional descriptor follows the last alternate setting. */
    memcpy(d + total - 9, m->functional, 9);
    int n = size < total ? size : total;
    memcpy(out, d, (size_t)n);
    return n;
}

static int utf16_string(uint8_t* out, int size, const char* text)
{
    uint8_t d[256];
    int n = 2;
    for (; *text && n + 2 <= 254; ++text, n += 2) {
        d[n] = (uint8_t)*text;
        d[n + 1] = 0;
    }
    d[0] = (uint8_t)n;
    d[1] = LIBUSB_DT_STRING;
    if (n > size)
        n = size;
    memcpy(out, d, (size_t)n);
    return n;
}

int vu_string_descriptor(enum vu_device_kind kind, uint8_t* out, int size, int index,
                         const char* serial)
{
    const struct model* m = &models[kind];
    if (index == 0) {
        const uint8_t languages[4] = {4, LIBUSB_DT_STRING, 0x09, 0x04};
        int n = size < 4 ? size : 4;
        memcpy(out, languages, (size_t)n);
        return n;
    }
    switch (index) {
    case STRING_MANUFACTURER:
        return utf16_string(out, size, m->manufacturer);
    case STRING_PRODUCT:
        return utf16_string(out, size, m->product_name);
    case STRING_SERIAL:
        return utf16_string(out, size, serial);
    default:
        if (index >= STRING_FIRST_ALT && index < STRING_FIRST_ALT + m->alt_count)
            return utf16_string(out, size, m->alt_names[index - STRING_FIRST_ALT]);
        return -1;
    }
}

int vu_descriptor_request(enum vu_device_kind kind, const char* serial, int no_strings,
                          uint16_t value, uint8_t* data, uint16_t length)
{
    uint8_t d[256];
    int n;
    switch (value >> 8) {
    case LIBUSB_DT_DEVICE:
        n = vu_device_descriptor(kind, d);
        break;
    case LIBUSB_DT_CONFIG:
        n = vu_config_descriptor(kind, d, sizeof d);
        break;
    case LIBUSB_DT_STRING:
        n = no_strings ? -1 : vu_string_descriptor(kind, d, sizeof d, value & 0xff, serial);
        break;
    case 0x21:
        memcpy(d, models[kind].functional, 9);
        n = 9;
        break;
    default:
        n = -1;
    }
    if (n < 0)
        return LIBUSB_ERROR_PIPE;
    if (n > length)
        n = length;
    if (n > 0)
        memcpy(data, d, (size_t)n);
    return n;
}

static void sleep_ms(long long ms)
{
    if (ms <= 0)
        return;
    struct timespec ts = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0) {
    }
}

static int real_timing(const struct vu_bootloader* unit)
{
    return strcmp(vu_conf_get(&unit->conf, "timing", "real"), "fast") != 0;
}

/* Sector boundaries of the 1 MiB STM32F4 flash. */
static int flash_sector(uint32_t address, uint32_t* start, uint32_t* size)
{
    if (address < VU_FLASH_BASE || address >= VU_FLASH_BASE + VU_FLASH_SIZE)
        return -1;
    uint32_t offset = address - VU_FLASH_BASE;
    if (offset < 0x10000) {
        *start = offset & ~0x3FFFu;
        *size = 0x4000;
    } else if (offset < 0x20000) {
        *start = 0x10000;
        *size = 0x10000;
    } else {
        *start = offset & ~0x1FFFFu;
        *size = 0x20000;
    }
    return 0;
}

/* The poll timeout a busy unit asks for, as an STM32F4 system bootloader answers it: 100 ms for
 * any erase, however long it takes, and 104 ms for a set-address or a 2048-byte write. */
static uint32_t busy_poll_ms(const struct vu_bootloader* unit)
{
    if (!real_timing(unit))
        return 0;
    switch (unit->pending) {
    case VU_CMD_ERASE:
    case VU_CMD_MASS_ERASE:
    case VU_CMD_READ_UNPROTECT:
        return 100;
    case VU_CMD_SET_ADDRESS:
    case VU_CMD_WRITE:
        return 104;
    default:
        return 0;
    }
}

/* How long the operation itself runs, from the busy answer on: the datasheet's typical erase
 * times at 8-bit parallelism (0.4 s per 16K, 1.2 s per 64K, 2 s per 128K sector, 16 s for the
 * whole flash). The part answers no request meanwhile, so the poll after the busy answer waits
 * out what the asked-for poll time left. A fixed poll_ms stands in for all of this. */
static long long operation_ms(const struct vu_bootloader* unit)
{
    if (!real_timing(unit) || vu_conf_get_int(&unit->conf, "poll_ms", -1) >= 0)
        return 0;
    uint32_t start, size;
    switch (unit->pending) {
    case VU_CMD_ERASE:
        if (flash_sector(unit->pending_address, &start, &size))
            return 0;
        return size == 0x4000 ? 400 : size == 0x10000 ? 1200 : 2000;
    case VU_CMD_MASS_ERASE:
    case VU_CMD_READ_UNPROTECT:
        return VU_MASS_ERASE_MS;
    default:
        return 0;
    }
}

static long long monotonic_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* Wire time of a data stage at full speed, so that a read-back takes as long as on a unit. */
static void wire_delay(const struct vu_bootloader* unit, int length)
{
    if (real_timing(unit) && length > 0)
        sleep_ms(1 + length / 700);
}

enum region { REGION_NONE, REGION_FLASH, REGION_OPTION, REGION_OTP, REGION_FEATURE };

static enum region find_region(uint32_t address, uint32_t* offset, uint32_t* remaining)
{
    static const struct
    {
        enum region region;
        uint32_t base;
        uint32_t size;
    } map[] = {
        {REGION_FLASH, VU_FLASH_BASE, VU_FLASH_SIZE},
        {REGION_OPTION, VU_OPTION_BASE, VU_OPTION_SIZE},
        {REGION_OTP, VU_OTP_BASE, VU_OTP_SIZE},
        {REGION_FEATURE, VU_FEATURE_BASE, VU_FEATURE_SIZE},
    };
    for (size_t i = 0; i < sizeof map / sizeof map[0]; ++i) {
        if (address >= map[i].base && address - map[i].base < map[i].size) {
            *offset = address - map[i].base;
            *remaining = map[i].size - *offset;
            return map[i].region;
        }
    }
    return REGION_NONE;
}

/* Read protection level 1: flash and OTP can be neither read nor changed over DFU. */
static int locked_away(const struct vu_bootloader* unit, uint32_t address)
{
    uint32_t offset, remaining;
    if (vu_conf_get_int(&unit->conf, "read_protected", 0) != 1)
        return 0;
    enum region region = find_region(address, &offset, &remaining);
    return region == REGION_FLASH || region == REGION_OTP;
}

/* Bytes beyond the end of a short file read as erased memory. */
static int read_file_at(int fd, uint32_t offset, uint8_t* out, uint32_t length)
{
    ssize_t n = pread(fd, out, length, (off_t)offset);
    if (n < 0)
        return -1;
    if ((uint32_t)n < length)
        memset(out + n, 0xFF, length - (uint32_t)n);
    return 0;
}

static int write_file_at(int fd, uint32_t offset, const uint8_t* data, uint32_t length)
{
    return pwrite(fd, data, length, (off_t)offset) == (ssize_t)length ? 0 : -1;
}

/* Reads up to length bytes; returns the count (short at a region's end) or -1 off the map. */
static int read_memory(struct vu_bootloader* unit, uint32_t address, uint8_t* out, uint32_t length)
{
    uint32_t offset, remaining;
    enum region region = find_region(address, &offset, &remaining);
    if (length > remaining)
        length = remaining;
    switch (region) {
    case REGION_FLASH:
        return read_file_at(unit->flash_fd, offset, out, length) ? -1 : (int)length;
    case REGION_OTP:
        return read_file_at(unit->otp_fd, offset, out, length) ? -1 : (int)length;
    case REGION_OPTION:
        memcpy(out, unit->option_bytes + offset, length);
        return (int)length;
    case REGION_FEATURE:
        memset(out, 0, length);
        return (int)length;
    default:
        return -1;
    }
}

/* Flash and OTP cells can only go from 1 to 0: the stored value is old AND new. So a block
 * written over a sector that was not erased reads back wrong, as on the real part. */
static int program_cells(int fd, uint32_t offset, const uint8_t* data, uint32_t length)
{
    uint8_t old[VU_TRANSFER_SIZE];
    if (read_file_at(fd, offset, old, length))
        return -1;
    for (uint32_t i = 0; i < length; ++i)
        old[i] &= data[i];
    return write_file_at(fd, offset, old, length);
}

static uint8_t write_memory(struct vu_bootloader* unit, uint32_t address, const uint8_t* data,
                            uint32_t length)
{
    uint32_t offset, remaining;
    enum region region = find_region(address, &offset, &remaining);
    if (region == REGION_NONE || length > remaining)
        return VU_errADDRESS;
    switch (region) {
    case REGION_FLASH:
        return program_cells(unit->flash_fd, offset, data, length) ? VU_errWRITE : VU_OK;
    case REGION_OTP:
        return program_cells(unit->otp_fd, offset, data, length) ? VU_errWRITE : VU_OK;
    case REGION_OPTION:
        memcpy(unit->option_bytes + offset, data, length);
        return VU_OK;
    default:
        return VU_errTARGET;
    }
}

static uint8_t erase_flash(struct vu_bootloader* unit, uint32_t offset, uint32_t size)
{
    static uint8_t erased[0x4000];
    memset(erased, 0xFF, sizeof erased);
    for (uint32_t done = 0; done < size; done += sizeof erased) {
        const uint32_t n = size - done < sizeof erased ? size - done : (uint32_t)sizeof erased;
        if (write_file_at(unit->flash_fd, offset + done, erased, n))
            return VU_errERASE;
    }
    return VU_OK;
}

static void save_conf(struct vu_bootloader* unit)
{
    if (vu_conf_save(&unit->conf, unit->dir))
        fprintf(stderr, "lumaxis virtual unit: cannot write the config in %s\n", unit->dir);
}

enum drop_reason { DROP_LEAVE, DROP_UNPLUG, DROP_POWER, DROP_RESET };

/* The unit drops off the bus: pulled, gone to its application, or reset. After a leave or a
 * reset it comes back after absent_ms (a reset from off_ms on) with the same serial; after a
 * leave in leave_mode "app" it runs the application until it is plugged again. */
static void drop_off_bus(struct vu_bootloader* unit, enum drop_reason why, long long off_ms)
{
    long long now = vu_now_ms();
    unit->gone = 1;
    /* It enumerates afresh, in dfuIDLE. */
    vu_conf_remove(&unit->conf, "dfu_state");
    vu_conf_remove(&unit->conf, "dfu_status");
    if (why == DROP_UNPLUG || why == DROP_POWER) {
        vu_conf_set_int(&unit->conf, "plugged", 0);
        vu_conf_set_int(&unit->conf, "unplugged_at_ms", now);
    } else {
        vu_conf_set_int(&unit->conf, "left_at_ms", now + off_ms);
    }
    if (why == DROP_LEAVE) {
        vu_conf_set_int(&unit->conf, "leaves", vu_conf_get_int(&unit->conf, "leaves", 0) + 1);
        if (strcmp(vu_conf_get(&unit->conf, "leave_mode", "dfu"), "app") == 0)
            vu_conf_set_int(&unit->conf, "in_application", 1);
    }
    vu_conf_set_int(&unit->conf, "enumerations",
                    vu_conf_get_int(&unit->conf, "enumerations", 0) + 1);
    save_conf(unit);
    vu_trace("unit %s", why == DROP_UNPLUG  ? "unplugged"
                        : why == DROP_POWER ? "lost power"
                        : why == DROP_LEAVE ? "left DFU mode"
                                            : "reset");
}

/* A fault armed with faults_once=1 fires in one run only. */
static void fault_fired(struct vu_bootloader* unit, const char* key)
{
    vu_trace("fault %s fired", key);
    if (vu_conf_get_int(&unit->conf, "faults_once", 0) == 1) {
        vu_conf_remove(&unit->conf, key);
        save_conf(unit);
    }
}

static int crosses(const struct vu_bootloader* unit, const char* key, long long before, int length)
{
    long long limit = vu_conf_get_int(&unit->conf, key, -1);
    return limit >= 0 && before + length > limit;
}

/* What a fault counts: data bytes read or written, erase commands, or leave requests. */
enum fault_stage { STAGE_UPLOAD, STAGE_DOWNLOAD, STAGE_ERASE, STAGE_LEAVE };

static int direction_matches(const struct vu_bootloader* unit, enum fault_stage stage)
{
    const char* direction = vu_conf_get(&unit->conf, "fault_direction", "any");
    if (strcmp(direction, "upload") == 0)
        return stage == STAGE_UPLOAD;
    if (strcmp(direction, "download") == 0)
        return stage == STAGE_DOWNLOAD;
    if (strcmp(direction, "erase") == 0)
        return stage == STAGE_ERASE;
    if (strcmp(direction, "leave") == 0)
        return stage == STAGE_LEAVE;
    return stage == STAGE_UPLOAD || stage == STAGE_DOWNLOAD;
}

/* A cut armed at a count N of what the direction counts; N may hold a fraction ("5.5" erases).
 * N at the start of a request (the first byte of a block, an erase command, a leave) cuts that
 * request off on arrival: nothing of it is done. N inside a download block or an erase cuts
 * while the unit carries it out, and there a pulled cable and a power loss differ: a unit that
 * keeps its own supply finishes the block or the erase it has begun, one without power loses
 * the block and leaves the sector half erased. The instant is the one after the unit answered
 * the GETSTATUS that follows the request with dfuDNBUSY: the STM32 bootloader carries out a
 * downloaded block or command only on that GETSTATUS (ST's AN3156, its DNLOAD-then-GETSTATUS
 * cycle), and the STM32F4 reference manual's flash chapter (RM0090) gives no guarantee for
 * cells whose programming or erase was cut off, which the half-erased sector stands in for.
 * Uploads and the leave have nothing in flight. Returns 0 to go on (with unit->cut set for a
 * cut in flight) or LIBUSB_ERROR_NO_DEVICE. */
static int cut_fault(struct vu_bootloader* unit, enum fault_stage stage, long long before,
                     int length)
{
    static const char* const keys[] = {[VU_CUT_PULLED] = "unplug_after",
                                       [VU_CUT_POWER] = "power_off_after"};
    for (enum vu_cut kind = VU_CUT_PULLED; kind <= VU_CUT_POWER; ++kind) {
        const double at = strtod(vu_conf_get(&unit->conf, keys[kind], "-1"), NULL);
        if (at < 0 || (double)(before + length) <= at)
            continue;
        fault_fired(unit, keys[kind]);
        if (at > (double)before && (stage == STAGE_DOWNLOAD || stage == STAGE_ERASE)) {
            unit->cut = kind;
            return 0;
        }
        drop_off_bus(unit, kind == VU_CUT_PULLED ? DROP_UNPLUG : DROP_POWER, 0);
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return 0;
}

/* Faults on a data stage, or on an erase command or a leave (which count as one each); returns 0
 * to go on or the libusb error the request ends with. */
static int data_fault(struct vu_bootloader* unit, enum fault_stage stage, int length,
                      unsigned timeout_ms)
{
    long long before = stage == STAGE_UPLOAD     ? unit->bytes_up
                       : stage == STAGE_DOWNLOAD ? unit->bytes_down
                       : stage == STAGE_ERASE    ? unit->erases
                                                 : unit->leave_requests;
    if (!direction_matches(unit, stage))
        return 0;
    if (cut_fault(unit, stage, before, length))
        return LIBUSB_ERROR_NO_DEVICE;
    if (crosses(unit, "fail_after", before, length)) {
        fault_fired(unit, "fail_after");
        return LIBUSB_ERROR_IO;
    }
    if (crosses(unit, "stall_after", before, length)) {
        /* A unit that stops answering: the request runs into its time-out. stall_ms longer
         * than the time-out imitates a host stack that hangs. */
        long long stall = vu_conf_get_int(&unit->conf, "stall_ms", 0);
        if (stall <= 0)
            stall = timeout_ms ? timeout_ms : 24LL * 3600 * 1000;
        fault_fired(unit, "stall_after");
        sleep_ms(stall);
        return LIBUSB_ERROR_TIMEOUT;
    }
    return 0;
}

/* A request the unit refuses: it stalls the pipe and reports the error until CLRSTATUS. */
static int refuse(struct vu_bootloader* unit, uint8_t status)
{
    unit->state = VU_dfuERROR;
    unit->status = status;
    unit->pending = VU_CMD_NONE;
    return LIBUSB_ERROR_PIPE;
}

static int dnload_command(struct vu_bootloader* unit, const uint8_t* data, uint16_t length,
                          unsigned timeout_ms)
{
    uint32_t address = 0;
    if (length == 5)
        address = (uint32_t)data[1] | (uint32_t)data[2] << 8 | (uint32_t)data[3] << 16 |
                  (uint32_t)data[4] << 24;
    if (length == 1 && data[0] == 0x00)
        unit->pending = VU_CMD_GET_COMMANDS;
    else if (length == 5 && data[0] == 0x21)
        unit->pending = VU_CMD_SET_ADDRESS;
    else if (length == 5 && data[0] == 0x41)
        unit->pending = VU_CMD_ERASE;
    else if (length == 1 && data[0] == 0x41)
        unit->pending = VU_CMD_MASS_ERASE;
    else if (length == 1 && data[0] == 0x92)
        unit->pending = VU_CMD_READ_UNPROTECT;
    else
        return refuse(unit, VU_errSTALLEDPKT);
    if (unit->pending == VU_CMD_ERASE || unit->pending == VU_CMD_MASS_ERASE) {
        int fault = data_fault(unit, STAGE_ERASE, 1, timeout_ms);
        if (fault) {
            unit->pending = VU_CMD_NONE;
            return fault;
        }
        ++unit->erases;
    }
    unit->pending_address = address;
    unit->state = VU_dfuDNLOAD_SYNC;
    vu_trace("command %02x %08x", data[0], address);
    return length;
}

static int dnload(struct vu_bootloader* unit, uint16_t block, uint8_t* data, uint16_t length,
                  unsigned timeout_ms)
{
    if (unit->state != VU_dfuIDLE && unit->state != VU_dfuDNLOAD_IDLE)
        return refuse(unit, VU_errSTALLEDPKT);
    if (length == 0) {
        /* DfuSe's leave request: a zero-length download; the next GETSTATUS starts the
         * firmware. */
        int fault = data_fault(unit, STAGE_LEAVE, 1, timeout_ms);
        if (fault)
            return fault;
        ++unit->leave_requests;
        unit->state = VU_dfuMANIFEST_SYNC;
        return 0;
    }
    if (!data)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (block == 0)
        return dnload_command(unit, data, length, timeout_ms);
    if (block == 1 || length > VU_TRANSFER_SIZE)
        return refuse(unit, VU_errSTALLEDPKT);
    int fault = data_fault(unit, STAGE_DOWNLOAD, length, timeout_ms);
    if (fault)
        return fault;
    wire_delay(unit, length);
    unit->bytes_down += length;
    unit->pending = VU_CMD_WRITE;
    unit->pending_address = unit->pointer + (uint32_t)(block - 2) * VU_TRANSFER_SIZE;
    unit->pending_length = length;
    memcpy(unit->pending_data, data, length);
    unit->state = VU_dfuDNLOAD_SYNC;
    return length;
}

/* What this run has done so far, for a benchmark to set beside the program's progress bar:
 * "<end of the erased flash> <bytes written> <bytes read>", rewritten in place after each
 * step. Listings never touch it. */
static void report_progress(struct vu_bootloader* unit)
{
    char path[4096], line[96];
    if (vu_path(path, sizeof path, unit->dir, VU_FILE_PROGRESS))
        return;
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    int n = snprintf(line, sizeof line, "%-20lld %-20lld %-20lld\n", unit->erased_end,
                     unit->bytes_written, unit->bytes_up);
    if (pwrite(fd, line, (size_t)n, 0) != n)
        vu_trace("progress not written");
    close(fd);
}

static int upload(struct vu_bootloader* unit, uint16_t block, uint8_t* data, uint16_t length,
                  unsigned timeout_ms)
{
    if (unit->state != VU_dfuIDLE && unit->state != VU_dfuUPLOAD_IDLE)
        return refuse(unit, VU_errSTALLEDPKT);
    if (!data && length)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (block == 0) {
        /* Get Commands: the DfuSe commands this bootloader knows. */
        const uint8_t commands[4] = {0x00, 0x21, 0x41, 0x92};
        int n = length < 4 ? length : 4;
        memcpy(data, commands, (size_t)n);
        unit->state = VU_dfuIDLE;
        return n;
    }
    if (block == 1 || length > VU_TRANSFER_SIZE)
        return refuse(unit, VU_errSTALLEDPKT);
    /* The bootloader steps by its own transfer size; upload_stride "requested" imitates one
     * that steps by each request's length, which misplaces a short last block. */
    const int by_request =
        strcmp(vu_conf_get(&unit->conf, "upload_stride", "transfer"), "requested") == 0;
    uint32_t address =
        unit->pointer + (uint32_t)(block - 2) * (by_request ? length : VU_TRANSFER_SIZE);
    if (locked_away(unit, address))
        return refuse(unit, VU_errVENDOR);
    int fault = data_fault(unit, STAGE_UPLOAD, length, timeout_ms);
    if (fault)
        return fault;
    const uint16_t asked = length;
    if (crosses(unit, "short_after", unit->bytes_up, length)) {
        /* The read-out ends early with a short block; dfu-util takes it as the end. */
        long long rest = vu_conf_get_int(&unit->conf, "short_after", 0) - unit->bytes_up;
        length = rest > 0 ? (uint16_t)rest : 0;
        fault_fired(unit, "short_after");
    }
    int n = read_memory(unit, address, data, length);
    if (n < 0)
        return refuse(unit, VU_errADDRESS);
    long long flip = vu_conf_get_int(&unit->conf, "flip_address", -1);
    if (flip >= address && flip < (long long)address + n) {
        data[flip - address] ^= 0xFF;
        fault_fired(unit, "flip_address");
    }
    wire_delay(unit, n);
    unit->bytes_up += n;
    if (n > 0)
        report_progress(unit);
    /* A short block ends the upload, as the DFU protocol has it. */
    unit->state = n < asked ? VU_dfuIDLE : VU_dfuUPLOAD_IDLE;
    return n;
}

/* Carries out the command that the last download announced, once the host polls for it. */
static uint8_t execute(struct vu_bootloader* unit)
{
    uint32_t start, size;
    switch (unit->pending) {
    case VU_CMD_SET_ADDRESS: {
        uint32_t offset, remaining;
        if (find_region(unit->pending_address, &offset, &remaining) == REGION_NONE)
            return VU_errADDRESS;
        unit->pointer = unit->pending_address;
        return VU_OK;
    }
    case VU_CMD_ERASE: {
        if (flash_sector(unit->pending_address, &start, &size))
            return VU_errADDRESS;
        if (locked_away(unit, VU_FLASH_BASE))
            return VU_errVENDOR;
        uint8_t status = erase_flash(unit, start, size);
        if (status == VU_OK && start + size > unit->erased_end) {
            unit->erased_end = start + size;
            report_progress(unit);
        }
        return status;
    }
    case VU_CMD_MASS_ERASE:
        return locked_away(unit, VU_FLASH_BASE) ? VU_errVENDOR
                                                : erase_flash(unit, 0, VU_FLASH_SIZE);
    case VU_CMD_WRITE:
        if (locked_away(unit, unit->pending_address))
            return VU_errVENDOR;
        {
            uint8_t status = write_memory(unit, unit->pending_address, unit->pending_data,
                                          unit->pending_length);
            if (status == VU_OK) {
                unit->bytes_written += unit->pending_length;
                report_progress(unit);
            }
            return status;
        }
    default:
        return VU_OK;
    }
}

static int get_status(struct vu_bootloader* unit, uint8_t* data, uint16_t length,
                      unsigned timeout_ms)
{
    if (!data || length < 6)
        return refuse(unit, VU_errSTALLEDPKT);
    uint32_t poll = 0;
    switch (unit->state) {
    case VU_dfuDNLOAD_SYNC:
        /* DfuSe answers the first poll after a command with dfuDNBUSY and a poll time. */
        poll = busy_poll_ms(unit);
        unit->busy_since_ms = monotonic_ms();
        unit->state = VU_dfuDNBUSY;
        if (unit->pending == VU_CMD_READ_UNPROTECT) {
            /* The part answers this poll, then erases the flash, drops the protection and
             * resets; it is off the bus while it erases. dfu-util does not poll again. */
            erase_flash(unit, 0, VU_FLASH_SIZE);
            vu_conf_remove(&unit->conf, "read_protected");
            drop_off_bus(unit, DROP_RESET, operation_ms(unit));
        }
        break;
    case VU_dfuDNBUSY: {
        long long left = unit->busy_since_ms + operation_ms(unit) - monotonic_ms();
        if (left > 0 && timeout_ms && left > timeout_ms) {
            /* Still erasing: the request runs into the host's time-out. */
            sleep_ms(timeout_ms);
            return LIBUSB_ERROR_TIMEOUT;
        }
        if (unit->cut != VU_CUT_NONE) {
            /* Cut while it programs or erases (see cut_fault); the host's poll finds no unit. */
            uint32_t start, size;
            if (unit->cut == VU_CUT_PULLED)
                execute(unit);
            else if (unit->pending == VU_CMD_ERASE &&
                     flash_sector(unit->pending_address, &start, &size) == 0)
                erase_flash(unit, start, size / 2);
            drop_off_bus(unit, unit->cut == VU_CUT_PULLED ? DROP_UNPLUG : DROP_POWER, 0);
            return LIBUSB_ERROR_NO_DEVICE;
        }
        sleep_ms(left);
        uint8_t status = execute(unit);
        unit->pending = VU_CMD_NONE;
        if (unit->gone)
            return LIBUSB_ERROR_NO_DEVICE;
        if (status != VU_OK) {
            unit->state = VU_dfuERROR;
            unit->status = status;
        } else {
            unit->state = VU_dfuDNLOAD_IDLE;
        }
        break;
    }
    case VU_dfuMANIFEST_SYNC:
        if (vu_conf_get_int(&unit->conf, "leave_status_fails", 0) == 1) {
            /* Many real units reset before they answer this last poll. */
            fault_fired(unit, "leave_status_fails");
            drop_off_bus(unit, DROP_LEAVE, 0);
            return LIBUSB_ERROR_IO;
        }
        unit->state = VU_dfuMANIFEST;
        memset(data, 0, 6);
        data[4] = VU_dfuMANIFEST;
        drop_off_bus(unit, DROP_LEAVE, 0);
        return 6;
    default:
        break;
    }
    /* poll_ms makes every answer ask for the same pause, to see how dfu-util's time scales. */
    long long fixed = vu_conf_get_int(&unit->conf, "poll_ms", -1);
    if (fixed >= 0)
        poll = (uint32_t)fixed;
    data[0] = unit->status;
    data[1] = poll & 0xff;
    data[2] = (poll >> 8) & 0xff;
    data[3] = (poll >> 16) & 0xff;
    data[4] = unit->state;
    data[5] = 0;
    return 6;
}

/* Some F407/F411 bootloaders answer the first GETSTATUS after they enumerate with dfuERROR,
 * status errFIRMWARE, until the host clears it. */
static int first_status_error(const struct vu_conf* conf)
{
    return vu_conf_get_int(conf, "first_status_error", 0) == 1 &&
           vu_conf_get_int(conf, "status_error_cleared", -1) !=
               vu_conf_get_int(conf, "enumerations", 0);
}

static int class_request(struct vu_bootloader* unit, uint8_t request_type, uint8_t request,
                         uint16_t value, uint8_t* data, uint16_t length, unsigned timeout_ms)
{
    const int in = (request_type & LIBUSB_ENDPOINT_IN) != 0;
    switch (request) {
    case DFU_DNLOAD:
        return in ? refuse(unit, VU_errSTALLEDPKT) : dnload(unit, value, data, length, timeout_ms);
    case DFU_UPLOAD:
        return in ? upload(unit, value, data, length, timeout_ms) : refuse(unit, VU_errSTALLEDPKT);
    case DFU_GETSTATUS:
        return get_status(unit, data, length, timeout_ms);
    case DFU_CLRSTATUS:
        unit->state = VU_dfuIDLE;
        unit->status = VU_OK;
        unit->pending = VU_CMD_NONE;
        if (first_status_error(&unit->conf)) {
            vu_conf_set(&unit->conf, "status_error_cleared",
                        vu_conf_get(&unit->conf, "enumerations", "0"));
            save_conf(unit);
        }
        return 0;
    case DFU_GETSTATE:
        if (!data || length < 1)
            return LIBUSB_ERROR_PIPE;
        data[0] = unit->state;
        return 1;
    case DFU_ABORT:
        if (unit->state == VU_dfuERROR)
            return LIBUSB_ERROR_PIPE;
        unit->state = VU_dfuIDLE;
        unit->pending = VU_CMD_NONE;
        return 0;
    default:
        return refuse(unit, VU_errSTALLEDPKT);
    }
}

int vu_bootloader_open(struct vu_bootloader* unit, const char* dir, const struct vu_conf* conf)
{
    memset(unit, 0, sizeof *unit);
    unit->flash_fd = unit->otp_fd = -1;
    snprintf(unit->dir, sizeof unit->dir, "%s", dir);
    snprintf(unit->serial, sizeof unit->serial, "%s",
             vu_conf_get(conf, "serial", VU_DEFAULT_SERIAL));
    unit->conf = *conf;
    memcpy(unit->option_bytes, default_option_bytes, sizeof unit->option_bytes);
    /* A powered unit keeps its DFU state between runs: a run that died mid-upload leaves it
     * in dfuUPLOAD-IDLE, and the next run has to abort first. */
    unit->state = (uint8_t)vu_conf_get_int(conf, "dfu_state", VU_dfuIDLE);
    unit->status = (uint8_t)vu_conf_get_int(conf, "dfu_status", VU_OK);
    if (unit->state != VU_dfuDNLOAD_IDLE && unit->state != VU_dfuUPLOAD_IDLE &&
        unit->state != VU_dfuERROR)
        unit->state = VU_dfuIDLE;
    if (first_status_error(conf)) {
        unit->state = VU_dfuERROR;
        unit->status = VU_errFIRMWARE;
    }
    /* The RDP byte: 0xAA is level 0, any other value but 0xCC level 1. */
    if (vu_conf_get_int(conf, "read_protected", 0) == 1)
        unit->option_bytes[1] = 0x55;
    unit->opened_state = unit->state;
    unit->opened_status = unit->status;
    char path[4096];
    if (vu_path(path, sizeof path, dir, VU_FILE_FLASH) == 0)
        unit->flash_fd = open(path, O_RDWR | O_CLOEXEC);
    if (vu_path(path, sizeof path, dir, VU_FILE_OTP) == 0)
        unit->otp_fd = open(path, O_RDWR | O_CLOEXEC);
    if (unit->flash_fd < 0 || unit->otp_fd < 0) {
        fprintf(stderr, "lumaxis virtual unit: %s lacks %s or %s\n", dir, VU_FILE_FLASH,
                VU_FILE_OTP);
        vu_bootloader_close(unit);
        return LIBUSB_ERROR_IO;
    }
    return 0;
}

void vu_bootloader_close(struct vu_bootloader* unit)
{
    if (!unit->gone && unit->flash_fd >= 0) {
        /* A command whose completion nobody polled for is dropped. */
        uint8_t state = unit->state;
        if (state == VU_dfuDNLOAD_SYNC || state == VU_dfuDNBUSY || state == VU_dfuMANIFEST_SYNC)
            state = VU_dfuDNLOAD_IDLE;
        if (state != unit->opened_state || unit->status != unit->opened_status) {
            vu_conf_set_int(&unit->conf, "dfu_state", state);
            vu_conf_set_int(&unit->conf, "dfu_status", unit->status);
            save_conf(unit);
        }
    }
    if (unit->flash_fd >= 0)
        close(unit->flash_fd);
    if (unit->otp_fd >= 0)
        close(unit->otp_fd);
    unit->flash_fd = unit->otp_fd = -1;
}

int vu_bootloader_request(struct vu_bootloader* unit, uint8_t request_type, uint8_t request,
                          uint16_t value, uint16_t index, uint8_t* data, uint16_t length,
                          unsigned int timeout_ms)
{
    if (unit->gone)
        return LIBUSB_ERROR_NO_DEVICE;
    const uint8_t type = request_type & (3 << 5);
    if (type == LIBUSB_REQUEST_TYPE_STANDARD && request == LIBUSB_REQUEST_GET_DESCRIPTOR &&
        (request_type & LIBUSB_ENDPOINT_IN))
        return vu_descriptor_request(VU_KIND_UNIT, unit->serial, unit->no_strings, value, data,
                                     length);
    if (type == LIBUSB_REQUEST_TYPE_CLASS && (request_type & 0x1F) == LIBUSB_RECIPIENT_INTERFACE &&
        index == 0)
        return class_request(unit, request_type, request, value, data, length, timeout_ms);
    return LIBUSB_ERROR_PIPE;
}

int vu_bootloader_claim(struct vu_bootloader* unit, int interface_number)
{
    if (unit->gone)
        return LIBUSB_ERROR_NO_DEVICE;
    if (interface_number != 0)
        return LIBUSB_ERROR_NOT_FOUND;
    /* Another program holds the interface: a listing never claims it, a transfer does. */
    long long fails = vu_conf_get_int(&unit->conf, "claim_fails", 0);
    if (fails > 0) {
        if (fails > 1)
            vu_conf_set_int(&unit->conf, "claim_fails", fails - 1);
        else
            vu_conf_remove(&unit->conf, "claim_fails");
        save_conf(unit);
        return LIBUSB_ERROR_BUSY;
    }
    return 0;
}
