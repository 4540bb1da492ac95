#include "device/products.h"

#include <algorithm>

namespace Device {

const Products products({
    {Invalid, QStringLiteral("invalid"), QStringLiteral("Invalid"), QStringLiteral("N/A"),
     QStringLiteral("N/A")},
    {Undefined, QStringLiteral("undefined"), QStringLiteral("Undefined"), QStringLiteral("?"),
     QStringLiteral("?")},
    {Kestrel, QStringLiteral("KSTR"), QStringLiteral("Kestrel"), QStringLiteral("Vega-5"),
     QStringLiteral("Vega-5 LinkSync")},
    {Verdant, QStringLiteral("VRDN"), QStringLiteral("Verdant"), QStringLiteral("Vega-6"),
     QStringLiteral("Lumaxis Vega-6")},
    {Monolith, QStringLiteral("MNLT"), QStringLiteral("Monolith"), QStringLiteral("K3"),
     QStringLiteral("K3 LinkSync")},
    // Irregular on purpose: a three-letter code, and the same text for both names.
    {K3i, QStringLiteral("K3I"), QStringLiteral("K3i"), QStringLiteral("K3 Industrial"),
     QStringLiteral("K3 Industrial")},
    {Halcyon, QStringLiteral("HLCN"), QStringLiteral("Halcyon"), QStringLiteral("M4X"),
     QStringLiteral("Lumaxis M4 & M4X")},
    {Breeze, QStringLiteral("BRZE"), QStringLiteral("Breeze"), QStringLiteral("M70"),
     QStringLiteral("Lumaxis M70")},
    {Garnet, QStringLiteral("GRNT"), QStringLiteral("Garnet"), QStringLiteral("M2"),
     QStringLiteral("Lumaxis M2")},
    {Cinder, QStringLiteral("CNDR"), QStringLiteral("Cinder"), QStringLiteral("T80 or T80X"),
     QStringLiteral("Lumaxis T80X & T80 series")},
    {Unknown, QStringLiteral("unknown"), QStringLiteral("Unknown"), QStringLiteral("unknown"),
     QStringLiteral("unknown")},
});

Products::const_iterator Products::find(Type t) const
{
    return std::find_if(rows_.begin(), rows_.end(), [t](const Product& p) { return p.type == t; });
}

Products::const_iterator Products::find(unsigned char b) const
{
    return find(static_cast<Type>(b));
}

Products::const_iterator Products::find(const QString& code) const
{
    return std::find_if(rows_.begin(), rows_.end(),
                        [&code](const Product& p) { return p.code == code; });
}

bool is_valid(Type t)
{
    return t != Invalid && t != Undefined;
}

bool is_known(Type t)
{
    return is_valid(t) && t != Unknown;
}

Type to_Type(unsigned char b)
{
    const auto it = products.find(b);
    return it != products.end() ? it->type : Unknown;
}

Type to_Type(const QString& code)
{
    if (code.isEmpty())
        return Invalid;
    const auto it = products.find(code);
    return it != products.end() ? it->type : Unknown;
}

QString to_QString(Type t)
{
    const auto it = products.find(t);
    return it != products.end() ? it->code : QStringLiteral("impossible type");
}

std::string to_string(Type t)
{
    return to_QString(t).toStdString();
}

std::ostream& operator<<(std::ostream& os, Type t)
{
    return os << to_string(t);
}

QDebug operator<<(QDebug dbg, Type t)
{
    QDebugStateSaver saver(dbg);
    dbg.noquote() << to_QString(t);
    return dbg;
}

ProductInfo make_ProductInfo(ProductInfoRaw raw)
{
    ProductInfo info;
    info.type = to_Type(raw[0]);
    info.qualifier = {raw[1], raw[2], raw[3]};
    info.raw_type = raw[0];
    return info;
}

QString ProductInfo::product_name() const
{
    const auto it = products.find(type);
    return it != products.end() ? it->short_name : QString();
}

QString ProductInfo::product_name_full() const
{
    const auto it = products.find(type);
    return it != products.end() ? it->full_name : QString();
}

ProductInfo::operator QString() const
{
    QString text =
        QStringLiteral("ProductInfo: %1 (%2)").arg(to_QString(type), QString::number(type));
    const bool plain_qualifiers =
        std::all_of(qualifier.begin(), qualifier.end(), [](std::uint8_t q) { return q == 0xFF; });
    if (type == Unknown || !plain_qualifiers) {
        const auto hex = [](int v) { return QStringLiteral("%1").arg(v, 2, 16, QLatin1Char('0')); };
        text += QStringLiteral(" [%1 %2 %3 %4]")
                    .arg(hex(raw_type), hex(qualifier[0]), hex(qualifier[1]), hex(qualifier[2]));
    }
    return text;
}

bool operator==(const ProductInfo& a, const ProductInfo& b)
{
    return a.type == b.type;
}

bool operator!=(const ProductInfo& a, const ProductInfo& b)
{
    return !(a == b);
}

QDebug operator<<(QDebug dbg, const ProductInfo& info)
{
    QDebugStateSaver saver(dbg);
    dbg.noquote() << QString(info);
    return dbg;
}

} // namespace Device
