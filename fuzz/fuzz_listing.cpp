// Fuzz target: dfu-util listing text through the listing parser and the device scan.
#include <cstddef>
#include <cstdint>

#include <QString>

#include "dfu/listingparser.h"
#include "dfu/scan.h"
#include "fuzz/fuzzcheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using fuzz::require;
    // dfu-util's output reaches the program as UTF-8 text; bad sequences become U+FFFD there too.
    const QString listing = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));

    const DfuUtilParser parser(listing);
    require(parser.status >= DfuUtilParser::no_dfu_device &&
                parser.status <= DfuUtilParser::multiple_dfu_devices,
            "status is one of the four verdicts");
    require(!parser.status_as_string().isEmpty(), "every verdict has a name");
    require(parser.number_of_devices == 0 || parser.number_of_devices == parser.serials.size(),
            "number_of_devices counts the serials, or is 0 after an early stop");
    require(parser.status != DfuUtilParser::one_dfu_device ||
                (parser.serials.size() == 1 && parser.number_of_devices == 1),
            "one unit means one serial");
    require(parser.status != DfuUtilParser::multiple_dfu_devices || parser.serials.size() > 1,
            "several units means several serials");
    require(parser.paths.size() == parser.serials.size(), "one path per serial");
    for (qsizetype i = 0; i < parser.serials.size(); ++i) {
        const QString& serial = parser.serials[i];
        require(!serial.isEmpty() && !serial.contains(QLatin1Char('\n')) &&
                    serial != QLatin1String("UNKNOWN"),
                "a serial is the non-empty text of one line, never dfu-util's UNKNOWN");
        require(i == 0 || serial != parser.serials[i - 1] || parser.paths[i] != parser.paths[i - 1],
                "no unit repeats the one before it");
    }

    const DFU::ScanResult scan = DFU::scan_for_devices(listing);
    require((scan.status == 0) == (parser.status == DfuUtilParser::one_dfu_device),
            "a scan succeeds exactly when the parser sees one unit");
    require(scan.devices.size() == parser.serials.size(), "one device item per unit");
    for (qsizetype i = 0; i < scan.devices.size(); ++i)
        require(scan.devices[i] == DFU::DeviceItem{parser.serials[i], parser.paths[i]},
                "device items keep the units' order");
    return 0;
}
