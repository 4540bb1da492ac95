/* The libusb-1.0 functions dfu-util 0.9 to 0.11 import, answered by the virtual unit instead of
 * USB. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <libusb.h>

#include "tools/virtual-unit/bootloader.h"
#include "tools/virtual-unit/unitstate.h"

#define EXPORT __attribute__((visibility("default")))

struct libusb_context
{
    int unused;
};

struct libusb_device
{
    int refcount;
    enum vu_device_kind kind;
    char serial[VU_VALUE_MAX];
    uint8_t bus;
    uint8_t ports[2];
    int port_count;
    uint8_t address;
};

struct libusb_device_handle
{
    struct libusb_device* dev;
    struct vu_bootloader unit;
};

static struct libusb_context default_context;

/* dfu-util opens and closes each unit several times; the folder stays locked while any
 * handle is open. One descriptor per process, since flock does not nest within a process. */
static int lock_fd = -1;
static int open_handles;

/* The state folder, or NULL: with no folder the library is a bus with nothing on it. */
static const char* unit_dir(void)
{
    const char* dir = getenv(VU_ENV_DIR);
    return (dir && *dir) ? dir : NULL;
}

EXPORT int libusb_init(libusb_context** ctx)
{
    vu_trace("init");
    if (ctx)
        *ctx = &default_context;
    return 0;
}

EXPORT void libusb_exit(libusb_context* ctx)
{
    (void)ctx;
    vu_trace("exit");
}

EXPORT int libusb_set_option(libusb_context* ctx, enum libusb_option option, ...)
{
    (void)ctx;
    vu_trace("set_option %d", (int)option);
    return 0;
}

/* dfu-util 0.9 with -vvv; deprecated since libusb 1.0.22, still exported by Debian's libusb. */
EXPORT void libusb_set_debug(libusb_context* ctx, int level)
{
    (void)ctx;
    vu_trace("set_debug %d", level);
}

EXPORT const struct libusb_version* libusb_get_version(void)
{
    static const struct libusb_version version = {1, 0, 26, 11724, "", "virtual unit"};
    return &version;
}

EXPORT const char* libusb_error_name(int code)
{
    switch (code) {
    case LIBUSB_SUCCESS:
        return "LIBUSB_SUCCESS / LIBUSB_TRANSFER_COMPLETED";
    case LIBUSB_ERROR_IO:
        return "LIBUSB_ERROR_IO";
    case LIBUSB_ERROR_INVALID_PARAM:
        return "LIBUSB_ERROR_INVALID_PARAM";
    case LIBUSB_ERROR_ACCESS:
        return "LIBUSB_ERROR_ACCESS";
    case LIBUSB_ERROR_NO_DEVICE:
        return "LIBUSB_ERROR_NO_DEVICE";
    case LIBUSB_ERROR_NOT_FOUND:
        return "LIBUSB_ERROR_NOT_FOUND";
    case LIBUSB_ERROR_BUSY:
        return "LIBUSB_ERROR_BUSY";
    case LIBUSB_ERROR_TIMEOUT:
        return "LIBUSB_ERROR_TIMEOUT";
    case LIBUSB_ERROR_OVERFLOW:
        return "LIBUSB_ERROR_OVERFLOW";
    case LIBUSB_ERROR_PIPE:
        return "LIBUSB_ERROR_PIPE";
    case LIBUSB_ERROR_INTERRUPTED:
        return "LIBUSB_ERROR_INTERRUPTED";
    case LIBUSB_ERROR_NO_MEM:
        return "LIBUSB_ERROR_NO_MEM";
    case LIBUSB_ERROR_NOT_SUPPORTED:
        return "LIBUSB_ERROR_NOT_SUPPORTED";
    case LIBUSB_ERROR_OTHER:
        return "LIBUSB_ERROR_OTHER";
    default:
        return "**UNKNOWN**";
    }
}

static struct libusb_device* new_device(enum vu_device_kind kind, const char* serial)
{
    struct libusb_device* dev = calloc(1, sizeof *dev);
    if (!dev)
        return NULL;
    dev->refcount = 1;
    dev->kind = kind;
    snprintf(dev->serial, sizeof dev->serial, "%s", serial);
    dev->bus = 1;
    return dev;
}

/* A unit at hub port 2, downstream port 4 - index (path 1-2.4, a twin 1-2.3). */
static struct libusb_device* new_unit(int index, const char* serial, long long enumerations)
{
    struct libusb_device* dev = new_device(VU_KIND_UNIT, serial);
    if (!dev)
        return NULL;
    dev->ports[0] = 2;
    dev->ports[1] = (uint8_t)(4 - index);
    dev->port_count = 2;
    /* The host hands out a new address each time the unit enumerates. */
    dev->address = (uint8_t)(7 + index + (enumerations % 100) * 2);
    return dev;
}

EXPORT ssize_t libusb_get_device_list(libusb_context* ctx, libusb_device*** list)
{
    (void)ctx;
    /* Always a valid NULL-terminated array: dfu-util frees it even when it is empty. */
    libusb_device** devices = calloc(4, sizeof *devices);
    if (!devices)
        return LIBUSB_ERROR_NO_MEM;
    *list = devices;
    const char* dir = unit_dir();
    struct vu_conf conf;
    if (!dir || vu_conf_load(&conf, dir)) {
        vu_trace("get_device_list -> 0");
        return 0;
    }
    ssize_t count = 0;
    if (vu_conf_presence(&conf, vu_now_ms()) != VU_ABSENT) {
        long long enumerations = vu_conf_get_int(&conf, "enumerations", 0);
        devices[count] = new_unit(0, vu_conf_get(&conf, "serial", VU_DEFAULT_SERIAL), enumerations);
        if (devices[count])
            ++count;
        const char* second = vu_conf_get(&conf, "second_serial", "");
        if (*second) {
            devices[count] = new_unit(1, second, enumerations);
            if (devices[count])
                ++count;
        }
    }
    /* The foreign device has its own port and stays on the bus whatever the unit does. */
    if (vu_conf_get_int(&conf, "foreign_device", 0) == 1) {
        devices[count] = new_device(VU_KIND_FOREIGN, VU_FOREIGN_SERIAL);
        if (devices[count]) {
            devices[count]->ports[0] = 3;
            devices[count]->port_count = 1;
            devices[count]->address = 5;
            ++count;
        }
    }
    vu_trace("get_device_list -> %zd", count);
    return count;
}

EXPORT libusb_device* libusb_ref_device(libusb_device* dev)
{
    if (dev)
        ++dev->refcount;
    return dev;
}

EXPORT void libusb_unref_device(libusb_device* dev)
{
    if (dev && --dev->refcount == 0)
        free(dev);
}

EXPORT void libusb_free_device_list(libusb_device** list, int unref_devices)
{
    if (!list)
        return;
    if (unref_devices)
        for (libusb_device** d = list; *d; ++d)
            libusb_unref_device(*d);
    free(list);
}

EXPORT int libusb_get_device_descriptor(libusb_device* dev, struct libusb_device_descriptor* desc)
{
    if (!dev || !desc)
        return LIBUSB_ERROR_INVALID_PARAM;
    uint8_t d[LIBUSB_DT_DEVICE_SIZE];
    vu_device_descriptor(dev->kind, d);
    desc->bLength = d[0];
    desc->bDescriptorType = d[1];
    desc->bcdUSB = (uint16_t)(d[2] | d[3] << 8);
    desc->bDeviceClass = d[4];
    desc->bDeviceSubClass = d[5];
    desc->bDeviceProtocol = d[6];
    desc->bMaxPacketSize0 = d[7];
    desc->idVendor = (uint16_t)(d[8] | d[9] << 8);
    desc->idProduct = (uint16_t)(d[10] | d[11] << 8);
    desc->bcdDevice = (uint16_t)(d[12] | d[13] << 8);
    desc->iManufacturer = d[14];
    desc->iProduct = d[15];
    desc->iSerialNumber = d[16];
    desc->bNumConfigurations = d[17];
    return 0;
}

/* One allocation holds the parsed configuration, so libusb_free_config_descriptor is free(). */
struct config_block
{
    struct libusb_config_descriptor config;
    struct libusb_interface interface;
    struct libusb_interface_descriptor alts[VU_ALT_COUNT];
    unsigned char raw[VU_CONFIG_MAX];
};

EXPORT int libusb_get_config_descriptor(libusb_device* dev, uint8_t config_index,
                                        struct libusb_config_descriptor** config)
{
    if (!dev || !config)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (config_index != 0)
        return LIBUSB_ERROR_NOT_FOUND;
    struct config_block* b = calloc(1, sizeof *b);
    if (!b)
        return LIBUSB_ERROR_NO_MEM;
    const uint8_t* raw = b->raw;
    int total = vu_config_descriptor(dev->kind, b->raw, sizeof b->raw);
    struct libusb_config_descriptor* c = &b->config;
    c->bLength = raw[0];
    c->bDescriptorType = raw[1];
    c->wTotalLength = (uint16_t)(raw[2] | raw[3] << 8);
    c->bNumInterfaces = raw[4];
    c->bConfigurationValue = raw[5];
    c->iConfiguration = raw[6];
    c->bmAttributes = raw[7];
    c->MaxPower = raw[8];
    c->interface = &b->interface;
    b->interface.altsetting = b->alts;
    int count = 0;
    for (int at = raw[0]; at + 1 < total && raw[at] > 0; at += raw[at]) {
        const uint8_t* p = raw + at;
        if (p[1] == LIBUSB_DT_INTERFACE && count < VU_ALT_COUNT) {
            struct libusb_interface_descriptor* a = &b->alts[count++];
            a->bLength = p[0];
            a->bDescriptorType = p[1];
            a->bInterfaceNumber = p[2];
            a->bAlternateSetting = p[3];
            a->bNumEndpoints = p[4];
            a->bInterfaceClass = p[5];
            a->bInterfaceSubClass = p[6];
            a->bInterfaceProtocol = p[7];
            a->iInterface = p[8];
        } else if (count > 0) {
            /* libusb hands descriptors it does not parse to the setting they follow: the
             * functional descriptor lands in the last alternate setting's extra bytes. */
            struct libusb_interface_descriptor* a = &b->alts[count - 1];
            if (!a->extra)
                a->extra = p;
            a->extra_length += p[0];
        }
    }
    b->interface.num_altsetting = count;
    *config = c;
    return 0;
}

EXPORT void libusb_free_config_descriptor(struct libusb_config_descriptor* config)
{
    free(config);
}

EXPORT uint8_t libusb_get_bus_number(libusb_device* dev)
{
    return dev ? dev->bus : 0;
}

EXPORT int libusb_get_port_numbers(libusb_device* dev, uint8_t* port_numbers, int port_numbers_len)
{
    if (!dev || !port_numbers || port_numbers_len <= 0)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (port_numbers_len < dev->port_count)
        return LIBUSB_ERROR_OVERFLOW;
    memcpy(port_numbers, dev->ports, (size_t)dev->port_count);
    return dev->port_count;
}

EXPORT uint8_t libusb_get_device_address(libusb_device* dev)
{
    return dev ? dev->address : 0;
}

EXPORT int libusb_open(libusb_device* dev, libusb_device_handle** dev_handle)
{
    if (!dev || !dev_handle)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (dev->kind == VU_KIND_FOREIGN) {
        /* It keeps no state, so it needs neither the folder nor its lock. */
        libusb_device_handle* h = calloc(1, sizeof *h);
        if (!h)
            return LIBUSB_ERROR_NO_MEM;
        h->dev = libusb_ref_device(dev);
        *dev_handle = h;
        vu_trace("open foreign %s", dev->serial);
        return 0;
    }
    const char* dir = unit_dir();
    if (!dir)
        return LIBUSB_ERROR_NO_DEVICE;
    if (open_handles == 0) {
        lock_fd = vu_lock(dir, 10000);
        if (lock_fd < 0) {
            vu_trace("open -> busy");
            return LIBUSB_ERROR_BUSY;
        }
    }
    ++open_handles;
    /* The unit may have been pulled since the list was taken. */
    struct vu_conf conf;
    int result = LIBUSB_ERROR_NO_DEVICE;
    enum vu_presence presence = VU_ABSENT;
    libusb_device_handle* h = NULL;
    if (vu_conf_load(&conf, dir) == 0)
        presence = vu_conf_presence(&conf, vu_now_ms());
    if (presence == VU_OPEN_DENIED) {
        result = LIBUSB_ERROR_ACCESS;
    } else if (presence != VU_ABSENT) {
        h = calloc(1, sizeof *h);
        result = h ? vu_bootloader_open(&h->unit, dir, &conf) : LIBUSB_ERROR_NO_MEM;
    }
    if (result) {
        free(h);
        if (--open_handles == 0) {
            vu_unlock(lock_fd);
            lock_fd = -1;
        }
        vu_trace("open -> %d", result);
        return result;
    }
    /* Each unit answers with its own serial number. */
    snprintf(h->unit.serial, sizeof h->unit.serial, "%s", dev->serial);
    h->unit.no_strings = presence == VU_NO_STRINGS;
    h->dev = libusb_ref_device(dev);
    *dev_handle = h;
    vu_trace("open %s", dev->serial);
    return 0;
}

EXPORT void libusb_close(libusb_device_handle* dev_handle)
{
    if (!dev_handle)
        return;
    vu_trace("close");
    const int foreign = dev_handle->dev->kind == VU_KIND_FOREIGN;
    if (!foreign)
        vu_bootloader_close(&dev_handle->unit);
    libusb_unref_device(dev_handle->dev);
    free(dev_handle);
    if (!foreign && --open_handles == 0) {
        vu_unlock(lock_fd);
        lock_fd = -1;
    }
}

EXPORT int libusb_claim_interface(libusb_device_handle* dev_handle, int interface_number)
{
    vu_trace("claim_interface %d", interface_number);
    if (!dev_handle)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (dev_handle->dev->kind == VU_KIND_FOREIGN)
        return interface_number == 0 ? 0 : LIBUSB_ERROR_NOT_FOUND;
    return vu_bootloader_claim(&dev_handle->unit, interface_number);
}

EXPORT int libusb_release_interface(libusb_device_handle* dev_handle, int interface_number)
{
    vu_trace("release_interface %d", interface_number);
    if (!dev_handle)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (dev_handle->unit.gone)
        return LIBUSB_ERROR_NO_DEVICE;
    return interface_number == 0 ? 0 : LIBUSB_ERROR_NOT_FOUND;
}

EXPORT int libusb_set_interface_alt_setting(libusb_device_handle* dev_handle, int interface_number,
                                            int alternate_setting)
{
    vu_trace("set_interface_alt_setting %d %d", interface_number, alternate_setting);
    if (!dev_handle)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (dev_handle->unit.gone)
        return LIBUSB_ERROR_NO_DEVICE;
    if (interface_number != 0 || alternate_setting < 0 || alternate_setting >= VU_ALT_COUNT)
        return LIBUSB_ERROR_NOT_FOUND;
    dev_handle->unit.alt = alternate_setting;
    return 0;
}

EXPORT int libusb_reset_device(libusb_device_handle* dev_handle)
{
    vu_trace("reset_device");
    if (!dev_handle)
        return LIBUSB_ERROR_INVALID_PARAM;
    /* A unit that left DFU mode is no longer the device behind this handle. */
    if (dev_handle->unit.gone)
        return LIBUSB_ERROR_NOT_FOUND;
    dev_handle->unit.state = VU_dfuIDLE;
    dev_handle->unit.status = VU_OK;
    return 0;
}

/* dfu-util 0.9 reads names and serials through this; 0.10 and 0.11 send the requests
 * themselves. As libusb 1.0.26 does it (descriptor.c): the first language of the list, then the
 * string in that language, each character outside ASCII as '?'. */
EXPORT int libusb_get_string_descriptor_ascii(libusb_device_handle* dev_handle, uint8_t desc_index,
                                              unsigned char* data, int length)
{
    if (desc_index == 0 || !data || length <= 0)
        return LIBUSB_ERROR_INVALID_PARAM;
    unsigned char buffer[255];
    int r = libusb_get_string_descriptor(dev_handle, 0, 0, buffer, 4);
    if (r < 0)
        return r;
    if (r != 4 || buffer[0] < 4 || buffer[1] != LIBUSB_DT_STRING)
        return LIBUSB_ERROR_IO;
    const uint16_t langid = (uint16_t)(buffer[2] | buffer[3] << 8);
    r = libusb_get_string_descriptor(dev_handle, desc_index, langid, buffer, sizeof buffer);
    if (r < 0)
        return r;
    if (r < 2 || buffer[0] > r || buffer[1] != LIBUSB_DT_STRING)
        return LIBUSB_ERROR_IO;
    int out = 0;
    for (int at = 2; at + 1 < buffer[0] && out < length - 1; at += 2) {
        const unsigned unit = (unsigned)(buffer[at] | buffer[at + 1] << 8);
        data[out++] = unit < 0x80 ? (unsigned char)unit : '?';
    }
    data[out] = 0;
    return out;
}

EXPORT int libusb_control_transfer(libusb_device_handle* dev_handle, uint8_t request_type,
                                   uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                                   unsigned char* data, uint16_t wLength, unsigned int timeout)
{
    if (!dev_handle)
        return LIBUSB_ERROR_INVALID_PARAM;
    int result;
    if (dev_handle->dev->kind == VU_KIND_FOREIGN)
        result = request_type == (LIBUSB_ENDPOINT_IN | LIBUSB_REQUEST_TYPE_STANDARD) &&
                         bRequest == LIBUSB_REQUEST_GET_DESCRIPTOR
                     ? vu_descriptor_request(VU_KIND_FOREIGN, dev_handle->dev->serial, 0, wValue,
                                             data, wLength)
                     : LIBUSB_ERROR_PIPE;
    else
        result = vu_bootloader_request(&dev_handle->unit, request_type, bRequest, wValue, wIndex,
                                       data, wLength, timeout);
    vu_trace("control %02x %02x %04x %04x %u -> %d state %u", request_type, bRequest, wValue,
             wIndex, wLength, result, dev_handle->unit.state);
    return result;
}
