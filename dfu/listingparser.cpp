#include "dfu/listingparser.h"

#include <QDebug>
#include <QMap>
#include <QRegularExpression>
#include <QStringList>

QString DfuUtilParser::prefix_RE = QStringLiteral(R"(^Found DFU: \[0483:df11\] ver=2200)");
QString DfuUtilParser::extract_serial_RE = QStringLiteral(R"re(serial="([0-9a-fA-F]+)")re");

namespace {

// The bootloader lists one line per alternate setting; the unit has four of them.
constexpr int lines_per_unit = 4;

struct CompiledPatterns
{
    QRegularExpression prefix{DfuUtilParser::prefix_RE};
    QRegularExpression serial{DfuUtilParser::extract_serial_RE};
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
        if (!match.hasMatch()) {
            qDebug() << "Listing line without serial number:" << line;
            status = no_dfu_device;
            return;
        }
        const QString serial = match.captured(1);
        // Only the preceding entry is compared, so alternating units repeat their numbers.
        if (serials.isEmpty() || serials.last() != serial)
            serials << serial;
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
