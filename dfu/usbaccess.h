// Finds an attached bootloader that this user may not open: dfu-util then lists no unit at all.
#pragma once

#include <QString>

namespace DFU {

// The device node (DEV_ROOT/bus/usb/BBB/DDD) of the first bootloader, USB 0483:df11, that
// SYSFS_ROOT/bus/usb/devices shows attached and whose node exists but cannot be opened for reading
// and writing by this process; empty when there is none.
QString inaccessible_bootloader_node(const QString& sysfs_root, const QString& dev_root);

} // namespace DFU
