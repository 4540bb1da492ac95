#include "dfu/upgraderules.h"

#include <algorithm>

#include <QCryptographicHash>

#include "dfu/deviceinfo.h"
#include "support/buildinfo.h"

namespace Upgrade {

Verdict verdict(const DFU::DeviceInfo& unit, const Carried& carried)
{
    // A read-out that failed or came back short says nothing about the unit.
    if (!unit.valid)
        return Verdict::Unreadable;
    if (unit.OTP_info.empty)
        return Verdict::Blank;
    if (unit.type != carried.type)
        return Verdict::OtherProduct;
    // A complete block that holds no valid information leaves the revision empty: such a unit,
    // whose earlier write broke off, is written again like one of another revision.
    return unit.FW_revision == carried.revision ? Verdict::SameRevision : Verdict::OtherRevision;
}

QString verdict_name(Verdict verdict)
{
    switch (verdict) {
    case Verdict::Unreadable:
        return QStringLiteral("unreadable");
    case Verdict::Blank:
        return QStringLiteral("blank");
    case Verdict::OtherProduct:
        return QStringLiteral("other-product");
    case Verdict::SameRevision:
        return QStringLiteral("same-revision");
    case Verdict::OtherRevision:
        break;
    }
    return QStringLiteral("other-revision");
}

bool needs_check(Verdict verdict, bool force)
{
    return verdict == Verdict::SameRevision && !force;
}

bool may_write(Verdict verdict, bool force, bool check_failed)
{
    switch (verdict) {
    case Verdict::OtherRevision:
        return true;
    case Verdict::SameRevision:
        return force || check_failed;
    case Verdict::Blank:
        return have_service_build();
    case Verdict::OtherProduct:
    case Verdict::Unreadable:
        break;
    }
    return false;
}

WriteEnd write_end(int exit_code, qint64 bytes_written, qint64 image_size)
{
    if (exit_code == 0)
        return WriteEnd::Written;
    return image_size > 0 && bytes_written >= image_size ? WriteEnd::Unconfirmed
                                                         : WriteEnd::NotWritten;
}

DFU::ProgressHandler WriteTally::handler()
{
    return [this](const DFU::ToolProgress& record) {
        if (record.stage == DFU::Phase::Writing)
            written = std::max(written, record.bytes);
        if (next)
            next(record);
    };
}

ReadBack judge_read_back(const QByteArray& image, const QByteArray& read, qint64 asked)
{
    ReadBack result;
    result.complete = asked > 0 && read.size() == asked;
    const QByteArray compared = read.left(image.size());
    result.sha256 = QCryptographicHash::hash(compared, QCryptographicHash::Sha256);
    const qsizetype common = std::min(image.size(), compared.size());
    const qint64 differs =
        std::mismatch(image.cbegin(), image.cbegin() + common, compared.cbegin()).first -
        image.cbegin();
    if (differs < image.size()) {
        // A byte that differs, or the first one that did not come back.
        result.first_difference = differs;
        result.sector = flash_sector(differs);
    }
    result.matches = result.complete && !image.isEmpty() && result.first_difference < 0;
    return result;
}

int flash_sector(qint64 offset)
{
    constexpr qint64 kb = 1024;
    if (offset < 0)
        return -1;
    if (offset < 64 * kb)
        return int(offset / (16 * kb));
    if (offset < 128 * kb)
        return 4;
    const qint64 sector = 5 + (offset - 128 * kb) / (128 * kb);
    return sector <= 11 ? int(sector) : -1;
}

double fraction(const DFU::ToolProgress& record, qint64 total)
{
    const double f = total > 0 ? double(record.bytes) / double(total) : record.percent / 100.0;
    return std::clamp(f, 0.0, 1.0);
}

} // namespace Upgrade
