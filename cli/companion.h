// The companion's commands: list, info, upgrade and verify, each a sequence of the driver's runs
// on the calling thread, while the event loop's thread takes the termination signals.
#pragma once

#include <atomic>

#include <QList>
#include <QSet>
#include <QString>

#include "cli/console.h"
#include "cli/report.h"

namespace Cli {

struct Options
{
    QString serial; // the unit to work on, by serial and or USB path; both empty: the only one
    QString path;
    bool wait = false;
    bool repeat = false;
    bool force = false;
    bool json = false;
    bool check_access =
        true;             // look for bootloaders this user may not open (not with the simulator)
    bool pin_unit = true; // select the unit with dfu-util's -S and -p (the simulator has none)
    int poll_ms = 100;    // between listings while waiting for a unit
};

class Companion
{
public:
    Companion(Options options, Console* console);

    Exit list();
    Exit info();
    Exit upgrade();
    Exit verify();

    // From any thread: end after the running unit; a running transfer is never cut short.
    void request_stop() { stop.store(true); }
    // True while a unit is being upgraded or verified.
    bool busy() const { return working.load(); }

private:
    struct Selection
    {
        DFU::DeviceItem unit;
        Exit exit = Done;
    };
    // The listed units, each once, without selecting any.
    QList<DFU::DeviceItem> listed_units();
    // Whether the unit is one that --serial and --path ask for.
    bool wanted(const DFU::DeviceItem& unit) const;
    Selection select_unit();
    Exit no_unit_exit(bool announce);
    void pin(const DFU::DeviceItem& unit);
    Exit read_identity(const DFU::DeviceItem& unit, DFU::DeviceInfo* info);
    // Reads the flash back into the record; true when it holds the carried image.
    bool read_back(UnitResult* result, const QString& phase);
    // Writes and proves the image while the unit stays in its bootloader, once more after a
    // read-back that differs, then starts the firmware.
    void write_and_prove(UnitResult* result);
    void leave(UnitResult* result);
    bool holds_carried_revision(const DFU::DeviceItem& unit);
    // Reads, decides, writes and verifies one unit, keeping its record.
    UnitResult work_on(const DFU::DeviceItem& unit);
    // Prints a unit's record: the summary line, or with --json the JSON object, on standard output.
    void report(const UnitResult& result);
    void pause() const;

    const Options options;
    Console* const console;
    std::atomic<bool> stop{false};
    std::atomic<bool> working{false};
    bool told_no_access = false;
};

} // namespace Cli
