// The device scan: run the listing and tell whether exactly one bootloader unit is attached.
#pragma once

#include <QDebug>
#include <QList>
#include <QString>

namespace DFU {

// A unit is its serial and its USB path together: two units may report the same serial.
struct DeviceItem
{
    QString serial; // as listed, whatever it holds
    // "1-2.4", dfu-util's "-p"; empty where the listing gives none. Initialised, so that
    // DeviceItem{serial} stays a complete initialisation.
    QString path{};

    operator QString() const;
    bool operator==(const DeviceItem& other) const
    {
        return serial == other.serial && path == other.path;
    }
    bool operator!=(const DeviceItem& other) const { return !(*this == other); }
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
