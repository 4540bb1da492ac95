#include "dfu/scan.h"

#include <QStringList>

#include "dfu/commands.h"
#include "dfu/listingparser.h"

namespace DFU {

DeviceItem::operator QString() const
{
    return QStringLiteral("DeviceItem: serial ") + serial;
}

ScanResult::operator QString() const
{
    QStringList serials;
    for (const DeviceItem& item : devices)
        serials << item.serial;
    return QStringLiteral("ScanResult: status %1, devices: %2")
        .arg(status)
        .arg(serials.join(QLatin1Char(',')));
}

QDebug operator<<(QDebug dbg, const DeviceItem& item)
{
    const QDebugStateSaver saver(dbg);
    dbg.noquote() << QString(item);
    return dbg;
}

QDebug operator<<(QDebug dbg, const ScanResult& result)
{
    const QDebugStateSaver saver(dbg);
    dbg.noquote() << QString(result);
    return dbg;
}

ScanResult scan_for_devices(QString listing)
{
    const DfuUtilParser parser(listing);
    ScanResult result;
    for (const QString& serial : parser.serials)
        result.devices << DeviceItem{serial};
    if (parser.status == DfuUtilParser::one_dfu_device)
        result.status = 0;
    return result;
}

ScanResult make_scan()
{
    const CommandResult run = run_command(list, {});
    if (run.exit_code != 0)
        return {};
    return scan_for_devices(run.output);
}

} // namespace DFU
