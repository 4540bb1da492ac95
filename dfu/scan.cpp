#include "dfu/scan.h"

#include <QStringList>

#include "dfu/commands.h"
#include "dfu/listingparser.h"

namespace DFU {

DeviceItem::operator QString() const
{
    return QStringLiteral("DeviceItem: serial %1, path %2").arg(serial, path);
}

ScanResult::operator QString() const
{
    QStringList units;
    for (const DeviceItem& item : devices)
        units << (item.path.isEmpty() ? item.serial : item.serial + QStringLiteral(" at ") + item.path);
    return QStringLiteral("ScanResult: status %1, devices: %2")
        .arg(status)
        .arg(units.join(QLatin1Char(',')));
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
    for (qsizetype i = 0; i < parser.serials.size(); ++i)
        result.devices << DeviceItem{parser.serials[i], parser.paths[i]};
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
