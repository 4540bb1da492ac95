// The device scan: run the listing and tell whether exactly one bootloader unit is attached.
#pragma once

#include <QDebug>
#include <QList>
#include <QString>

namespace DFU {

struct DeviceItem
{
    QString serial; // hexadecimal digits, case as listed

    operator QString() const;
};

struct ScanResult
{
    int status = 1; // 0 only when the listing shows exactly one usable unit
    // Filled whatever the status, so a failed scan may still name several units.
    QList<DeviceItem> devices;

    operator QString() const;
};

QDebug operator<<(QDebug dbg, const DeviceItem& item);
QDebug operator<<(QDebug dbg, const ScanResult& result);

ScanResult scan_for_devices(QString listing);
ScanResult make_scan();

} // namespace DFU
