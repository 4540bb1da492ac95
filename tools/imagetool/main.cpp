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

// Long texts are allowed on purpose (they make fields that readers see as empty), but say so.
void warn_if_field_overflows(const char* option, const QByteArray& text)
{
    if (text.size() >= 32)
        std::fprintf(stderr,
                     "lumaxis-imagetool: warning: --%s has %d bytes; readers see an empty field\n",
                     option, int(text.size()));
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
        "Writes Lumaxis firmware images, DfuSe files and OTP areas, byte-identical on every run.\n"
        "\n"
        "Commands:\n"
        "  firmware --bin F [--dfu F] [--type N] [--qualifiers A,B,C] [--name S] [--revision S]\n"
        "           [--detail KEY=VALUE ...] [--size N] [--seed N] [--block FORM]\n"
        "      A raw image: vector table, information block at 0x200, pseudo-random fill.\n"
        "      Without options it is the program's own firmware (Kestrel, type 3, qualifiers\n"
        "      FF FF FF, \"Vega-5 LinkSync\" revision \"2.3.0\", 573088 bytes); --dfu also\n"
        "      writes the same bytes as a DfuSe file for 0483:df11 at 0x08000000.\n"
        "      FORM is intact (default), absent (no block), no-end (no end marker) or\n"
        "      bad-length (end marker one byte off the 64-byte pair grid).\n"
        "  dfuse --in RAW --dfu F\n"
        "      Wraps an existing raw image as a DfuSe file.\n"
        "  otp --out F [--type N] [--qualifiers A,B,C] [--data HEX16] [--offset N] | --blank\n"
        "      A 512-byte OTP area: erased (0xFF) but for one identity record at the offset.\n"
        "\n"
        "Numbers take 0x for hexadecimal. Texts of 32 bytes or more fill their field without a\n"
        "terminating NUL, which readers take as empty. Exit status: 0 written, 1 cannot write,\n"
        "2 bad arguments (nothing is written).\n"
        "\n"
        "Examples:\n"
        "  lumaxis-imagetool firmware --revision 2.2.0 --seed 0x220 --bin old.bin\n"
        "  lumaxis-imagetool firmware --type 4 --name \"Lumaxis Vega-6\" --bin verdant.bin\n"
        "  lumaxis-imagetool firmware --block no-end --bin broken.bin\n"
        "  lumaxis-imagetool otp --type 0x51 --data 0102030405060708 --out otp.bin"));
    p.addHelpOption();
    p.addPositionalArgument(QStringLiteral("command"), QStringLiteral("firmware, dfuse or otp"));
    const auto value = [&](const char* name, const char* help, const char* value_name) {
        p.addOption({QString::fromLatin1(name), QString::fromLatin1(help),
                     QString::fromLatin1(value_name)});
    };
    value("bin", "firmware: raw image to write.", "file");
    value("dfu", "firmware, dfuse: DfuSe file to write.", "file");
    value("in", "dfuse: raw image to wrap.", "file");
    value("out", "otp: OTP area file to write.", "file");
    value("type", "Product type byte (default 3, Kestrel).", "byte");
    value("qualifiers", "Three qualifier bytes (default 0xFF,0xFF,0xFF).", "a,b,c");
    value("name", "firmware: name (default \"Vega-5 LinkSync\").", "text");
    value("revision", "firmware: revision (default \"2.3.0\").", "text");
    value("detail", "firmware: one detail; repeat for more. Replaces the three defaults.",
          "key=value");
    value("size", "firmware: image size in bytes (default 573088).", "bytes");
    value("seed", "firmware: seed of the fill; give variants their own (default fixed).", "n");
    value("block", "firmware: intact, absent, no-end or bad-length.", "form");
    value("data", "otp: the record's eight data bytes (default zeros).", "16 hex digits");
    value("offset", "otp: the record's offset, a multiple of 16 up to 496 (default 0).", "n");
    p.addOption({QStringLiteral("blank"), QStringLiteral("otp: write an erased area.")});
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
        warn_if_field_overflows("name", block.name);
        warn_if_field_overflows("revision", block.revision);
        for (const auto& [key, value] : block.details) {
            warn_if_field_overflows("detail", key);
            warn_if_field_overflows("detail", value);
        }
        bool ok = true;
        const int size = p.isSet(QStringLiteral("size"))
                             ? p.value(QStringLiteral("size")).toInt(&ok, 0)
                             : ImageTool::default_image_size;
        // An image too small for its block would carry none: that is what --block absent is for.
        const int needed =
            ImageTool::info_block_offset + int(ImageTool::make_info_block(block, form).size());
        if (!ok || size < 1 || size < needed)
            return usage_error("bad --size: too small for the vector table and the block");
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
