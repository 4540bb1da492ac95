// Fuzz target: the start of a firmware image through the information block reader.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <QByteArray>
#include <QString>

#include "device/fwinfo.h"
#include "fuzz/fuzzcheck.h"

namespace {

// A text field holds at most 31 bytes before its NUL, and UTF-8 never decodes to more UTF-16
// units than it has bytes.
bool fits_field(const QString& text)
{
    return text.size() <= 31;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using fuzz::require;
    const QByteArray image(reinterpret_cast<const char*>(data), qsizetype(size));
    const Device::FW_Info info = Device::make_FW_Info(image);

    if (info.valid) {
        require(fits_field(info.name) && fits_field(info.revision),
                "name and revision fit a field");
        // Both markers lie before byte 1949, which leaves room for 29 pairs at most.
        require(info.details.size() <= 29, "no more pairs than fit before the limit");
        for (const auto& [key, value] : info.details) {
            require(!key.isEmpty() && !value.isEmpty(), "an empty text ends the pair list");
            require(fits_field(key) && fits_field(value), "keys and values fit a field");
        }
    } else {
        require(QString(info) == QStringLiteral("FW info:\n\tInvalid"),
                "an invalid block prints as invalid");
        require(info.details.isEmpty() && info.name.isEmpty(), "an invalid block carries nothing");
    }
    (void)QString(info);

    // The text helpers on their own: a position taken from the input, anywhere around the data.
    if (size >= 2) {
        const int pos = int(std::int16_t(std::uint16_t(data[0]) | std::uint16_t(data[1]) << 8));
        require(fits_field(Device::get_string(image, pos)), "get_string returns one field");
    }
    if (size >= 32) {
        const std::uint32_t n = Device::local_strlen(reinterpret_cast<const char*>(data));
        require(n == 0xFFFFFFFFu ? std::memchr(data, 0, 32) == nullptr : n < 32 && data[n] == 0,
                "local_strlen finds the first NUL of 32 bytes");
    }
    return 0;
}
