// Reading a unit's identity, writing firmware to it and verifying the flash by reading it back.
#pragma once

#include <QDebug>
#include <QMetaType>
#include <QString>

#include "device/fwinfo.h"
#include "device/otpinfo.h"
#include "device/products.h"
#include "dfu/commands.h"
#include "dfu/upgraderules.h"

namespace DFU {

struct DeviceItem;

struct DeviceInfo
{
    bool valid = false; // true once the OTP record has been read
    // Set only when the firmware block names the same product as the OTP record.
    QString FW_revision;
    Device::OTP_Info OTP_info;
    // Its valid flag is cleared when the products do not match.
    Device::FW_Info FW_info;
    Device::Type type = Device::Invalid;

    operator QString() const;
};

QDebug operator<<(QDebug dbg, const DeviceInfo& info);

// Fills *info field by field without resetting it first. A product mismatch is not an error
// code: the result's exit code stays 0 and the explanation is appended to its output. A failed
// or short OTP or information read-out is: its exit code, or short_read_exit_code.
CommandResult read_device_info(const DeviceItem* device, DeviceInfo* info);
Device::FW_Info read_FW_Info(const DeviceItem* device);

// The exit code a read-out gets when dfu-util exited 0 but the file came back short (sysexits'
// EX_TEMPFAIL: the unit is to be read again).
constexpr int short_read_exit_code = 75;

// The transfers hand dfu-util's progress records to on_progress while they run.

// Writes the image and judges the write's end. With leave the unit starts its firmware at the
// end (the window's flow verifies it when it is back); without, it stays in its bootloader to be
// read back first.
Upgrade::WriteEnd write_FW(const QString& path, bool leave, const ProgressHandler& on_progress = {});
// Reads whole_blocks(reference's size) back into target and judges it against the reference; a
// read-back that fails or comes back short is tried up to Upgrade::read_attempts times.
Upgrade::ReadBack read_back_FW(const QString& reference, const QString& target,
                               const ProgressHandler& on_progress = {});
// Tells a unit in its bootloader to start its firmware: one short read that ends with the leave
// request (dfu-util's ":leave" after an upload), read into target. The tool's exit code.
int leave_bootloader(const QString& target);
// Reads byte_count bytes of flash into target, which is deleted first; the tool's exit code.
int upload_FW_from_device(const QString& target, int byte_count,
                          const ProgressHandler& on_progress = {});
// The byte count rounded up to whole transfer blocks (2048 bytes).
int whole_blocks(int byte_count);
// read_back_FW's verdict: whether the flash holds the reference.
bool upload_and_compare_FW_bin(const QString& reference, const QString& target,
                               const ProgressHandler& on_progress = {});

int size_of_binary_file(const QString& path);

Device::FW_Info read_FW_Info_from_desired_FW();
// Read once, on the first call (at start-up, before the worker thread exists), never refreshed.
const Device::FW_Info& desired_FW_Info();
// What the rules compare a unit with: desired_FW_Info's product and revision.
Upgrade::Carried carried_firmware();

} // namespace DFU

// Handed from the worker to the flow with the signal that announces the unit.
Q_DECLARE_METATYPE(DFU::DeviceInfo)
