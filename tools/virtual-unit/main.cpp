// lumaxis-virtual-unit: creates, plugs, unplugs, shows and arms faults on a virtual DfuSe unit.
#include <array>
#include <cstdint>
#include <cstdio>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSaveFile>

#include "tools/imagetool/firmwareimage.h"
#include "tools/virtual-unit/unitstate.h"

namespace {

constexpr int exitUsage = 2;
constexpr int exitFailure = 1;
// A dfu-util run holds the lock for seconds at most; a hung one is worth a clear message.
constexpr int lockTimeoutMs = 30000;

const QByteArray otpMarker("\x11\x47\x23\x01", 4);

template <std::size_t N> std::array<std::uint8_t, N> toArray(const QByteArray& bytes)
{
    std::array<std::uint8_t, N> out{};
    for (std::size_t i = 0; i < N && i < std::size_t(bytes.size()); ++i)
        out[i] = std::uint8_t(bytes.at(qsizetype(i)));
    return out;
}

// Every step reports its failure as a message for the user; empty means it went well.
using Error = QString;

QByteArray local(const QString& text)
{
    return QFile::encodeName(text);
}

Error parseNumber(const QString& text, const QString& what, long long* value)
{
    bool ok = false;
    *value = text.toLongLong(&ok, 0);
    if (!ok || *value < 0)
        return QStringLiteral("%1 must be a non-negative number, not \"%2\"").arg(what, text);
    return {};
}

Error parseHex(const QString& text, int bytes, const QString& what, QByteArray* value)
{
    static const QRegularExpression hexDigits(QStringLiteral("^[0-9A-Fa-f]*$"));
    *value = QByteArray::fromHex(text.toLatin1());
    if (value->size() != bytes || !hexDigits.match(text).hasMatch())
        return QStringLiteral("%1 must be %2 bytes in hex, not \"%3\"")
            .arg(what)
            .arg(bytes)
            .arg(text);
    return {};
}

Error writeFile(const QString& path, const QByteArray& bytes)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
    return {};
}

Error readFile(const QString& path, qint64 limit, const QString& what, QByteArray* bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1 %2: %3").arg(what, path, file.errorString());
    if (file.size() > limit)
        return QStringLiteral("%1 %2 holds %3 bytes, more than the %4 the unit has")
            .arg(what, path)
            .arg(file.size())
            .arg(limit);
    *bytes = file.readAll();
    return {};
}

// The unit's folder while this program changes it: locked, with its config loaded.
class LockedUnit
{
public:
    explicit LockedUnit(const QString& dir) : m_dir(local(dir))
    {
        m_lock = vu_lock(m_dir.constData(), lockTimeoutMs);
        if (m_lock >= 0)
            vu_conf_load(&m_conf, m_dir.constData());
    }
    ~LockedUnit() { vu_unlock(m_lock); }
    LockedUnit(const LockedUnit&) = delete;
    LockedUnit& operator=(const LockedUnit&) = delete;

    Error lockError() const
    {
        if (m_lock < 0)
            return QStringLiteral("%1 is in use by another run, or cannot be locked")
                .arg(QFile::decodeName(m_dir));
        return {};
    }
    Error unitError() const
    {
        if (m_conf.count == 0)
            return QStringLiteral("%1 holds no unit; create one first")
                .arg(QFile::decodeName(m_dir));
        return lockError();
    }
    vu_conf* conf() { return &m_conf; }
    Error save()
    {
        if (vu_conf_save(&m_conf, m_dir.constData()) != 0)
            return QStringLiteral("cannot write the config in %1").arg(QFile::decodeName(m_dir));
        return {};
    }

private:
    QByteArray m_dir;
    int m_lock = -1;
    vu_conf m_conf{};
};

// An option that takes one of a few words, stored as given under key.
struct WordOption
{
    const char* option;
    const char* key;
    QStringList words;
};

// An option that takes a non-negative number, stored under key.
struct NumberOption
{
    const char* option;
    const char* key;
};

Error applyOptions(const QCommandLineParser& args, const QList<WordOption>& wordOptions,
                   const QList<NumberOption>& numberOptions, vu_conf* conf)
{
    for (const WordOption& entry : wordOptions) {
        const QString option = QLatin1String(entry.option);
        if (!args.isSet(option))
            continue;
        const QString word = args.value(option);
        if (!entry.words.contains(word))
            return QStringLiteral("--%1 takes %2 or %3, not \"%4\"")
                .arg(option, entry.words.mid(0, entry.words.size() - 1).join(QStringLiteral(", ")),
                     entry.words.last(), word);
        vu_conf_set(conf, entry.key, word.toLatin1().constData());
    }
    for (const NumberOption& entry : numberOptions) {
        const QString option = QLatin1String(entry.option);
        if (!args.isSet(option))
            continue;
        long long value = 0;
        if (Error e = parseNumber(args.value(option), "--" + option, &value); !e.isEmpty())
            return e;
        vu_conf_set_int(conf, entry.key, value);
    }
    return {};
}

// Options that a unit's config carries and that both create and inject accept.
Error applySettings(const QCommandLineParser& args, vu_conf* conf)
{
    return applyOptions(
        args,
        {{"timing", "timing", {QStringLiteral("real"), QStringLiteral("fast")}},
         {"leave-mode",
          "leave_mode",
          {QStringLiteral("dfu"), QStringLiteral("app"), QStringLiteral("reenumerate")}}},
        {{"poll-ms", "poll_ms"}, {"absent-ms", "absent_ms"}, {"reenumerate-ms", "reenumerate_ms"}},
        conf);
}

Error checkSerial(const QString& serial)
{
    static const QRegularExpression valid(QStringLiteral("^[0-9A-Za-z]{1,32}$"));
    if (!valid.match(serial).hasMatch())
        return QStringLiteral("a serial number is 1 to 32 letters and digits, not \"%1\"")
            .arg(serial);
    return {};
}

// The product the unit claims: from --type and --qualifiers, type 3 when they are not given.
Error identity(const QCommandLineParser& args, ImageTool::Identity* id)
{
    long long type = 0;
    QByteArray qualifiers;
    Error e = parseNumber(args.value(QStringLiteral("type")), "--type", &type);
    if (e.isEmpty() && type > 255)
        e = QStringLiteral("--type is one byte, not %1").arg(type);
    if (e.isEmpty())
        e = parseHex(args.value(QStringLiteral("qualifiers")), 3, "--qualifiers", &qualifiers);
    id->type = std::uint8_t(type);
    id->qualifiers = toArray<3>(qualifiers);
    return e;
}

// 512 bytes of OTP area and the 16-byte lock block after it, which stays blank.
Error makeOtpArea(const QCommandLineParser& args, QByteArray* otp)
{
    *otp = QByteArray(VU_OTP_SIZE, char(0xFF));
    if (args.isSet(QStringLiteral("blank-otp")))
        return {};
    if (args.isSet(QStringLiteral("otp"))) {
        QByteArray bytes;
        if (Error e = readFile(args.value(QStringLiteral("otp")), VU_OTP_SIZE, "OTP area", &bytes);
            !e.isEmpty())
            return e;
        otp->replace(0, bytes.size(), bytes);
        return {};
    }
    ImageTool::Identity id;
    QByteArray data;
    Error e = identity(args, &id);
    if (e.isEmpty())
        e = parseHex(args.value(QStringLiteral("otp-data")), 8, "--otp-data", &data);
    if (!e.isEmpty())
        return e;
    const QByteArray area =
        ImageTool::make_otp_area(ImageTool::make_otp_record(id, toArray<8>(data)));
    otp->replace(0, area.size(), area);
    return {};
}

Error makeFlash(const QCommandLineParser& args, QByteArray* flash)
{
    *flash = QByteArray(VU_FLASH_SIZE, char(0xFF));
    QByteArray image;
    if (args.isSet(QStringLiteral("firmware"))) {
        if (Error e = readFile(args.value(QStringLiteral("firmware")), VU_FLASH_SIZE,
                               "firmware image", &image);
            !e.isEmpty())
            return e;
    } else if (args.isSet(QStringLiteral("revision"))) {
        ImageTool::InfoBlock block;
        if (Error e = identity(args, &block.identity); !e.isEmpty())
            return e;
        block.revision = args.value(QStringLiteral("revision")).toUtf8();
        if (args.isSet(QStringLiteral("name")))
            block.name = args.value(QStringLiteral("name")).toUtf8();
        image = ImageTool::make_image(block);
    }
    flash->replace(0, image.size(), image);
    return {};
}

Error create(const QCommandLineParser& args, const QString& dir)
{
    const int sources = int(args.isSet(QStringLiteral("blank-otp"))) +
                        int(args.isSet(QStringLiteral("otp"))) +
                        int(args.isSet(QStringLiteral("type")));
    if (sources > 1)
        return QStringLiteral("--type, --otp and --blank-otp exclude each other");
    if (args.isSet(QStringLiteral("firmware")) &&
        (args.isSet(QStringLiteral("revision")) || args.isSet(QStringLiteral("name"))))
        return QStringLiteral("--firmware excludes --revision and --name");
    const QString serial = args.value(QStringLiteral("serial"));
    QByteArray otp, flash;
    Error e = checkSerial(serial);
    if (e.isEmpty())
        e = makeOtpArea(args, &otp);
    if (e.isEmpty())
        e = makeFlash(args, &flash);
    if (e.isEmpty() && !QDir().mkpath(dir))
        e = QStringLiteral("cannot create %1").arg(dir);
    if (!e.isEmpty())
        return e;

    LockedUnit unit(dir);
    vu_conf* conf = unit.conf();
    conf->count = 0;
    vu_conf_set(conf, "serial", serial.toLatin1().constData());
    vu_conf_set_int(conf, "plugged", args.isSet(QStringLiteral("unplugged")) ? 0 : 1);
    vu_conf_set(conf, "timing", "real");
    vu_conf_set_int(conf, "absent_ms", VU_DEFAULT_ABSENT_MS);
    vu_conf_set(conf, "leave_mode", "dfu");
    vu_conf_set_int(conf, "created_ms", vu_now_ms());
    vu_conf_set_int(conf, "left_at_ms", 0);
    vu_conf_set_int(conf, "enumerations", 0);
    const QDir folder(dir);
    e = unit.lockError();
    if (e.isEmpty())
        e = applySettings(args, conf);
    if (e.isEmpty())
        e = writeFile(folder.filePath(QStringLiteral(VU_FILE_FLASH)), flash);
    if (e.isEmpty())
        e = writeFile(folder.filePath(QStringLiteral(VU_FILE_OTP)), otp);
    return e.isEmpty() ? unit.save() : e;
}

Error plug(const QString& dir, bool plugged)
{
    LockedUnit unit(dir);
    if (Error e = unit.unitError(); !e.isEmpty())
        return e;
    vu_conf* conf = unit.conf();
    vu_conf_set_int(conf, "plugged", plugged ? 1 : 0);
    vu_conf_set_int(conf, plugged ? "plugged_at_ms" : "unplugged_at_ms", vu_now_ms());
    // Pulling the cable ends a pending absence, a run of the application and the bootloader's
    // state; plugging in (again) starts the bootloader, which enumerates anew.
    vu_conf_set_int(conf, "left_at_ms", 0);
    vu_conf_remove(conf, "in_application");
    vu_conf_remove(conf, "dfu_state");
    vu_conf_remove(conf, "dfu_status");
    if (plugged)
        vu_conf_set_int(conf, "enumerations", vu_conf_get_int(conf, "enumerations", 0) + 1);
    return unit.save();
}

const char* const faultKeys[] = {
    "fail_after",      "stall_after",    "stall_ms",           "short_after",
    "fault_direction", "unplug_after",   "flip_address",       "leave_status_fails",
    "second_serial",   "claim_fails",    "first_status_error", "status_error_cleared",
    "read_protected",  "foreign_device", "upload_stride",      "faults_once",
    "power_off_after"};

// The cuts take a count with a fraction ("5.5" erases: halfway through the sixth), stored as
// given.
Error applyCuts(const QCommandLineParser& args, vu_conf* conf)
{
    for (const char* option : {"unplug-after", "power-off-after"}) {
        if (!args.isSet(QLatin1String(option)))
            continue;
        const QString text = args.value(QLatin1String(option));
        bool ok = false;
        if (text.toDouble(&ok) < 0 || !ok)
            return QStringLiteral("--%1 must be a non-negative number, not \"%2\"")
                .arg(QLatin1String(option), text);
        vu_conf_set(conf, QByteArray(option).replace('-', '_').constData(),
                    text.toLatin1().constData());
    }
    return {};
}

Error inject(const QCommandLineParser& args, const QString& dir)
{
    LockedUnit unit(dir);
    if (Error e = unit.unitError(); !e.isEmpty())
        return e;
    vu_conf* conf = unit.conf();
    if (Error e = applyOptions(
            args,
            {{"direction",
              "fault_direction",
              {QStringLiteral("upload"), QStringLiteral("download"), QStringLiteral("erase"),
               QStringLiteral("leave"), QStringLiteral("any")}},
             {"upload-stride",
              "upload_stride",
              {QStringLiteral("requested"), QStringLiteral("transfer")}}},
            {{"fail-after", "fail_after"},
             {"stall-after", "stall_after"},
             {"stall-ms", "stall_ms"},
             {"short-after", "short_after"},
             {"flip-byte", "flip_address"},
             {"claim-fails", "claim_fails"}},
            conf);
        !e.isEmpty())
        return e;
    if (Error e = applyCuts(args, conf); !e.isEmpty())
        return e;
    if (args.isSet(QStringLiteral("second-unit"))) {
        const QString serial = args.value(QStringLiteral("second-unit"));
        if (Error e = checkSerial(serial); !e.isEmpty())
            return e;
        vu_conf_set(conf, "second_serial", serial.toLatin1().constData());
    }
    const struct
    {
        const char* option;
        const char* key;
    } flags[] = {{"leave-status-fails", "leave_status_fails"},
                 {"first-status-error", "first_status_error"},
                 {"read-protected", "read_protected"},
                 {"foreign-device", "foreign_device"},
                 {"once", "faults_once"}};
    for (const auto& entry : flags)
        if (args.isSet(QLatin1String(entry.option)))
            vu_conf_set_int(conf, entry.key, 1);
    if (Error e = applySettings(args, conf); !e.isEmpty())
        return e;
    return unit.save();
}

Error clearFaults(const QString& dir)
{
    LockedUnit unit(dir);
    if (Error e = unit.unitError(); !e.isEmpty())
        return e;
    for (const char* key : faultKeys)
        vu_conf_remove(unit.conf(), key);
    return unit.save();
}

QString otpSummary(const QByteArray& otp)
{
    if (otp.isEmpty())
        return QStringLiteral("missing");
    if (otp.count(char(0xFF)) == otp.size())
        return QStringLiteral("blank");
    const qsizetype at = otp.lastIndexOf(otpMarker);
    if (at < 0)
        return QStringLiteral("no record");
    const QByteArray record = otp.mid(at, 16);
    return QStringLiteral("record at offset %1: type %2, qualifiers %3, data %4")
        .arg(at)
        .arg(quint8(record.at(4)))
        .arg(QString::fromLatin1(record.mid(5, 3).toHex(' ')).toUpper(),
             QString::fromLatin1(record.mid(8, 8).toHex(' ')).toUpper());
}

QString flashSummary(const QByteArray& flash)
{
    if (flash.isEmpty())
        return QStringLiteral("missing");
    qsizetype used = flash.size();
    while (used > 0 && quint8(flash.at(used - 1)) == 0xFF)
        --used;
    if (used == 0)
        return QStringLiteral("erased");
    return QStringLiteral("%1 bytes programmed (up to 0x%2)")
        .arg(used)
        .arg(VU_FLASH_BASE + quint32(used), 8, 16, QLatin1Char('0'));
}

Error show(const QString& dir)
{
    vu_conf conf{};
    if (vu_conf_load(&conf, local(dir).constData()) != 0)
        return QStringLiteral("%1 holds no unit").arg(dir);
    const long long now = vu_now_ms();
    const QDir folder(dir);
    QFile otpFile(folder.filePath(QStringLiteral(VU_FILE_OTP)));
    QFile flashFile(folder.filePath(QStringLiteral(VU_FILE_FLASH)));
    const QByteArray otp = otpFile.open(QIODevice::ReadOnly) ? otpFile.read(512) : QByteArray();
    const QByteArray flash =
        flashFile.open(QIODevice::ReadOnly) ? flashFile.readAll() : QByteArray();

    QString listed;
    switch (vu_conf_presence(&conf, now)) {
    case VU_PRESENT:
        listed = QStringLiteral("yes");
        break;
    case VU_OPEN_DENIED:
        listed = QStringLiteral("yes, but opening it fails (re-enumerating)");
        break;
    case VU_NO_STRINGS:
        listed = QStringLiteral("yes, but without its strings (re-enumerating)");
        break;
    case VU_ABSENT:
        if (vu_conf_get_int(&conf, "plugged", 0) != 1)
            listed = QStringLiteral("no (unplugged)");
        else if (vu_conf_get_int(&conf, "in_application", 0) == 1)
            listed = QStringLiteral("no (running its application until plugged)");
        else
            listed = QStringLiteral("no (back in %1 ms)")
                         .arg(vu_conf_get_int(&conf, "left_at_ms", 0) +
                              vu_conf_get_int(&conf, "absent_ms", VU_DEFAULT_ABSENT_MS) - now);
        break;
    }
    QString text;
    text += QStringLiteral("folder: %1\n").arg(QDir(dir).absolutePath());
    text += QStringLiteral("listed: %1\n").arg(listed);
    text += QStringLiteral("otp: %1\n").arg(otpSummary(otp));
    text += QStringLiteral("flash: %1\n").arg(flashSummary(flash));
    for (int i = 0; i < conf.count; ++i)
        text += QStringLiteral("%1=%2\n").arg(QLatin1String(conf.entries[i].key),
                                              QLatin1String(conf.entries[i].value));
    std::fputs(text.toLocal8Bit().constData(), stdout);
    return {};
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("lumaxis-virtual-unit"));
    QCommandLineParser args;
    args.setApplicationDescription(
        QStringLiteral("Sets up a virtual DfuSe unit for dfu-util run with the virtual libusb.\n\n"
                       "Commands:\n"
                       "  create   make a unit in the folder (replaces what it held)\n"
                       "  plug     connect the unit\n"
                       "  unplug   disconnect the unit\n"
                       "  show     print the unit's state\n"
                       "  inject   arm faults and change settings (options below)\n"
                       "  clear    disarm every fault"));
    args.addHelpOption();
    args.addPositionalArgument(QStringLiteral("command"),
                               QStringLiteral("create, plug, unplug, show, inject or clear"));
    args.addOptions({
        {QStringLiteral("dir"), QStringLiteral("State folder (default: $LUMAXIS_VIRTUAL_UNIT)."),
         QStringLiteral("folder")},
        {QStringLiteral("serial"), QStringLiteral("create: serial number."),
         QStringLiteral("serial"), QStringLiteral(VU_DEFAULT_SERIAL)},
        {QStringLiteral("type"), QStringLiteral("create: product type byte of the OTP record."),
         QStringLiteral("byte"), QStringLiteral("3")},
        {QStringLiteral("qualifiers"), QStringLiteral("create: the record's 3 qualifier bytes."),
         QStringLiteral("hex"), QStringLiteral("FFFFFF")},
        {QStringLiteral("otp-data"), QStringLiteral("create: the record's 8 data bytes."),
         QStringLiteral("hex"), QStringLiteral("0000000000000000")},
        {QStringLiteral("blank-otp"), QStringLiteral("create: leave the OTP area blank.")},
        {QStringLiteral("otp"), QStringLiteral("create: OTP area from a file (up to 528 bytes)."),
         QStringLiteral("file")},
        {QStringLiteral("firmware"),
         QStringLiteral("create: raw image written at 0x08000000; the rest stays erased."),
         QStringLiteral("file")},
        {QStringLiteral("revision"),
         QStringLiteral("create: flash holds a generated image of this revision, for the "
                        "product of --type and --qualifiers."),
         QStringLiteral("text")},
        {QStringLiteral("name"), QStringLiteral("create: the generated image's firmware name."),
         QStringLiteral("text")},
        {QStringLiteral("unplugged"), QStringLiteral("create: start unplugged.")},
        {QStringLiteral("timing"),
         QStringLiteral("real (poll times of a real unit, the default) or fast (none)."),
         QStringLiteral("real|fast")},
        {QStringLiteral("poll-ms"),
         QStringLiteral("Poll time every status answer asks for, in place of --timing."),
         QStringLiteral("ms")},
        {QStringLiteral("absent-ms"),
         QStringLiteral("Time the unit stays off the bus after leaving DFU mode (2000)."),
         QStringLiteral("ms")},
        {QStringLiteral("leave-mode"),
         QStringLiteral("After a leave: back in DFU mode (dfu, the default), running the "
                        "application until plugged (app), or back through a re-enumeration "
                        "window (reenumerate)."),
         QStringLiteral("dfu|app|reenumerate")},
        {QStringLiteral("reenumerate-ms"),
         QStringLiteral("The re-enumeration window (3000): opens fail in its first half, "
                        "string requests in its second."),
         QStringLiteral("ms")},
        {QStringLiteral("fail-after"),
         QStringLiteral("inject: the transfer that crosses this many data bytes fails."),
         QStringLiteral("bytes")},
        {QStringLiteral("stall-after"),
         QStringLiteral("inject: the transfer that crosses this many data bytes hangs."),
         QStringLiteral("bytes")},
        {QStringLiteral("stall-ms"),
         QStringLiteral("inject: how long a hang lasts (default: the request's time-out)."),
         QStringLiteral("ms")},
        {QStringLiteral("direction"),
         QStringLiteral("inject: what the faults count: bytes read, written or both (any, the "
                        "default), erase commands, or leave requests."),
         QStringLiteral("upload|download|erase|leave|any")},
        {QStringLiteral("unplug-after"),
         QStringLiteral("inject: the cable is pulled at this count; the unit, on its own supply, "
                        "finishes a block or an erase it has begun (a count inside it)."),
         QStringLiteral("count")},
        {QStringLiteral("power-off-after"),
         QStringLiteral("inject: the unit loses power at this count; a block in flight is lost, "
                        "a sector in its erase left half erased."),
         QStringLiteral("count")},
        {QStringLiteral("short-after"),
         QStringLiteral("inject: an upload ends with a short block after this many bytes."),
         QStringLiteral("bytes")},
        {QStringLiteral("flip-byte"),
         QStringLiteral("inject: uploads return this address's byte inverted."),
         QStringLiteral("address")},
        {QStringLiteral("second-unit"), QStringLiteral("inject: list a second unit."),
         QStringLiteral("serial")},
        {QStringLiteral("leave-status-fails"),
         QStringLiteral("inject: the last poll of a leave request fails.")},
        {QStringLiteral("first-status-error"),
         QStringLiteral("inject: after each enumeration the unit reports dfuERROR, status 10, "
                        "until the host clears it.")},
        {QStringLiteral("read-protected"),
         QStringLiteral("inject: read protection level 1: flash and OTP are refused until a "
                        "read unprotect (which erases the flash).")},
        {QStringLiteral("foreign-device"),
         QStringLiteral("inject: another maker's DFU-mode device (1d50:6017) on the bus.")},
        {QStringLiteral("upload-stride"),
         QStringLiteral("inject: an upload block's address steps by the transfer size (the "
                        "default) or by each request's length."),
         QStringLiteral("requested|transfer")},
        {QStringLiteral("claim-fails"),
         QStringLiteral("inject: the next N claims of the interface fail (LIBUSB_ERROR_BUSY)."),
         QStringLiteral("count")},
        {QStringLiteral("once"), QStringLiteral("inject: each fault fires in one run only.")},
    });
    args.process(app);

    const QStringList positional = args.positionalArguments();
    if (positional.size() != 1) {
        std::fputs(args.helpText().toLocal8Bit().constData(), stderr);
        return exitUsage;
    }
    const QString command = positional.first();
    const QString dir = args.isSet(QStringLiteral("dir")) ? args.value(QStringLiteral("dir"))
                                                          : qEnvironmentVariable(VU_ENV_DIR);
    if (dir.isEmpty()) {
        std::fputs("lumaxis-virtual-unit: no folder: give --dir or set LUMAXIS_VIRTUAL_UNIT\n",
                   stderr);
        return exitUsage;
    }
    Error error;
    if (command == QLatin1String("create"))
        error = create(args, dir);
    else if (command == QLatin1String("plug"))
        error = plug(dir, true);
    else if (command == QLatin1String("unplug"))
        error = plug(dir, false);
    else if (command == QLatin1String("show"))
        error = show(dir);
    else if (command == QLatin1String("inject"))
        error = inject(args, dir);
    else if (command == QLatin1String("clear"))
        error = clearFaults(dir);
    else {
        std::fprintf(stderr, "lumaxis-virtual-unit: unknown command \"%s\"\n",
                     command.toLocal8Bit().constData());
        return exitUsage;
    }
    if (!error.isEmpty()) {
        std::fprintf(stderr, "lumaxis-virtual-unit: %s\n", error.toLocal8Bit().constData());
        return exitFailure;
    }
    return 0;
}
