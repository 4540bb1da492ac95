#include "device/fwinfo.h"

#include <cstring>

#include <QFile>

namespace Device {

namespace {

constexpr int field_size = 32;
constexpr int header_size = 72;
constexpr int pair_size = 2 * field_size;
// Only the first 2048 bytes of flash are read back from a unit; the whole block must lie
// inside them with room to spare.
constexpr int marker_limit = 1949;
const char begin_marker[] = {'\x12', '\x47', '\x23', '\x01'};
const char end_marker[] = {'\x13', '\x47', '\x23', '\x01'};

// Length of the text at p among the n readable bytes there, or -1 when n == 32 and no NUL is
// found. Fewer than 32 bytes count as ended by a NUL just past them.
qsizetype bounded_strlen(const char* p, qsizetype n)
{
    const void* nul = std::memchr(p, '\0', std::size_t(n));
    if (nul)
        return static_cast<const char*>(nul) - p;
    return n < field_size ? n : -1;
}

} // namespace

std::uint32_t local_strlen(const char* p)
{
    const qsizetype len = bounded_strlen(p, field_size);
    return len < 0 ? 0xFFFFFFFFu : std::uint32_t(len);
}

QString get_string(const QByteArray& data, int pos)
{
    if (pos < 0 || pos >= data.size())
        return {};
    const char* p = data.constData() + pos;
    const qsizetype len = bounded_strlen(p, qMin<qsizetype>(field_size, data.size() - pos));
    return len < 0 ? QString() : QString::fromUtf8(p, len);
}

FW_Info make_FW_Info(const QString& file)
{
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return make_FW_Info(f.readAll());
}

FW_Info make_FW_Info(const QByteArray& image)
{
    FW_Info info;
    const qsizetype index_beg = image.indexOf(QByteArrayView(begin_marker, sizeof begin_marker));
    const qsizetype index_end = image.indexOf(QByteArrayView(end_marker, sizeof end_marker));
    if (index_beg < 0 || index_end < 0) {
        qDebug() << "index_beg = " << index_beg << "index_end = " << index_end;
        return info;
    }
    if (index_beg >= marker_limit || index_end >= marker_limit)
        return info;

    const int d = int(index_end - index_beg);
    const int nr_of_pair_bytes = d - header_size;
    if (d < header_size || nr_of_pair_bytes % pair_size != 0) {
        qDebug() << "index_beg = " << index_beg << "index_end = " << index_end
                 << "nr_of_pair_bytes =" << nr_of_pair_bytes;
        return info;
    }

    // The end marker lies at least 72 bytes after the begin marker, so the header is all inside.
    const int beg = int(index_beg);
    const auto byte = [&image, beg](int i) { return static_cast<std::uint8_t>(image[beg + i]); };
    info.product = make_ProductInfo({byte(4), byte(5), byte(6), byte(7)});
    info.name = get_string(image, beg + 8);
    info.revision = get_string(image, beg + 40);

    for (int i = 0; i < nr_of_pair_bytes / pair_size; ++i) {
        const QString key = get_string(image, beg + header_size + pair_size * i);
        const QString value = get_string(image, beg + header_size + field_size + pair_size * i);
        if (key.isEmpty() || value.isEmpty())
            break;
        info.details.append({key, value});
    }
    info.valid = true;
    return info;
}

FW_Info::operator QString() const
{
    QString text = QStringLiteral("FW info:\n");
    if (!valid)
        return text + QStringLiteral("\tInvalid");
    text += QStringLiteral("  Type: %1\n").arg(QString(product));
    text += QStringLiteral("  Name: ") + name + QStringLiteral("\n");
    text += QStringLiteral("  Rev.: ") + revision + QStringLiteral("\n");
    text += QStringLiteral("  Details:");
    for (const auto& [key, value] : details)
        text += QStringLiteral("\n    ") + key.leftJustified(31) + QStringLiteral(": ") +
                value.leftJustified(31);
    return text;
}

QDebug operator<<(QDebug dbg, const FW_Info& info)
{
    QDebugStateSaver saver(dbg);
    dbg.noquote() << QString(info);
    return dbg;
}

} // namespace Device
