// lumaxis-imagetool: writes firmware images, DfuSe files and OTP areas for the build and tests.
#include <cstdio>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QSaveFile>
#include <QStringList>

#include "tools/imagetool/firmwareimage.h"

namespace {

bool write_file(const QString& path, const QByteArray& bytes)
{
    // Written under a temporary name and renamed, so a failed run never leaves half a file.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        std::fprintf(stderr, "lumaxis-imagetool: cannot write %s: %s\n", qPrintable(path),
                     qPrintable(file.errorString()));
        return false;
    }
    return true;
}

bool parse_byte(const QString& text, std::uint8_t& out)
{
    bool ok = false;
    const uint v = text.toUInt(&ok, 0);
    if (!ok || v > 0xFF)
        return false;
    out = std::uint8_t(v);
    return true;
}

bool parse_identity(const QCommandLineParser& p, ImageTool::Identity& id)
{
    if (p.isSet(QStringLiteral("type")) && !parse_byte(p.value(QStringLiteral("type")), id.type))
        return false;
    if (p.isSet(QStringLiteral("qualifiers"))) {
        const QStringList parts = p.value(QStringLiteral("qualifiers")).split(QLatin1Char(','));
        if (parts.size() != 3)
            return false;
        for (int i = 0; i < 3; ++i)
            if (!parse_byte(parts[i], id.qualifiers[size_t(i)]))
                return false;
    }
    return true;
}

int usage_error(const char* what)
{
    std::fprintf(stderr, "lumaxis-imagetool: %s (see --help)\n", what);
    return 2;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral(
        "Writes Lumaxis firmware images and OTP areas.\n\n"
        "  firmware  --bin F [--dfu F] [--type N] [--qualifiers a,b,c] [--name S]\n"
        "            [--revision S] [--detail key=value ...] [--size N] [--seed N]\n"
        "            [--block intact|absent|no-end|bad-length]\n"
        "  dfuse     --in RAW --dfu F\n"
        "  otp       --out F [--type N] [--qualifiers a,b,c] [--data 16 hex digits]\n"
        "            [--offset N] [--blank]"));
    p.addHelpOption();
    p.addPositionalArgument(QStringLiteral("command"), QStringLiteral("firmware, dfuse or otp"));
    const auto value = [&](const char* name, const char* help) {
        p.addOption({QString::fromLatin1(name), QString::fromLatin1(help), QStringLiteral("v")});
    };
    value("bin", "Raw image to write.");
    value("dfu", "DfuSe file to write.");
    value("in", "Raw image to wrap as a DfuSe file.");
    value("out", "OTP area file to write.");
    value("type", "Product type byte (default 3).");
    value("qualifiers", "Three qualifier bytes (default 0xFF,0xFF,0xFF).");
    value("name", "Firmware name.");
    value("revision", "Firmware revision.");
    value("detail", "A key=value detail; repeat for more (replaces the defaults).");
    value("size", "Image size in bytes (default 573088).");
    value("seed", "Seed of the fill (default fixed).");
    value("block", "Form of the information block.");
    value("data", "Eight OTP data bytes as 16 hex digits.");
    value("offset", "Offset of the OTP record (default 0).");
    p.addOption({QStringLiteral("blank"), QStringLiteral("Write an erased OTP area.")});
    p.process(app);

    const QStringList args = p.positionalArguments();
    if (args.size() != 1)
        return usage_error("one command expected");
    const QString command = args.first();

    ImageTool::Identity identity;
    if (!parse_identity(p, identity))
        return usage_error("bad --type or --qualifiers");

    if (command == QLatin1String("firmware")) {
        if (!p.isSet(QStringLiteral("bin")))
            return usage_error("firmware needs --bin");
        ImageTool::InfoBlock block;
        block.identity = identity;
        if (p.isSet(QStringLiteral("name")))
            block.name = p.value(QStringLiteral("name")).toUtf8();
        if (p.isSet(QStringLiteral("revision")))
            block.revision = p.value(QStringLiteral("revision")).toUtf8();
        if (p.isSet(QStringLiteral("detail"))) {
            block.details.clear();
            for (const QString& d : p.values(QStringLiteral("detail"))) {
                const int eq = d.indexOf(QLatin1Char('='));
                if (eq < 0)
                    return usage_error("--detail needs key=value");
                block.details.append({d.left(eq).toUtf8(), d.mid(eq + 1).toUtf8()});
            }
        }
        ImageTool::BlockForm form = ImageTool::BlockForm::Intact;
        const QString f = p.value(QStringLiteral("block"));
        if (f == QLatin1String("absent"))
            form = ImageTool::BlockForm::Absent;
        else if (f == QLatin1String("no-end"))
            form = ImageTool::BlockForm::NoEndMarker;
        else if (f == QLatin1String("bad-length"))
            form = ImageTool::BlockForm::BadPairLength;
        else if (!f.isEmpty() && f != QLatin1String("intact"))
            return usage_error("unknown --block form");
        bool ok = true;
        const int size = p.isSet(QStringLiteral("size"))
                             ? p.value(QStringLiteral("size")).toInt(&ok, 0)
                             : ImageTool::default_image_size;
        if (!ok || size < 1)
            return usage_error("bad --size");
        const std::uint32_t seed = p.isSet(QStringLiteral("seed"))
                                       ? p.value(QStringLiteral("seed")).toUInt(&ok, 0)
                                       : 0x4C554D58;
        if (!ok)
            return usage_error("bad --seed");
        const QByteArray raw = ImageTool::make_image(block, form, size, seed);
        if (!write_file(p.value(QStringLiteral("bin")), raw))
            return 1;
        if (p.isSet(QStringLiteral("dfu")) &&
            !write_file(p.value(QStringLiteral("dfu")), ImageTool::make_dfuse_file(raw)))
            return 1;
        return 0;
    }

    if (command == QLatin1String("dfuse")) {
        if (!p.isSet(QStringLiteral("in")) || !p.isSet(QStringLiteral("dfu")))
            return usage_error("dfuse needs --in and --dfu");
        QFile in(p.value(QStringLiteral("in")));
        if (!in.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "lumaxis-imagetool: cannot read %s\n", qPrintable(in.fileName()));
            return 1;
        }
        return write_file(p.value(QStringLiteral("dfu")), ImageTool::make_dfuse_file(in.readAll()))
                   ? 0
                   : 1;
    }

    if (command == QLatin1String("otp")) {
        if (!p.isSet(QStringLiteral("out")))
            return usage_error("otp needs --out");
        if (p.isSet(QStringLiteral("blank")))
            return write_file(p.value(QStringLiteral("out")), ImageTool::blank_otp_area()) ? 0 : 1;
        std::array<std::uint8_t, 8> data{};
        if (p.isSet(QStringLiteral("data"))) {
            const QByteArray hex = QByteArray::fromHex(p.value(QStringLiteral("data")).toLatin1());
            if (hex.size() != 8)
                return usage_error("--data needs 16 hex digits");
            for (int i = 0; i < 8; ++i)
                data[size_t(i)] = std::uint8_t(hex[i]);
        }
        bool ok = true;
        const int offset =
            p.isSet(QStringLiteral("offset")) ? p.value(QStringLiteral("offset")).toInt(&ok, 0) : 0;
        if (!ok || offset < 0 || offset % 16 != 0 || offset > ImageTool::otp_area_size - 16)
            return usage_error("--offset must be a multiple of 16 from 0 to 496");
        const QByteArray record = ImageTool::make_otp_record(identity, data);
        return write_file(p.value(QStringLiteral("out")), ImageTool::make_otp_area(record, offset))
                   ? 0
                   : 1;
    }
    return usage_error("unknown command");
}
