// Classifies a dfu-util listing: none, exactly one, an invalid one, or several bootloader units.
#pragma once

#include <QList>
#include <QString>

class DfuUtilParser
{
public:
    // The enumerator names double as the texts of status_as_string().
    enum Status : int {
        no_dfu_device = 0,
        one_dfu_device = 1,
        invalid_dfu_device = 2,
        multiple_dfu_devices = 3,
    };

    explicit DfuUtilParser(const QString& listing);

    QString status_as_string() const;

    Status status = no_dfu_device;
    // One entry per unit in order of appearance, without repeats of the immediately preceding
    // unit. A unit is its USB path and its serial: some bootloaders report one placeholder serial
    // on every unit.
    QList<QString> serials;
    QList<QString> paths; // beside serials; empty where the listing has no path (dfu-util 0.8)
    // 0 when parsing stopped early at a line without a serial number.
    int number_of_devices = 0;

    static QString prefix_RE;
    static QString extract_serial_RE;
    static QString extract_path_RE;
};
