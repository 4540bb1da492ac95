#include "cli/companion.h"

#include <cstdio>
#include <optional>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QThread>

#include "dfu/commands.h"
#include "dfu/scan.h"
#include "dfu/usbaccess.h"
#include "dfu/upgraderules.h"
#include "support/files.h"

namespace Cli {

namespace {

void print_out(const QString& text)
{
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

void print_json(const QJsonValue& value)
{
    const QJsonDocument document =
        value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    print_out(QString::fromUtf8(document.toJson(QJsonDocument::Indented)));
}

QString firmware_bin()
{
    return Files::working_path(Files::desired_FW_fileName_bin);
}

// Runs f as the named phase of a unit's work, timed into its record.
template <typename F> auto timed(UnitResult* result, const QString& name, F f)
{
    QElapsedTimer clock;
    clock.start();
    const auto value = f();
    result->phases << UnitResult::Phase{name, double(clock.elapsed()) / 1000.0};
    return value;
}

// Sets working while it lives: the unit is being read or written.
class Working
{
public:
    explicit Working(std::atomic<bool>& flag) : flag(flag) { flag.store(true); }
    ~Working() { flag.store(false); }
    Q_DISABLE_COPY_MOVE(Working)

private:
    std::atomic<bool>& flag;
};

} // namespace

Companion::Companion(Options options, Console* console)
    : options(std::move(options)), console(console)
{}

void Companion::pause() const
{
    QThread::msleep(unsigned(options.poll_ms));
}

void Companion::pin(const DFU::DeviceItem& unit)
{
    // Both: some bootloaders report one placeholder serial on every unit, and only the USB path
    // tells such units apart.
    DFU::Command::serial = options.pin_unit ? unit.serial : QString();
    DFU::Command::usb_path = options.pin_unit ? unit.path : QString();
}

QList<DFU::DeviceItem> Companion::listed_units()
{
    pin({});
    QList<DFU::DeviceItem> units;
    for (const DFU::DeviceItem& item : DFU::make_scan().devices)
        if (!units.contains(item))
            units << item;
    return units;
}

bool Companion::wanted(const DFU::DeviceItem& unit) const
{
    return (options.serial.isEmpty() || unit.serial == options.serial) &&
           (options.path.isEmpty() || unit.path == options.path);
}

Exit Companion::no_unit_exit(bool announce)
{
    const QString node =
        options.check_access
            ? DFU::inaccessible_bootloader_node(QStringLiteral("/sys"), QStringLiteral("/dev"))
            : QString();
    if (!node.isEmpty()) {
        if (announce)
            console->say(QStringLiteral("A bootloader is attached, but ") + permission_fix(node) +
                         QLatin1Char('.'));
        return NoPermission;
    }
    if (announce)
        console->say(options.serial.isEmpty() && options.path.isEmpty()
                         ? QStringLiteral("No unit in bootloader mode is attached.")
                         : QStringLiteral("No unit %1 is attached.")
                               .arg(unit_words(options.serial, options.path)));
    return NoUnit;
}

Companion::Selection Companion::select_unit()
{
    for (;;) {
        QList<DFU::DeviceItem> units = listed_units();
        units.removeIf([this](const DFU::DeviceItem& unit) { return !wanted(unit); });
        if (units.size() == 1)
            return {units.first(), Done};
        if (units.size() > 1) {
            console->say(
                QStringLiteral("Several units are attached; choose one with --serial or --path:"));
            for (const DFU::DeviceItem& unit : units)
                console->say(QStringLiteral("  ") + unit_words(unit.serial, unit.path));
            return {{}, SeveralUnits};
        }
        if (!options.wait || stop.load())
            return {{}, no_unit_exit(true)};
        // A unit this user may not open stays invisible to the listing: say so once, then wait.
        const bool no_access = no_unit_exit(false) == NoPermission;
        if (no_access && !told_no_access)
            no_unit_exit(true);
        told_no_access = no_access;
        pause();
    }
}

Exit Companion::read_identity(const DFU::DeviceItem& unit, DFU::DeviceInfo* info)
{
    pin(unit);
    for (int attempt = 1; attempt <= Upgrade::read_attempts; ++attempt) {
        *info = DFU::DeviceInfo();
        const DFU::CommandResult result = DFU::read_device_info(&unit, info);
        if (result.exit_code == 0)
            return Done;
        if (attempt == Upgrade::read_attempts) {
            console->say(QStringLiteral("Reading unit %1 failed %2 times (last status %3).")
                             .arg(unit.serial)
                             .arg(attempt)
                             .arg(result.exit_code));
            break;
        }
        QThread::msleep(Upgrade::retry_pause_ms);
    }
    return ReadFailed;
}

bool Companion::read_back(UnitResult* result, const QString& phase)
{
    const QString reference = firmware_bin();
    console->step(QStringLiteral("Verifying"));
    const Upgrade::ReadBack read = timed(result, phase, [&] {
        return DFU::read_back_FW(
            reference, Files::working_path(Files::uploaded_FW_fileName_bin),
            console->progress(DFU::whole_blocks(DFU::size_of_binary_file(reference))));
    });
    result->read_back = read;
    result->read_back_taken = true;
    if (read.matches)
        return true;
    result->note = read.complete
                       ? QStringLiteral("the flash differs from the image at offset %1 (sector %2)")
                             .arg(read.first_difference)
                             .arg(read.sector)
                       : QStringLiteral("the flash could not be read back in full");
    return false;
}

void Companion::leave(UnitResult* result)
{
    // The image is proven; a leave whose end the unit does not confirm (it may reset before it
    // answers) changes nothing of that.
    console->step(QStringLiteral("Starting the firmware"));
    const int exit_code = timed(result, QStringLiteral("leave"), [] {
        return DFU::leave_bootloader(Files::working_path(Files::uploaded_FW_info_fileName_bin));
    });
    if (exit_code != 0)
        console->say(QStringLiteral("Unit %1: the request to start its firmware ended with status "
                                    "%2; if it stays in its bootloader, power it off and on.")
                         .arg(result->serial)
                         .arg(exit_code));
}

void Companion::write_and_prove(UnitResult* result)
{
    const QString image = firmware_bin();
    for (int attempt = 1; attempt <= Upgrade::write_attempts; ++attempt) {
        if (attempt > 1)
            console->say(QStringLiteral("Unit %1: %2; writing it once more.")
                             .arg(result->serial, result->note));
        // dfu-util erases first; its records then name each stage. The unit stays in its
        // bootloader, so that it is proven before its new firmware runs.
        console->step(QStringLiteral("Erasing"));
        const Upgrade::WriteEnd end = timed(result, QStringLiteral("write"), [&] {
            return DFU::write_FW(image, false, console->progress(DFU::size_of_binary_file(image)));
        });
        if (end == Upgrade::WriteEnd::NotWritten) {
            result->exit = WriteFailed;
            result->note = QStringLiteral("the write broke off before the last byte");
            continue;
        }
        // Written in full, or sent in full without a confirmed end: the read-back decides.
        if (read_back(result, QStringLiteral("verify"))) {
            result->exit = Done;
            result->note.clear();
            result->new_revision = DFU::desired_FW_Info().revision;
            leave(result);
            return;
        }
        result->exit = VerificationFailed;
    }
}

bool Companion::holds_carried_revision(const DFU::DeviceItem& unit)
{
    DFU::DeviceInfo info;
    return read_identity(unit, &info) == Done &&
           Upgrade::verdict(info, DFU::carried_firmware()) == Upgrade::Verdict::SameRevision;
}

UnitResult Companion::work_on(const DFU::DeviceItem& unit)
{
    const Working working_on_it(working);
    QElapsedTimer clock;
    clock.start();
    UnitResult result;
    result.serial = unit.serial;
    result.path = unit.path;
    DFU::observe_runs([&result](DFU::CmdID id, int exit_code) {
        result.runs << UnitResult::Run{DFU::command_name(id), exit_code};
    });
    console->step(QStringLiteral("Reading unit ") + unit.serial);
    DFU::DeviceInfo info;
    result.exit =
        timed(&result, QStringLiteral("identity"), [&] { return read_identity(unit, &info); });
    if (result.exit == Done) {
        const Upgrade::Verdict verdict = Upgrade::verdict(info, DFU::carried_firmware());
        const ListedUnit listed = listed_unit(unit, info);
        result.product = listed.product;
        result.type = info.OTP_info.product.raw_type;
        result.verdict = Upgrade::verdict_name(verdict);
        result.old_revision = info.FW_revision;
        if (Upgrade::needs_check(verdict, options.force)) {
            // Current only on the strength of a complete, matching read-back; otherwise repaired.
            result.current = read_back(&result, QStringLiteral("check"));
            if (result.current) {
                result.new_revision = result.old_revision;
                leave(&result);
            } else if (Upgrade::may_write(verdict, options.force, true)) {
                console->say(QStringLiteral("Unit %1 names the carried revision, but %2; "
                                            "repairing it.")
                                 .arg(result.serial, result.note));
                result.repaired = true;
                write_and_prove(&result);
            }
        } else if (Upgrade::may_write(verdict, options.force)) {
            write_and_prove(&result);
        } else if (verdict == Upgrade::Verdict::Blank) {
            result.exit = BlankIdentity;
            result.note = QStringLiteral("the unit's identity area is blank; nothing is written");
        } else {
            result.exit = OtherProduct;
            result.note = QStringLiteral("the unit is a %1, the firmware is for %2; nothing is "
                                         "written")
                              .arg(listed.product, DFU::desired_FW_Info().product.product_name());
        }
    }
    DFU::observe_runs({});
    result.seconds = double(clock.elapsed()) / 1000.0;
    return result;
}

void Companion::report(const UnitResult& result)
{
    if (!result.note.isEmpty())
        console->say(QStringLiteral("Unit %1: %2.").arg(result.serial, result.note));
    console->end_line();
    if (options.json)
        print_out(
            QString::fromUtf8(QJsonDocument(result_json(result)).toJson(QJsonDocument::Compact)) +
            QLatin1Char('\n'));
    else
        print_out(summary_line(result) + QLatin1Char('\n'));
}

Exit Companion::list()
{
    QList<ListedUnit> units;
    for (const DFU::DeviceItem& item : listed_units()) {
        DFU::DeviceInfo info;
        const bool read = read_identity(item, &info) == Done;
        ListedUnit unit = listed_unit(item, info);
        if (!read) {
            unit.product.clear();
            unit.problem = QStringLiteral("identity could not be read");
        }
        units << unit;
    }
    // dfu-util does not list what it cannot open; the system does, with its serial.
    if (options.check_access) {
        for (const DFU::AttachedBootloader& found :
             DFU::attached_bootloaders(QStringLiteral("/sys"), QStringLiteral("/dev"))) {
            if (found.accessible)
                continue;
            ListedUnit unit;
            unit.serial = found.serial;
            unit.accessible = false;
            unit.node = found.node;
            units << unit;
        }
    }
    if (options.json) {
        QJsonArray array;
        for (const ListedUnit& unit : units)
            array << list_json(unit);
        print_json(array);
    } else {
        for (const ListedUnit& unit : units)
            print_out(list_line(unit) + QLatin1Char('\n'));
    }
    return units.isEmpty() ? NoUnit : Done;
}

Exit Companion::info()
{
    const Selection selection = select_unit();
    if (selection.exit != Done)
        return selection.exit;
    DFU::DeviceInfo info;
    const Exit read = read_identity(selection.unit, &info);
    if (read != Done)
        return read;
    if (options.json)
        print_json(info_json(selection.unit.serial, info));
    else
        print_out(info_text(selection.unit.serial, info));
    return Done;
}

Exit Companion::verify()
{
    const Selection selection = select_unit();
    if (selection.exit != Done)
        return selection.exit;
    const Working working_on_it(working);
    pin(selection.unit);
    UnitResult result;
    result.serial = selection.unit.serial;
    result.path = selection.unit.path;
    DFU::observe_runs([&result](DFU::CmdID id, int exit_code) {
        result.runs << UnitResult::Run{DFU::command_name(id), exit_code};
    });
    result.exit = read_back(&result, QStringLiteral("verify")) ? Done : VerificationFailed;
    DFU::observe_runs({});
    result.seconds = result.phases.first().seconds;
    if (result.exit == Done)
        console->say(
            QStringLiteral("Unit %1: the flash holds the carried image.").arg(result.serial));
    if (options.json) {
        report(result);
    } else if (result.exit != Done) {
        console->say(QStringLiteral("Unit %1: %2.").arg(result.serial, result.note));
    }
    return result.exit;
}

Exit Companion::upgrade()
{
    if (!options.repeat) {
        const Selection selection = select_unit();
        if (selection.exit != Done)
            return selection.exit;
        const UnitResult result = work_on(selection.unit);
        report(result);
        return result.exit;
    }
    // One unit after another: a unit is taken once until it has been seen gone.
    QList<DFU::DeviceItem> finished;
    QList<DFU::DeviceItem> proven;
    Exit last_failure = Done;
    while (!stop.load()) {
        QList<DFU::DeviceItem> still_there;
        std::optional<DFU::DeviceItem> next;
        for (const DFU::DeviceItem& unit : listed_units()) {
            if (finished.contains(unit))
                still_there << unit;
            else if (!next && wanted(unit))
                next = unit;
        }
        finished = still_there;
        if (!next) {
            pause();
            continue;
        }
        finished << *next;
        // A unit started on its new firmware may come back in its bootloader (the product's
        // firmware decides): one already proven in this run is recognised, not taken again.
        if (proven.contains(*next) && holds_carried_revision(*next)) {
            console->say(QStringLiteral("Unit %1 is back and holds the carried firmware; it was "
                                        "done in this run.")
                             .arg(next->serial));
            continue;
        }
        const UnitResult result = work_on(*next);
        report(result);
        if (result.exit == Done)
            proven << *next;
        else
            last_failure = result.exit;
        if (!stop.load())
            console->say(QStringLiteral("Waiting for the next unit (Ctrl+C ends)..."));
    }
    return last_failure;
}

} // namespace Cli
