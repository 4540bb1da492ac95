/* The emulated STM32F4 DfuSe bootloader: descriptors, memory and the DFU request state machine. */
#pragma once

#include <stdint.h>

#include "tools/virtual-unit/unitstate.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VU_VENDOR 0x0483
#define VU_PRODUCT 0xdf11
#define VU_BCD_DEVICE 0x2200
#define VU_TRANSFER_SIZE 2048
#define VU_ALT_COUNT 4
/* Typical mass erase of the 1 MiB flash at 8-bit parallelism. */
#define VU_MASS_ERASE_MS 16000

enum vu_dfu_state {
    VU_appIDLE = 0,
    VU_dfuIDLE = 2,
    VU_dfuDNLOAD_SYNC = 3,
    VU_dfuDNBUSY = 4,
    VU_dfuDNLOAD_IDLE = 5,
    VU_dfuMANIFEST_SYNC = 6,
    VU_dfuMANIFEST = 7,
    VU_dfuUPLOAD_IDLE = 9,
    VU_dfuERROR = 10
};

enum vu_dfu_status {
    VU_OK = 0x00,
    VU_errTARGET = 0x01,
    VU_errWRITE = 0x03,
    VU_errERASE = 0x04,
    VU_errVERIFY = 0x07,
    VU_errADDRESS = 0x08,
    VU_errFIRMWARE = 0x0A,
    VU_errVENDOR = 0x0B,
    VU_errUNKNOWN = 0x0E,
    VU_errSTALLEDPKT = 0x0F
};

enum vu_command {
    VU_CMD_NONE,
    VU_CMD_GET_COMMANDS,
    VU_CMD_SET_ADDRESS,
    VU_CMD_ERASE,
    VU_CMD_MASS_ERASE,
    VU_CMD_READ_UNPROTECT,
    VU_CMD_WRITE
};

/* How the unit leaves the bus against its will: its cable pulled while it keeps its own supply,
 * or its power lost. */
enum vu_cut { VU_CUT_NONE, VU_CUT_PULLED, VU_CUT_POWER };

/* One opened unit: the bootloader's volatile state plus the files behind its memory. */
struct vu_bootloader
{
    char dir[4096];
    char serial[VU_VALUE_MAX];
    struct vu_conf conf;
    int flash_fd;
    int otp_fd;
    uint8_t option_bytes[VU_OPTION_SIZE];
    int alt;
    uint8_t state;
    uint8_t status;
    /* What the unit was in when this run opened it; close saves a change. */
    uint8_t opened_state;
    uint8_t opened_status;
    uint32_t pointer;
    enum vu_command pending;
    uint32_t pending_address;
    uint16_t pending_length;
    uint8_t pending_data[VU_TRANSFER_SIZE];
    /* When the unit answered dfuDNBUSY for the pending command (monotonic clock). */
    long long busy_since_ms;
    /* Data bytes moved in this run, for faults that fire after N bytes. */
    long long bytes_down;
    long long bytes_up;
    /* Erase commands and leave requests in this run, for faults armed with --direction erase
     * or leave. */
    long long erases;
    long long leave_requests;
    /* A cut armed for the request in flight, which comes while the unit carries it out. */
    enum vu_cut cut;
    /* What this run has done, for the progress file: the end of the erased flash (an offset),
     * the bytes programmed. */
    long long erased_end;
    long long bytes_written;
    /* Set once the unit has left DFU mode or was pulled: every later request fails. */
    int gone;
    /* Just re-enumerated: every string descriptor request fails. */
    int no_strings;
};

/* A device on the virtual bus: the unit, or another maker's DFU-mode device beside it. */
enum vu_device_kind { VU_KIND_UNIT, VU_KIND_FOREIGN };
#define VU_FOREIGN_VENDOR 0x1d50
#define VU_FOREIGN_PRODUCT 0x6017
#define VU_FOREIGN_SERIAL "7D8C41A2"
/* Room for the largest configuration descriptor, the unit's. */
#define VU_CONFIG_MAX (9 + VU_ALT_COUNT * 9 + 9)

/* Raw descriptors as each device sends them on GET_DESCRIPTOR; each returns its length. */
int vu_device_descriptor(enum vu_device_kind kind, uint8_t* out);
int vu_config_descriptor(enum vu_device_kind kind, uint8_t* out, int size);
/* String descriptor index: 0 is the language list; 3 the serial. Returns -1 for no such string. */
int vu_string_descriptor(enum vu_device_kind kind, uint8_t* out, int size, int index,
                         const char* serial);
/* A GET_DESCRIPTOR request, as libusb_control_transfer answers it; with no_strings every string
 * request fails. The foreign device answers nothing else. */
int vu_descriptor_request(enum vu_device_kind kind, const char* serial, int no_strings,
                          uint16_t value, uint8_t* data, uint16_t length);

/* Opens the memory files of the folder; returns 0 or a negative libusb error. */
int vu_bootloader_open(struct vu_bootloader* unit, const char* dir, const struct vu_conf* conf);
void vu_bootloader_close(struct vu_bootloader* unit);
/* libusb_claim_interface: 0 or a negative libusb error. */
int vu_bootloader_claim(struct vu_bootloader* unit, int interface_number);
/* One control transfer, as libusb_control_transfer answers it. */
int vu_bootloader_request(struct vu_bootloader* unit, uint8_t request_type, uint8_t request,
                          uint16_t value, uint16_t index, uint8_t* data, uint16_t length,
                          unsigned int timeout_ms);

#ifdef __cplusplus
}
#endif
