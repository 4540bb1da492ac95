// The emulated bootloader driven request by request: flash that behaves like flash, DFU states.
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <libusb.h>

#include "tools/virtual-unit/bootloader.h"

namespace {

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeAll(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray withAddress(char code, const QString& hex)
{
    const quint32 address = hex.toUInt(nullptr, 16);
    QByteArray bytes(1, code);
    for (int i = 0; i < 4; ++i)
        bytes.append(char((address >> (8 * i)) & 0xFF));
    return bytes;
}

} // namespace

class tst_Bootloader final : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void flashBehavesLikeFlash_data();
    void flashBehavesLikeFlash();
    void requestSequences_data();
    void requestSequences();
    void stateOutlivesTheRun();

private:
    void openUnit(quint8 initial);
    void runStep(const QString& step);
    int request(quint8 type, quint8 request, quint16 value, QByteArray* data);
    int command(const QByteArray& bytes);
    void commandCycle(const QByteArray& bytes, const QString& expected);

    QTemporaryDir m_dir;
    vu_bootloader m_unit{};
    bool m_open = false;
};

void tst_Bootloader::init()
{
    QVERIFY(m_dir.isValid());
}

void tst_Bootloader::cleanup()
{
    if (m_open)
        vu_bootloader_close(&m_unit);
    m_open = false;
}

void tst_Bootloader::openUnit(quint8 initial)
{
    QVERIFY(writeAll(m_dir.filePath(QStringLiteral("flash.bin")),
                     QByteArray(VU_FLASH_SIZE, char(initial))));
    QVERIFY(
        writeAll(m_dir.filePath(QStringLiteral("otp.bin")), QByteArray(VU_OTP_SIZE, char(0xFF))));
    vu_conf conf{};
    vu_conf_set(&conf, "timing", "fast");
    vu_conf_set(&conf, "plugged", "1");
    QVERIFY(vu_conf_save(&conf, QFile::encodeName(m_dir.path()).constData()) == 0);
    QCOMPARE(vu_bootloader_open(&m_unit, QFile::encodeName(m_dir.path()).constData(), &conf), 0);
    m_open = true;
}

int tst_Bootloader::request(quint8 type, quint8 code, quint16 value, QByteArray* data)
{
    return vu_bootloader_request(&m_unit, type, code, value, 0,
                                 data ? reinterpret_cast<uint8_t*>(data->data()) : nullptr,
                                 data ? quint16(data->size()) : 0, 5000);
}

int tst_Bootloader::command(const QByteArray& bytes)
{
    QByteArray data = bytes;
    return request(0x21, 1, 0, &data);
}

// A DfuSe command as dfu-util sends it: the download, a poll that must say busy, a final poll.
// expected: "ok" (dfuDNLOAD-IDLE), "pipe" (refused outright) or "errXX" (dfuERROR, status XX).
void tst_Bootloader::commandCycle(const QByteArray& bytes, const QString& expected)
{
    const int sent = bytes.size() > 5 || bytes.isEmpty() ? -1 : command(bytes);
    if (expected == QLatin1String("pipe")) {
        QCOMPARE(sent, int(LIBUSB_ERROR_PIPE));
        return;
    }
    QCOMPARE(sent, int(bytes.size()));
    QByteArray status(6, '\0');
    QCOMPARE(request(0xA1, 3, 0, &status), 6);
    QCOMPARE(int(status.at(4)), int(VU_dfuDNBUSY));
    QCOMPARE(request(0xA1, 3, 0, &status), 6);
    if (expected == QLatin1String("ok")) {
        QCOMPARE(int(status.at(4)), int(VU_dfuDNLOAD_IDLE));
        QCOMPARE(int(status.at(0)), int(VU_OK));
    } else {
        QCOMPARE(int(status.at(4)), int(VU_dfuERROR));
        QCOMPARE(int(status.at(0)), expected.mid(3).toInt(nullptr, 16));
    }
}

// One step of a row, "request arguments -> expected"; numbers in hex, states in decimal:
//   set|erase ADDR -> ok|pipe|errXX    masserase -> ...    (full command cycles)
//   write BLOCK BYTE LENGTH -> ok|pipe|errXX                (data block, then two polls)
//   upload BLOCK LENGTH -> pipe|COUNT [BYTE]                 status -> STATE/STATUS|nodev
//   abort|clear|leave -> 0|pipe
void tst_Bootloader::runStep(const QString& step)
{
    const QStringList sides = step.split(QLatin1String(" -> "));
    QCOMPARE(sides.size(), 2);
    const QStringList words = sides[0].split(QLatin1Char(' '));
    const QStringList expected = sides[1].split(QLatin1Char(' '));
    const QString& verb = words[0];
    const auto code = [](const QString& text) {
        if (text == QLatin1String("pipe"))
            return int(LIBUSB_ERROR_PIPE);
        if (text == QLatin1String("nodev"))
            return int(LIBUSB_ERROR_NO_DEVICE);
        return text.toInt(nullptr, 16);
    };

    if (verb == QLatin1String("set")) {
        commandCycle(withAddress(0x21, words[1]), sides[1]);
    } else if (verb == QLatin1String("erase")) {
        commandCycle(withAddress(0x41, words[1]), sides[1]);
    } else if (verb == QLatin1String("masserase")) {
        commandCycle(QByteArray(1, 0x41), sides[1]);
    } else if (verb == QLatin1String("write")) {
        QByteArray data(words[3].toInt(nullptr, 16), char(words[2].toUInt(nullptr, 16)));
        const int sent = request(0x21, 1, quint16(words[1].toUInt()), &data);
        if (sides[1] == QLatin1String("pipe")) {
            QCOMPARE(sent, int(LIBUSB_ERROR_PIPE));
            return;
        }
        QCOMPARE(sent, int(data.size()));
        QByteArray status(6, '\0');
        QCOMPARE(request(0xA1, 3, 0, &status), 6);
        QCOMPARE(request(0xA1, 3, 0, &status), 6);
        const bool ok = sides[1] == QLatin1String("ok");
        QCOMPARE(int(status.at(4)), ok ? int(VU_dfuDNLOAD_IDLE) : int(VU_dfuERROR));
        QCOMPARE(int(status.at(0)), ok ? 0 : sides[1].mid(3).toInt(nullptr, 16));
    } else if (verb == QLatin1String("upload")) {
        QByteArray data(words[2].toInt(nullptr, 16), '\0');
        const int got = request(0xA1, 2, quint16(words[1].toUInt()), &data);
        QCOMPARE(got, code(expected[0]));
        if (expected.size() > 1)
            QCOMPARE(data.left(got), QByteArray(got, char(expected[1].toUInt(nullptr, 16))));
    } else if (verb == QLatin1String("status")) {
        QByteArray status(6, '\0');
        const int got = request(0xA1, 3, 0, &status);
        if (expected[0] == QLatin1String("nodev")) {
            QCOMPARE(got, int(LIBUSB_ERROR_NO_DEVICE));
            return;
        }
        QCOMPARE(got, 6);
        const QStringList pair = expected[0].split(QLatin1Char('/'));
        QCOMPARE(int(status.at(4)), pair[0].toInt());
        QCOMPARE(int(status.at(0)), pair[1].toInt(nullptr, 16));
    } else if (verb == QLatin1String("abort")) {
        QCOMPARE(request(0x21, 6, 0, nullptr), code(expected[0]));
    } else if (verb == QLatin1String("clear")) {
        QCOMPARE(request(0x21, 4, 0, nullptr), code(expected[0]));
    } else if (verb == QLatin1String("leave")) {
        QCOMPARE(request(0x21, 1, 2, nullptr), code(expected[0]));
    } else {
        QFAIL(qPrintable(QLatin1String("unknown step: ") + step));
    }
}

void tst_Bootloader::flashBehavesLikeFlash_data()
{
    QTest::addColumn<int>("initial"); // every flash byte before the row's steps
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QStringList>("checks"); // "[otp] OFFSET LENGTH BYTE", in hex

    QTest::newRow("erased sector takes the data")
        << 0x00 << QStringList{"erase 08000000 -> ok", "set 08000000 -> ok", "write 2 A5 800 -> ok"}
        << QStringList{"0 800 A5", "800 3800 FF"};
    QTest::newRow("writing over data only clears bits")
        << 0xFF
        << QStringList{"set 08000000 -> ok", "write 2 F0 800 -> ok", "set 08000000 -> ok",
                       "write 2 3C 800 -> ok"}
        << QStringList{"0 800 30"};
    QTest::newRow("block number steps by the transfer size")
        << 0xFF << QStringList{"set 08000000 -> ok", "write 4 77 10 -> ok"}
        << QStringList{"0 1000 FF", "1000 10 77", "1010 10 FF"};
    QTest::newRow("erase takes the whole 16K sector only")
        << 0x00 << QStringList{"erase 08007FFF -> ok"}
        << QStringList{"3FF0 10 00", "4000 4000 FF", "8000 10 00"};
    QTest::newRow("64K sector") << 0x00 << QStringList{"erase 08010000 -> ok"}
                                << QStringList{"FFF0 10 00", "10000 10000 FF", "20000 10 00"};
    QTest::newRow("last 128K sector") << 0x00 << QStringList{"erase 080FFFFF -> ok"}
                                      << QStringList{"DFFF0 10 00", "E0000 20000 FF"};
    QTest::newRow("mass erase") << 0x00 << QStringList{"masserase -> ok"}
                                << QStringList{"0 100000 FF"};
    QTest::newRow("OTP bytes only clear bits")
        << 0xFF
        << QStringList{"set 1FFF7800 -> ok", "write 2 0F 10 -> ok", "set 1FFF7800 -> ok",
                       "write 2 F1 10 -> ok"}
        << QStringList{"otp 0 10 01", "otp 10 200 FF"};
    QTest::newRow("erase outside flash fails")
        << 0x00 << QStringList{"erase 1FFF7800 -> err08"} << QStringList{"0 100000 00"};
    QTest::newRow("write past the end of flash fails")
        << 0x00 << QStringList{"set 080FF800 -> ok", "write 3 FF 800 -> err08"}
        << QStringList{"0 100000 00"};
}

void tst_Bootloader::flashBehavesLikeFlash()
{
    QFETCH(int, initial);
    QFETCH(QStringList, steps);
    QFETCH(QStringList, checks);
    openUnit(quint8(initial));
    for (const QString& step : steps) {
        runStep(step);
        if (QTest::currentTestFailed()) {
            qWarning("at step: %s", qPrintable(step));
            return;
        }
    }
    const QByteArray flash = readAll(m_dir.filePath(QStringLiteral("flash.bin")));
    const QByteArray otp = readAll(m_dir.filePath(QStringLiteral("otp.bin")));
    for (QString check : checks) {
        const bool inOtp = check.startsWith(QLatin1String("otp "));
        const QStringList w = check.remove(QLatin1String("otp ")).split(QLatin1Char(' '));
        const int offset = w[0].toInt(nullptr, 16);
        const int length = w[1].toInt(nullptr, 16);
        QVERIFY2((inOtp ? otp : flash).mid(offset, length) ==
                     QByteArray(length, char(w[2].toUInt(nullptr, 16))),
                 qPrintable(check));
    }
}

void tst_Bootloader::requestSequences_data()
{
    QTest::addColumn<QStringList>("steps");

    QTest::newRow("upload stops short at the end of the OTP block")
        << QStringList{"set 1FFF7A08 -> ok", "abort -> 0", "upload 2 800 -> 8 FF", "status -> 2/0"};
    QTest::newRow("full upload block keeps the upload going")
        << QStringList{"set 08000000 -> ok", "abort -> 0", "upload 2 800 -> 800 00",
                       "status -> 9/0",      "abort -> 0", "status -> 2/0"};
    QTest::newRow("command while uploading is refused until cleared") << QStringList{
        "set 08000000 -> ok", "abort -> 0",    "upload 2 800 -> 800", "erase 08000000 -> pipe",
        "status -> 10/0F",    "abort -> pipe", "clear -> 0",          "status -> 2/0"};
    QTest::newRow("address off the memory map")
        << QStringList{"set 20000000 -> err08", "status -> 10/08", "clear -> 0", "status -> 2/0"};
    QTest::newRow("upload off the memory map")
        << QStringList{"set FFFF0000 -> ok", "abort -> 0",          "upload 2 4 -> 4 00",
                       "abort -> 0",         "upload 3 10 -> pipe", "status -> 10/08"};
    QTest::newRow("unknown command") << QStringList{"write 0 55 3 -> pipe", "status -> 10/0F"};
    QTest::newRow("block 1 is not a data block") << QStringList{"write 1 00 10 -> pipe"};
    QTest::newRow("leave after a download") << QStringList{
        "set 08000000 -> ok", "write 2 00 10 -> ok", "abort -> 0",      "set 08000000 -> ok",
        "leave -> 0",         "status -> 7/0",       "status -> nodev", "abort -> nodev"};
}

void tst_Bootloader::requestSequences()
{
    QFETCH(QStringList, steps);
    openUnit(0x00);
    for (const QString& step : steps) {
        runStep(step);
        if (QTest::currentTestFailed()) {
            qWarning("at step: %s", qPrintable(step));
            return;
        }
    }
}

// A run that dies mid-upload leaves the next run a unit in dfuUPLOAD-IDLE; leaving DFU mode
// resets that.
void tst_Bootloader::stateOutlivesTheRun()
{
    openUnit(0x00);
    const QByteArray dir = QFile::encodeName(m_dir.path());
    for (const char* step : {"set 08000000 -> ok", "abort -> 0", "upload 2 800 -> 800"})
        runStep(QLatin1String(step));
    vu_bootloader_close(&m_unit);
    vu_conf conf{};
    QCOMPARE(vu_conf_load(&conf, dir.constData()), 0);
    QCOMPARE(vu_bootloader_open(&m_unit, dir.constData(), &conf), 0);
    for (const char* step :
         {"status -> 9/0", "abort -> 0", "set 08000000 -> ok", "leave -> 0", "status -> 7/0"})
        runStep(QLatin1String(step));
    vu_bootloader_close(&m_unit);
    QCOMPARE(vu_conf_load(&conf, dir.constData()), 0);
    QCOMPARE(vu_bootloader_open(&m_unit, dir.constData(), &conf), 0);
    runStep(QStringLiteral("status -> 2/0"));
}

QTEST_GUILESS_MAIN(tst_Bootloader)
#include "tst_bootloader.moc"
