// Fuzz target: an uploaded OTP area through the OTP record reader.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include <QByteArray>
#include <QString>

#include "device/otpinfo.h"
#include "fuzz/fuzzcheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using fuzz::require;
    const QByteArray otp(reinterpret_cast<const char*>(data), qsizetype(size));
    const Device::OTP_Info info = Device::make_OTP_Info(otp);

    const bool blank = std::all_of(otp.begin(), otp.end(), [](char c) { return c == '\xFF'; });
    require(info.empty == blank, "empty exactly when the area is blank");
    require(!info.marker_valid || Device::is_known(info.product.type),
            "a valid record names a known product");
    require(!info.empty || (!info.marker_valid && info.product.type == Device::Invalid),
            "a blank area has no product");
    require(QString(info).startsWith(QStringLiteral("OTP info:\nOTP info:\nMarker ")),
            "the printable form keeps its heading");
    (void)info.product_name();
    return 0;
}
