// The firmware information block that every firmware image carries near its start.
#pragma once

#include <cstdint>

#include <QByteArray>
#include <QDebug>
#include <QList>
#include <QPair>
#include <QString>

#include "device/products.h"

namespace Device {

struct FW_Info
{
    ProductInfo product;
    QString name;
    QString revision;
    // Shown, never interpreted.
    QList<QPair<QString, QString>> details;
    bool valid = false;

    operator QString() const;
};

// Length of the NUL-terminated text at p, looking at no more than 32 bytes; 0xFFFFFFFF when
// those 32 bytes hold no NUL. p must point at 32 readable bytes.
std::uint32_t local_strlen(const char* p);

// The 32-byte text field at pos, decoded as UTF-8; empty when it holds no NUL. A field cut short
// by the end of data reads as if data ended in a NUL.
QString get_string(const QByteArray& data, int pos);

// Reads the whole file; an unreadable file gives the default (invalid) block.
FW_Info make_FW_Info(const QString& file);
FW_Info make_FW_Info(const QByteArray& image);

QDebug operator<<(QDebug dbg, const FW_Info& info);

} // namespace Device
