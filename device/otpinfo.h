// The identity record read from a unit's one-time-programmable (OTP) area.
#pragma once

#include <array>
#include <cstdint>

#include <QByteArray>
#include <QDebug>
#include <QString>

#include "device/products.h"

namespace Device {

struct OTP_Info
{
    ProductInfo product;
    // Carried unchanged, never interpreted.
    std::array<std::uint8_t, 8> data{};
    bool marker_valid = false;
    // True when the area was blank (no bytes, or all 0xFF): a unit that was never programmed.
    bool empty = false;

    QString product_name() const;
    operator QString() const;
};

// Reads the whole file; an unreadable file gives the default record (not blank, not valid).
OTP_Info make_OTP_Info(const QString& file);
OTP_Info make_OTP_Info(const QByteArray& otp);

QDebug operator<<(QDebug dbg, const OTP_Info& info);

} // namespace Device
