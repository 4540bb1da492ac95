#include "dfu/listingparser.h"

#include <QDebug>
#include <QMap>
#include <QRegularExpression>
#include <QStringList>

QString DfuUtilParser::prefix_RE = QStringLiteral(R"(^Found DFU: \[0483:df11\] ver=2200)");
// The serial is whatever stands between the quotes: several STM32F4 system bootloaders report
// "STM32FxSTM32" or "STM32", others a fixed placeholder. dfu-util prints it as the line's last field
// (list_dfu_interfaces in 0.8 to 0.11), so the text runs to the line's last quote.
QString DfuUtilParser::extract_serial_RE = QStringLiteral(R"re(serial="(.+)")re");
// dfu-util 0.8 prints no path.
QString DfuUtilParser::extract_path_RE = QStringLiteral(R"re(path="([^"]*)")re");

namespace {

// The bootloader lists one line per alternate setting; the unit has four of them.
constexpr int lines_per_unit = 4;

// What dfu-util prints for a serial it could not read (dfu_util.c, probe_configuration): no
// serial at all, as with a unit still enumerating whose strings are not readable yet.
const QString unreadable_serial = QStringLiteral("UNKNOWN");

struct CompiledPatterns
{
    QRegularExpression prefix{DfuUtilParser::prefix_RE};
    QRegularExpression serial{DfuUtilParser::extract_serial_RE};
    QRegularExpression path{DfuUtilParser::extract_path_RE};
};

// Compiled on first use and kept; a function-level static is initialised thread-safely.
const CompiledPatterns& patterns()
{
    static const CompiledPatterns compiled;
    return compiled;
}

} // namespace

DfuUtilParser::DfuUtilParser(const QString& listing)
{
    const CompiledPatterns& re = patterns();

    QStringList kept;
    for (const QString& line : listing.split(QLatin1Char('\n'))) {
        if (re.prefix.match(line).hasMatch())
            kept << line;
    }
    if (kept.isEmpty())
        return;

    int countdown = lines_per_unit;
    for (const QString& line : kept) {
        const QRegularExpressionMatch match = re.serial.match(line);
        if (!match.hasMatch() || match.captured(1) == unreadable_serial) {
            qDebug() << "Listing line without serial number:" << line;
            status = no_dfu_device;
            return;
        }
        const QString serial = match.captured(1);
        const QString path = re.path.match(line).captured(1);
        // Only the preceding entry is compared, so alternating units repeat their numbers.
        if (serials.isEmpty() || serials.last() != serial || paths.last() != path) {
            serials << serial;
            paths << path;
        }
        --countdown;
    }

    number_of_devices = int(serials.size());
    if (number_of_devices == 1)
        status = countdown == 0 ? one_dfu_device : invalid_dfu_device;
    else if (number_of_devices > 1)
        status = multiple_dfu_devices;
    else
        status = no_dfu_device;
}

QString DfuUtilParser::status_as_string() const
{
    // Read-only after construction, so parsers on different threads may share it.
    static const QMap<int, QString> names{
        {no_dfu_device, QStringLiteral("no_dfu_device")},
        {one_dfu_device, QStringLiteral("one_dfu_device")},
        {invalid_dfu_device, QStringLiteral("invalid_dfu_device")},
        {multiple_dfu_devices, QStringLiteral("multiple_dfu_devices")},
    };
    return names.value(status);
}
