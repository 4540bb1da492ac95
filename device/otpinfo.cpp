#include "device/otpinfo.h"

#include <algorithm>

#include <QFile>

namespace Device {

namespace {

constexpr int record_size = 16;
// No record may start at or beyond this offset of the 512-byte area.
constexpr int record_limit = 498;
const char record_marker[] = {'\x11', '\x47', '\x23', '\x01'};

bool is_blank(const QByteArray& otp)
{
    return std::all_of(otp.begin(), otp.end(), [](char c) { return c == '\xFF'; });
}

} // namespace

OTP_Info make_OTP_Info(const QString& file)
{
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return make_OTP_Info(f.readAll());
}

OTP_Info make_OTP_Info(const QByteArray& otp)
{
    OTP_Info info;
    if (is_blank(otp)) {
        info.empty = true;
        return info;
    }

    // OTP bits only go from 1 to 0, so a unit re-programmed later carries several records; the
    // last one is in force.
    const qsizetype pos = otp.lastIndexOf(QByteArrayView(record_marker, sizeof record_marker));
    if (pos < 0 || pos % record_size != 0 || pos >= record_limit)
        return info;
    if (otp.size() - pos < record_size) {
        qWarning().noquote() << QStringLiteral("OTP record at offset %1 is cut short (%2 of %3 "
                                               "bytes); ignored.")
                                    .arg(pos)
                                    .arg(otp.size() - pos)
                                    .arg(record_size);
        return info;
    }

    QByteArray record = otp.mid(pos, record_size);
    // Records written with '#' as type byte are meant as '+' (Monolith); read them that way.
    if (record[4] == '#')
        record[4] = '+';

    const auto byte = [&record](int i) { return static_cast<std::uint8_t>(record[i]); };
    info.product = make_ProductInfo({byte(4), byte(5), byte(6), byte(7)});
    for (int i = 0; i < 8; ++i)
        info.data[i] = byte(8 + i);

    const std::uint32_t marker = std::uint32_t(byte(0)) | std::uint32_t(byte(1)) << 8 |
                                 std::uint32_t(byte(2)) << 16 | std::uint32_t(byte(3)) << 24;
    if (marker == 0x01234711 && is_valid(info.product.type)) {
        info.marker_valid = true;
        if (is_known(info.product.type))
            return info;
        qInfo() << "Unknown device type according to OTP info, " << QString(info.product);
        // raw_type and the qualifiers stay as read, so the stored bytes can still be shown.
        info.product.type = Invalid;
        info.marker_valid = false;
        return info;
    }

    qInfo() << "Device not used, has invalid info in its OTP info.";
    return info;
}

QString OTP_Info::product_name() const
{
    return product.product_name();
}

OTP_Info::operator QString() const
{
    // The heading is written twice on purpose: log readers and tests expect exactly this text.
    return QStringLiteral("OTP info:\n") + QStringLiteral("OTP info:\nMarker ") +
           (marker_valid ? QStringLiteral("valid") : QStringLiteral("invalid")) +
           QStringLiteral("\nProduct: ") + QString(product) + QStringLiteral("\n");
}

QDebug operator<<(QDebug dbg, const OTP_Info& info)
{
    QDebugStateSaver saver(dbg);
    dbg.noquote() << QString(info);
    return dbg;
}

} // namespace Device
