// Fuzz target: dfu-util listing text through the listing parser and the device scan.
#include <cstddef>
#include <cstdint>

#include <QString>

#include "dfu/listingparser.h"
#include "dfu/scan.h"
#include "fuzz/fuzzcheck.h"

namespace {

bool is_hex(const QString& text)
{
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if (!((u >= '0' && u <= '9') || (u >= 'a' && u <= 'f') || (u >= 'A' && u <= 'F')))
            return false;
    }
    return !text.isEmpty();
}

} // namespace

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
    for (qsizetype i = 0; i < parser.serials.size(); ++i) {
        require(is_hex(parser.serials[i]), "a serial is a non-empty run of hexadecimal digits");
        require(i == 0 || parser.serials[i] != parser.serials[i - 1],
                "no serial repeats the one before it");
    }

    const DFU::ScanResult scan = DFU::scan_for_devices(listing);
    require((scan.status == 0) == (parser.status == DfuUtilParser::one_dfu_device),
            "a scan succeeds exactly when the parser sees one unit");
    require(scan.devices.size() == parser.serials.size(), "one device item per serial");
    for (qsizetype i = 0; i < scan.devices.size(); ++i)
        require(scan.devices[i].serial == parser.serials[i],
                "device items keep the serials' order");
    return 0;
}
