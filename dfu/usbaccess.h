// Finds an attached bootloader that this user may not open: dfu-util then lists no unit at all.
#pragma once

#include <QList>
#include <QString>

namespace DFU {

struct AttachedBootloader
{
    QString node;   // DEV_ROOT/bus/usb/BBB/DDD
    QString serial; // as the device reports it to the system; empty when it reports none
    bool accessible = false; // this process may open the node for reading and writing
};

// Every bootloader, USB 0483:df11, that SYSFS_ROOT/bus/usb/devices shows attached and whose node
// exists, in the order of the system's device names.
QList<AttachedBootloader> attached_bootloaders(const QString& sysfs_root, const QString& dev_root);

// The device node (DEV_ROOT/bus/usb/BBB/DDD) of the first bootloader, USB 0483:df11, that
// SYSFS_ROOT/bus/usb/devices shows attached and whose node exists but cannot be opened for reading
// and writing by this process; empty when there is none.
QString inaccessible_bootloader_node(const QString& sysfs_root, const QString& dev_root);

} // namespace DFU
