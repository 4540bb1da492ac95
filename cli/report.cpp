#include "cli/report.h"

#include <QJsonArray>

namespace Cli {

namespace {

QString hex(const std::uint8_t* bytes, std::size_t count)
{
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(bytes), int(count)).toHex().toUpper());
}

QString or_dash(const QString& text)
{
    return text.isEmpty() ? QStringLiteral("-") : text;
}

QString product_of(const DFU::DeviceInfo& info)
{
    if (info.OTP_info.empty)
        return QStringLiteral("blank");
    const QString name = info.OTP_info.product_name();
    return name.isEmpty() ? QStringLiteral("unknown type %1").arg(int(info.type)) : name;
}

} // namespace

ListedUnit listed_unit(const DFU::DeviceItem& item, const DFU::DeviceInfo& info)
{
    ListedUnit unit;
    unit.serial = item.serial;
    unit.path = item.path;
    unit.product = product_of(info);
    unit.revision = info.FW_revision;
    return unit;
}

QString list_line(const ListedUnit& unit)
{
    const QString access =
        unit.accessible ? QStringLiteral("access ok") : permission_fix(unit.node);
    QString line =
        QStringLiteral("%1  %2  %3  %4  %5")
            .arg(or_dash(unit.serial).leftJustified(12), or_dash(unit.path).leftJustified(7),
                 or_dash(unit.product), or_dash(unit.revision), access);
    if (!unit.problem.isEmpty())
        line += QStringLiteral(" (") + unit.problem + QLatin1Char(')');
    return line;
}

QJsonObject list_json(const ListedUnit& unit)
{
    QJsonObject object{{QStringLiteral("serial"), unit.serial},
                       {QStringLiteral("path"), unit.path},
                       {QStringLiteral("product"), unit.product},
                       {QStringLiteral("revision"), unit.revision},
                       {QStringLiteral("access"), unit.accessible}};
    if (!unit.accessible) {
        object.insert(QStringLiteral("node"), unit.node);
        object.insert(QStringLiteral("fix"), permission_fix(unit.node));
    }
    if (!unit.problem.isEmpty())
        object.insert(QStringLiteral("problem"), unit.problem);
    return object;
}

QString info_text(const QString& serial, const DFU::DeviceInfo& info)
{
    const Device::OTP_Info& otp = info.OTP_info;
    QString text = QStringLiteral("Serial:      %1\n").arg(serial);
    text += QStringLiteral("Identity:    %1 (type %2, qualifiers %3, marker %4, data %5)\n")
                .arg(product_of(info))
                .arg(otp.product.raw_type)
                .arg(hex(otp.product.qualifier.data(), otp.product.qualifier.size()),
                     otp.marker_valid ? QStringLiteral("valid") : QStringLiteral("invalid"),
                     hex(otp.data.data(), otp.data.size()));
    const Device::FW_Info& fw = info.FW_info;
    if (!fw.valid) {
        text += QStringLiteral("Firmware:    no valid information block for this product\n");
        return text;
    }
    text += QStringLiteral("Firmware:    %1 %2 (%3)\n")
                .arg(fw.name, fw.revision, fw.product.product_name_full());
    for (const auto& [key, value] : fw.details)
        text += QStringLiteral("  %1: %2\n").arg(key, value);
    return text;
}

QJsonObject info_json(const QString& serial, const DFU::DeviceInfo& info)
{
    const Device::OTP_Info& otp = info.OTP_info;
    const QJsonObject identity{{QStringLiteral("blank"), otp.empty},
                               {QStringLiteral("marker_valid"), otp.marker_valid},
                               {QStringLiteral("type"), otp.product.raw_type},
                               {QStringLiteral("product"), product_of(info)},
                               {QStringLiteral("qualifiers"),
                                hex(otp.product.qualifier.data(), otp.product.qualifier.size())},
                               {QStringLiteral("data"), hex(otp.data.data(), otp.data.size())}};
    const Device::FW_Info& fw = info.FW_info;
    QJsonObject firmware{{QStringLiteral("valid"), fw.valid}};
    if (fw.valid) {
        QJsonObject details;
        for (const auto& [key, value] : fw.details)
            details.insert(key, value);
        firmware.insert(QStringLiteral("type"), int(fw.product.type));
        firmware.insert(QStringLiteral("name"), fw.name);
        firmware.insert(QStringLiteral("revision"), fw.revision);
        firmware.insert(QStringLiteral("details"), details);
    }
    return {{QStringLiteral("serial"), serial},
            {QStringLiteral("identity"), identity},
            {QStringLiteral("firmware"), firmware}};
}

QString result_word(const UnitResult& result)
{
    switch (result.exit) {
    case Done:
        return result.current    ? QStringLiteral("already-current")
               : result.repaired ? QStringLiteral("repaired")
                                 : QStringLiteral("done");
    case OtherProduct:
        return QStringLiteral("other-product");
    case BlankIdentity:
        return QStringLiteral("blank-identity");
    case WriteFailed:
        return QStringLiteral("write-failed");
    case VerificationFailed:
        return QStringLiteral("verification-failed");
    case ReadFailed:
        return QStringLiteral("read-failed");
    default:
        return QStringLiteral("failed");
    }
}

QString summary_line(const UnitResult& result)
{
    return QStringLiteral("%1  %2 -> %3  %4  %5 s")
        .arg(result.serial, or_dash(result.old_revision), or_dash(result.new_revision),
             result_word(result))
        .arg(result.seconds, 0, 'f', 1);
}

QJsonObject result_json(const UnitResult& result)
{
    QJsonArray phases;
    for (const UnitResult::Phase& phase : result.phases)
        phases << QJsonObject{{QStringLiteral("phase"), phase.name},
                              {QStringLiteral("seconds"), phase.seconds}};
    QJsonArray runs;
    for (const UnitResult::Run& run : result.runs)
        runs << QJsonObject{{QStringLiteral("command"), run.command},
                            {QStringLiteral("exit"), run.exit_code}};
    QJsonObject object{{QStringLiteral("serial"), result.serial},
                       {QStringLiteral("path"), result.path},
                       {QStringLiteral("product"), result.product},
                       {QStringLiteral("type"), result.type},
                       {QStringLiteral("verdict"), result.verdict},
                       {QStringLiteral("old_revision"), result.old_revision},
                       {QStringLiteral("new_revision"), result.new_revision},
                       {QStringLiteral("outcome"), result_word(result)},
                       {QStringLiteral("exit"), int(result.exit)},
                       {QStringLiteral("seconds"), result.seconds},
                       {QStringLiteral("phases"), phases},
                       {QStringLiteral("runs"), runs}};
    if (result.read_back_taken) {
        const Upgrade::ReadBack& read = result.read_back;
        QJsonObject read_back{{QStringLiteral("complete"), read.complete},
                              {QStringLiteral("matches"), read.matches},
                              {QStringLiteral("sha256"), QString::fromLatin1(read.sha256.toHex())}};
        if (read.first_difference >= 0) {
            read_back.insert(QStringLiteral("first_difference"), read.first_difference);
            read_back.insert(QStringLiteral("sector"), read.sector);
        }
        object.insert(QStringLiteral("read_back"), read_back);
    }
    if (!result.note.isEmpty())
        object.insert(QStringLiteral("note"), result.note);
    return object;
}

QString unit_words(const QString& serial, const QString& path)
{
    QStringList words;
    if (!serial.isEmpty())
        words << QStringLiteral("with serial ") + serial;
    if (!path.isEmpty())
        words << QStringLiteral("at path ") + path;
    return words.join(QLatin1Char(' '));
}

QString permission_fix(const QString& node)
{
    return QStringLiteral("no permission to open %1: install the udev rule "
                          "(packaging/70-lumaxis-upgrade.rules, or the package), run "
                          "\"sudo udevadm control --reload-rules && sudo udevadm trigger\", "
                          "then replug")
        .arg(node);
}

} // namespace Cli
