#include "cli/companion.h"

#include <cstdio>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QThread>

#include "dfu/commands.h"
#include "dfu/scan.h"
#include "dfu/usbaccess.h"
#include "statemachines/sm_a.h"
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
{
}

void Companion::pause() const
{
    QThread::msleep(unsigned(options.poll_ms));
}

void Companion::pin(const QString& serial)
{
    DFU::Command::serial = options.pin_serial ? serial : QString();
}

QList<QString> Companion::listed_serials()
{
    pin({});
    QList<QString> serials;
    for (const DFU::DeviceItem& item : DFU::make_scan().devices)
        if (!serials.contains(item.serial))
            serials << item.serial;
    return serials;
}

Exit Companion::no_unit_exit(bool announce)
{
    const QString node = options.check_access
                             ? DFU::inaccessible_bootloader_node(QStringLiteral("/sys"),
                                                                 QStringLiteral("/dev"))
                             : QString();
    if (!node.isEmpty()) {
        if (announce)
            console->say(QStringLiteral("A bootloader is attached, but ") + permission_fix(node) +
                         QLatin1Char('.'));
        return NoPermission;
    }
    if (announce)
        console->say(options.serial.isEmpty()
                         ? QStringLiteral("No unit in bootloader mode is attached.")
                         : QStringLiteral("No unit with serial %1 is attached.")
                               .arg(options.serial));
    return NoUnit;
}

Companion::Selection Companion::select_unit()
{
    for (;;) {
        const QList<QString> serials = listed_serials();
        if (!options.serial.isEmpty()) {
            if (serials.contains(options.serial))
                return {options.serial, Done};
        } else if (serials.size() == 1) {
            return {serials.first(), Done};
        } else if (serials.size() > 1) {
            console->say(QStringLiteral("Several units are attached; choose one with --serial:"));
            for (const QString& serial : serials)
                console->say(QStringLiteral("  ") + serial);
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

Exit Companion::read_identity(const QString& serial, DFU::DeviceInfo* info)
{
    pin(serial);
    DFU::DeviceItem item{serial};
    // As the window's worker does: a unit still enumerating refuses the first opens.
    for (int attempt = 1; attempt <= SM_A::read_attempts; ++attempt) {
        *info = DFU::DeviceInfo();
        const DFU::CommandResult result = DFU::read_device_info(&item, info);
        if (result.exit_code == 0)
            return Done;
        if (attempt == SM_A::read_attempts) {
            console->say(QStringLiteral("Reading unit %1 failed %2 times (last status %3).")
                             .arg(serial)
                             .arg(attempt)
                             .arg(result.exit_code));
            break;
        }
        pause();
    }
    return ReadFailed;
}

Exit Companion::read_back(QString* note)
{
    const QString reference = firmware_bin();
    const QString target = Files::working_path(Files::uploaded_FW_fileName_bin);
    const int total = DFU::whole_blocks(DFU::size_of_binary_file(reference));
    for (int attempt = 1; attempt <= SM_A::read_attempts; ++attempt) {
        console->step(QStringLiteral("Verifying"));
        // A failed or short read-back never passes: the driver compares whole blocks only.
        if (DFU::upload_and_compare_FW_bin(reference, target, console->progress(total)))
            return Done;
        pause();
    }
    *note = QStringLiteral("the flash read back differs from the image, or could not be read");
    return VerificationFailed;
}

bool Companion::wait_for_return(const QString& serial)
{
    console->step(QStringLiteral("Restarting"));
    pin(serial);
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < options.return_timeout_ms) {
        for (const DFU::DeviceItem& item : DFU::make_scan().devices)
            if (item.serial == serial)
                return true;
        pause();
    }
    return false;
}

UnitResult Companion::upgrade_unit(const QString& serial)
{
    const UnitResult result = work_on(serial);
    if (!result.note.isEmpty())
        console->say(QStringLiteral("Unit %1: %2.").arg(serial, result.note));
    print_out(summary_line(result) + QLatin1Char('\n'));
    return result;
}

UnitResult Companion::work_on(const QString& serial)
{
    const Working working_on_it(working);
    QElapsedTimer clock;
    clock.start();
    UnitResult result;
    result.serial = serial;
    console->step(QStringLiteral("Reading unit ") + serial);
    DFU::DeviceInfo info;
    result.exit = read_identity(serial, &info);
    if (result.exit == Done) {
        result.old_revision = info.FW_revision;
        const Device::FW_Info& desired = DFU::desired_FW_Info();
        switch (decide(info, desired.product.type, desired.revision, options.force)) {
        case Decision::Blank:
            result.exit = BlankIdentity;
            result.note = QStringLiteral("the unit's identity area is blank; nothing is written");
            break;
        case Decision::OtherProduct:
            result.exit = OtherProduct;
            result.note = QStringLiteral("the unit is a %1, the firmware is for %2; nothing is "
                                         "written")
                              .arg(listed_unit(serial, info).product,
                                   desired.product.product_name());
            break;
        case Decision::Current:
            // Already current only on the strength of a complete, matching read-back.
            result.current = true;
            result.exit = read_back(&result.note);
            if (result.exit == Done)
                result.new_revision = result.old_revision;
            else
                result.note += QStringLiteral("; --force writes it again");
            break;
        case Decision::Write: {
            // dfu-util erases first; its records then name each stage.
            console->step(QStringLiteral("Erasing"));
            const DFU::CommandResult written =
                DFU::run_command(DFU::download_FW, {firmware_bin()},
                                 console->progress(DFU::size_of_binary_file(firmware_bin())));
            // Many units reset before they answer the leave's last poll, so dfu-util fails after
            // the whole image went out: as in the window, the read-back decides then.
            const bool sent = written.exit_code == 0 ||
                              written.output.contains(QLatin1String("Submitting leave request"));
            if (!sent) {
                result.exit = WriteFailed;
                result.note = QStringLiteral("dfu-util ended the write with status %1")
                                  .arg(written.exit_code);
            } else if (!wait_for_return(serial)) {
                result.exit = VerificationFailed;
                result.note = QStringLiteral("the unit did not come back after the write");
            } else {
                result.exit = read_back(&result.note);
                if (result.exit == Done)
                    result.new_revision = desired.revision;
            }
            break;
        }
        }
    }
    result.seconds = double(clock.elapsed()) / 1000.0;
    return result;
}

Exit Companion::list()
{
    QList<ListedUnit> units;
    for (const QString& serial : listed_serials()) {
        DFU::DeviceInfo info;
        const bool read = read_identity(serial, &info) == Done;
        ListedUnit unit = listed_unit(serial, info);
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
    const Exit read = read_identity(selection.serial, &info);
    if (read != Done)
        return read;
    if (options.json)
        print_json(info_json(selection.serial, info));
    else
        print_out(info_text(selection.serial, info));
    return Done;
}

Exit Companion::verify()
{
    const Selection selection = select_unit();
    if (selection.exit != Done)
        return selection.exit;
    const Working working_on_it(working);
    pin(selection.serial);
    QString note;
    const Exit result = read_back(&note);
    console->say(result == Done
                     ? QStringLiteral("Unit %1: the flash holds the carried image.")
                           .arg(selection.serial)
                     : QStringLiteral("Unit %1: %2.").arg(selection.serial, note));
    return result;
}

Exit Companion::upgrade()
{
    if (!options.repeat) {
        const Selection selection = select_unit();
        if (selection.exit != Done)
            return selection.exit;
        return upgrade_unit(selection.serial).exit;
    }
    // One unit after another: a unit is taken once until it has been seen gone.
    QSet<QString> finished;
    Exit last_failure = Done;
    while (!stop.load()) {
        const QList<QString> serials = listed_serials();
        QSet<QString> still_there;
        QString next;
        for (const QString& serial : serials) {
            if (finished.contains(serial))
                still_there << serial;
            else if (next.isEmpty() && (options.serial.isEmpty() || serial == options.serial))
                next = serial;
        }
        finished = still_there;
        if (next.isEmpty()) {
            pause();
            continue;
        }
        const UnitResult result = upgrade_unit(next);
        finished << next;
        if (result.exit != Done)
            last_failure = result.exit;
        if (!stop.load())
            console->say(QStringLiteral("Waiting for the next unit (Ctrl+C ends)..."));
    }
    return last_failure;
}

} // namespace Cli
