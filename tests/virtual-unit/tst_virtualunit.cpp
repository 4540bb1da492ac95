// The virtual unit: its bootloader request by request, then the real dfu-util listing, reading and
// writing it through the stand-in libusb.
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include "common/filebytes.h"
#include "tools/virtual-unit/bootloader.h"

namespace {

constexpr int imageSize = 573088;
constexpr int flashSize = 0x100000;
// Transfers select the unit by its DFU-mode IDs alone, as the program does.
const QString unitOnly = QStringLiteral("-d ,0483:df11 ");
const QString leave = QStringLiteral("dfu-util -d ,0483:df11 -a 0 -s 0x08000000:leave");

bool writeAll(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// A DfuSe download as dfu-util makes it: the request, a poll that must say busy, a final poll.
// Returns the final status, or -1 when the bootloader answers off the protocol.
int dfuseDownload(vu_bootloader* unit, quint16 block, QByteArray data)
{
    auto* bytes = reinterpret_cast<uint8_t*>(data.data());
    if (vu_bootloader_request(unit, 0x21, 1, block, 0, bytes, quint16(data.size()), 5000) !=
        data.size())
        return -1;
    uint8_t s[6] = {};
    vu_bootloader_request(unit, 0xA1, 3, 0, 0, s, 6, 5000);
    if (block < 2 && s[4] != VU_dfuDNBUSY)
        return -1;
    vu_bootloader_request(unit, 0xA1, 3, 0, 0, s, 6, 5000);
    return s[4] == (s[0] == VU_OK ? VU_dfuDNLOAD_IDLE : VU_dfuERROR) ? s[0] : -1;
}

} // namespace

class tst_VirtualUnit final : public QObject
{
    Q_OBJECT

    QTemporaryDir m_temp;
    QString m_unit, m_firmware, m_block, m_out;
    QByteArray m_image;
    int m_count = 0;

    // Runs dfu-util, or the control program, against this test's unit.
    QProcess* run(QString args, const char* program = DFU_UTIL)
    {
        auto* process = new QProcess(this);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("LD_LIBRARY_PATH", VIRTUAL_USB_DIR);
        env.insert("LUMAXIS_VIRTUAL_UNIT", m_unit);
        process->setProcessEnvironment(env);
        args.replace("%firmware", m_firmware).replace("%block", m_block).replace("%out", m_out);
        process->start(program, args.split(' '));
        process->waitForFinished(60000);
        return process;
    }
    // Control commands, which must succeed, and dfu-util runs, whose effect the test checks.
    bool setUp(const QStringList& commands)
    {
        for (const QString& command : commands) {
            const bool tool = command.startsWith("dfu-util ");
            const char* program = tool ? DFU_UTIL : VIRTUAL_UNIT_CONTROL;
            if (run(tool ? command.mid(9) : command, program)->exitCode() != 0 && !tool)
                return false;
        }
        return true;
    }
    QStringList listed()
    {
        QStringList lines =
            QString::fromLocal8Bit(run("-d 0483 -l")->readAllStandardOutput()).split('\n');
        return lines.filter(QRegularExpression("^Found DFU: "));
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_temp.isValid());
        m_image.resize(imageSize);
        for (int i = 0; i < imageSize; ++i) // no runs: a misplaced block cannot match
            m_image[i] = char((i * 131) ^ (i >> 8));
        m_firmware = m_temp.filePath(QStringLiteral("firmware.bin"));
        QVERIFY(writeAll(m_firmware, m_image));
        m_block = m_temp.filePath(QStringLiteral("block.bin"));
        QVERIFY(writeAll(m_block, m_image.left(2048)));
    }

    void init()
    {
        m_unit = m_temp.filePath(QStringLiteral("unit%1").arg(++m_count));
        m_out = m_temp.filePath(QStringLiteral("upload%1.bin").arg(m_count));
    }

    // Steps "set|erase ADDR", "write BLOCK BYTE LENGTH" (hex); all but the last must
    // succeed. Checks "[otp] OFFSET LENGTH BYTE" (hex) on the memory files afterwards.
    void flash_data()
    {
        QTest::addColumn<int>("initial"); // every flash byte before the steps
        QTest::addColumn<QString>("steps");
        QTest::addColumn<int>("lastStatus");
        QTest::addColumn<QString>("checks");
        const auto row = [](const char* name, int initial, const char* steps, int last,
                            const char* checks) {
            QTest::newRow(name) << initial << steps << last << checks;
        };
        row("erased sector takes the data", 0x00, "erase 08000000;set 08000000;write 2 A5 800",
            VU_OK, "0 800 A5;800 3800 FF;4000 10 00");
        row("writing over data only clears bits, block steps by the transfer size", 0xFF,
            "set 08000000;write 2 F0 800;set 08000000;write 2 3C 800;write 4 77 10", VU_OK,
            "0 800 30;800 800 FF;1000 10 77;1010 10 FF");
        row("erase takes the whole 16K, 64K or 128K sector", 0x00,
            "erase 08007FFF;erase 08010000;erase 080FFFFF", VU_OK,
            "3FF0 10 00;4000 4000 FF;8000 8000 00;10000 10000 FF;20000 C0000 00;E0000 20000 FF");
        row("OTP bytes only clear bits", 0xFF,
            "set 1FFF7800;write 2 0F 10;set 1FFF7800;write 2 F1 10", VU_OK,
            "otp 0 10 01;otp 10 200 FF");
        row("erase outside flash", 0x00, "erase 1FFF7800", VU_errADDRESS, "0 100000 00");
        row("write past the end of flash", 0x00, "set 080FF800;write 3 FF 800", VU_errADDRESS,
            "0 100000 00");
    }

    void flash()
    {
        QFETCH(int, initial);
        QFETCH(QString, steps);
        QFETCH(QString, checks);
        QVERIFY(QDir().mkpath(m_unit));
        QVERIFY(writeAll(m_unit + "/flash.bin", QByteArray(flashSize, char(initial))));
        QVERIFY(writeAll(m_unit + "/otp.bin", QByteArray(VU_OTP_SIZE, char(0xFF))));
        vu_conf conf{};
        vu_conf_set(&conf, "timing", "fast");
        vu_conf_set(&conf, "plugged", "1");
        const QByteArray dir = QFile::encodeName(m_unit);
        QCOMPARE(vu_conf_save(&conf, dir.constData()), 0);
        vu_bootloader unit{};
        QCOMPARE(vu_bootloader_open(&unit, dir.constData(), &conf), 0);
        int status = -1;
        for (const QString& step : steps.split(';')) {
            QVERIFY2(status == -1 || status == VU_OK, qPrintable(step));
            const QStringList w = step.split(' ');
            QByteArray bytes(1, w[0] == "set" ? 0x21 : 0x41);
            for (int i = 0; w[0] != "write" && w.size() > 1 && i < 4; ++i)
                bytes.append(char((w[1].toUInt(nullptr, 16) >> (8 * i)) & 0xFF));
            if (w[0] == "write")
                bytes = QByteArray(w[3].toInt(nullptr, 16), char(w[2].toUInt(nullptr, 16)));
            status = dfuseDownload(&unit, w[0] == "write" ? w[1].toUShort() : 0, bytes);
        }
        vu_bootloader_close(&unit);
        QTEST(status, "lastStatus");
        for (QString check : checks.split(';')) {
            const bool otp = check.startsWith("otp ");
            const QStringList w = check.remove("otp ").split(' ');
            const int length = w[1].toInt(nullptr, 16);
            QVERIFY2(file_bytes(m_unit + (otp ? "/otp.bin" : "/flash.bin"))
                             .mid(w[0].toInt(nullptr, 16), length) ==
                         QByteArray(length, char(w[2].toUInt(nullptr, 16))),
                     qPrintable(check));
        }
    }

    // The exact lines a real unit gives: the program's listing parser depends on them.
    void listing_data()
    {
        QTest::addColumn<QStringList>("setup");
        QTest::addColumn<int>("lines");
        QTest::addColumn<int>("devnum"); // 0: the lines are only counted
        const QString fast = QStringLiteral("create --timing fast");
        QTest::newRow("one unit") << QStringList{fast} << 4 << 7;
        QTest::newRow("unplugged") << QStringList{fast, "unplug"} << 0 << 0;
        // Each enumeration gets a new address from the host.
        QTest::newRow("plugged again") << QStringList{fast, "unplug", "plug"} << 4 << 9;
        // "-d 0483" filters only devices in run-time mode: a DFU-mode device of any maker shows.
        QTest::newRow("foreign device") << QStringList{fast, "inject --foreign-device"} << 5 << 7;
        const QString app = fast + " --absent-ms 0 --leave-mode app";
        QTest::newRow("left to its application") << QStringList{app, leave} << 0 << 0;
        QTest::newRow("bootloader started again") << QStringList{app, leave, "plug"} << 4 << 11;
    }

    void listing()
    {
        QFETCH(QStringList, setup);
        QFETCH(int, devnum);
        QVERIFY(setUp(setup));
        QStringList lines = listed();
        QTEST(int(lines.size()), "lines");
        lines = lines.filter("[0483:df11]");
        const char* names[] = {"@Internal Flash  /0x08000000/04*016Kg,01*064Kg,07*128Kg",
                               "@Option Bytes  /0x1FFFC000/01*016 e",
                               "@OTP Memory /0x1FFF7800/01*512 e,01*016 e",
                               "@Device Feature/0xFFFF0000/01*004 e"};
        for (int alt = 0; devnum && alt < 4; ++alt)
            QCOMPARE(lines[3 - alt],
                     QStringLiteral("Found DFU: [0483:df11] ver=2200, devnum=%1, cfg=1, intf=0, "
                                    "path=\"1-2.4\", alt=%2, name=\"%3\", serial=\"3473375A3334\"")
                         .arg(devnum)
                         .arg(alt)
                         .arg(QLatin1String(names[alt])));
    }

    // Debian links dfu-util "bind now": a libusb function the library lacks makes the tool exit
    // 127 before it does anything, even for -V, and the loader names the function.
    void loadsEveryImport()
    {
        for (const char* tool : {DFU_UTIL, CARRIED_DFU_UTIL}) {
            QProcess* p = run("-V", tool);
            QVERIFY2(p->exitCode() == 0, p->readAllStandardError().constData());
        }
    }

    // After a leave in reenumerate mode the unit is back on the bus, but first cannot be opened
    // (udev has not applied its rule yet), then has no strings, then is itself again.
    void reenumeration()
    {
        QVERIFY(setUp({"create --timing fast --absent-ms 0 --leave-mode reenumerate "
                       "--reenumerate-ms 4000",
                       leave}));
        QProcess* p = run("-d 0483 -l");
        QVERIFY(!p->readAllStandardOutput().contains("Found DFU"));
        QVERIFY(p->readAllStandardError().contains(
            "Cannot open DFU device 0483:df11 found on devnum 9 (LIBUSB_ERROR_ACCESS)"));
        QStringList lines;
        QTRY_VERIFY_WITH_TIMEOUT(!(lines = listed()).isEmpty(), 5000);
        QCOMPARE(lines.filter("name=\"UNKNOWN\", serial=\"UNKNOWN\"").size(), 4);
        QTRY_VERIFY_WITH_TIMEOUT((lines = listed()).filter("UNKNOWN").isEmpty(), 5000);
        QCOMPARE(lines.size(), 4);
    }

    // The OTP record as the program parses it, the rest of the 512 bytes erased.
    void otpUpload()
    {
        QVERIFY(setUp({"create --timing fast --type 3 --qualifiers 010203"}));
        QProcess* p = run(unitOnly + "-a 2 -s 0x1FFF7800:512 -U %out");
        QCOMPARE(p->exitCode(), 0);
        QVERIFY(p->readAllStandardOutput().contains("Upload done."));
        QCOMPARE(file_bytes(m_out), QByteArray("\x11\x47\x23\x01\x03\x01\x02\x03", 8) +
                                        QByteArray(8, '\0') + QByteArray(496, char(0xFF)));
    }

    // What dfu-util says, how it exits and what it leaves behind, as the program relies on.
    void runs_data()
    {
        QTest::addColumn<QStringList>("setup");
        QTest::addColumn<QString>("args");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("output"); // texts separated by "|", in stdout or stderr
        QTest::addColumn<int>("kept");       // image bytes in the upload file, or in flash
        QTest::addColumn<int>("minMs");      // the run takes at least this long
        const auto row = [](const char* name, const QStringList& setup, const QString& args,
                            int exitCode, const char* output, int kept, int minMs = 0) {
            QTest::newRow(name) << setup << args << exitCode << output << kept << minMs;
        };
        const QString fast = "create --timing fast --firmware %firmware";
        const QString upload = unitOnly + "-a 0 -s 0x08000000:16384 -U %out";
        row("upload fails after 4096 bytes", {fast, "inject --fail-after 4096 --direction upload"},
            upload, 74, "dfuse_upload: libusb_control_transfer returned -1 (LIBUSB_ERROR_IO)",
            4096);
        // 48 chunks of 2048 bytes fit below 100000; the 49th is the one that fails. A cut inside
        // it comes while the unit programs it: on its own supply the unit finishes the block,
        // without power it loses it.
        for (const auto& [fault, blocks, output] :
             {std::tuple{"fail", 48, "returned -1 (LIBUSB_ERROR_IO)|Error during download"},
              {"unplug", 49, "Error during download get_status"},
              {"power-off", 48, "Error during download get_status"}})
            row((QByteArray("download: ") + fault + " after 100000 bytes").constData(),
                {"create --timing fast", QString("inject --%1-after 100000").arg(fault)},
                unitOnly + "-a 0 -s 0x08000000:leave -D %firmware", 74, output, blocks * 2048);
        // Erase faults count erase commands: the first two sectors are blank, nothing is written.
        row("download fails at the third erase",
            {"create --timing fast", "inject --fail-after 2 --direction erase"},
            unitOnly + "-a 0 -s 0x08000000:leave -D %firmware", 74,
            "Error during special command \"ERASE_PAGE\" download", 0);
        // A failed run leaves the unit in dfuUPLOAD-IDLE, as a real one stays; dfu-util's next
        // run must find it so and abort it before it can read.
        row("unit state outlives a failed run",
            {fast, "inject --fail-after 2048 --once", "dfu-util " + upload + ".first"}, upload, 0,
            "DFU state(9) = dfuUPLOAD-IDLE|Aborting previous incomplete transfer", 16384);
        // A listing never claims the interface, a transfer does.
        row("interface claimed by another program",
            {fast, "inject --claim-fails 1", "dfu-util -d 0483 -l"}, upload, 74,
            "Cannot claim interface - LIBUSB_ERROR_BUSY", 0);
        row("error status after enumerating", {fast, "inject --first-status-error"}, upload, 0,
            "DFU state(10) = dfuERROR, status(10)|Clearing status", 16384);
        row("read-protected: upload refused", {fast, "inject --read-protected"}, upload, 74,
            "dfuse_upload: libusb_control_transfer returned -9 (LIBUSB_ERROR_PIPE)", 0);
        row("read-protected: erase refused", {fast, "inject --read-protected"},
            unitOnly + "-a 0 -s 0x08000000 -D %block", 74, "ERASE_PAGE not correctly executed",
            imageSize);
        row("read unprotect erases the flash and unlocks it",
            {fast + " --absent-ms 0", "inject --read-protected",
             "dfu-util " + unitOnly + "-a 0 -s :unprotect:force"},
            upload, 0, "Upload done.", 0);
        row("foreign device matches -d 0483", {fast, "inject --foreign-device"},
            "-d 0483 -a 0 -s 0x08000000:16384 -U %out", 74,
            "More than one DFU capable USB device found", 0);
        row("foreign device beside the unit", {fast, "inject --foreign-device"}, upload, 0,
            "Upload done.", 16384);
        // A bootloader that steps by the request's length reads the short last block (1696
        // bytes) from the wrong place; whole blocks (573440 bytes) do not tell the two apart.
        const QString all = unitOnly + "-a 0 -s 0x08000000:%1 -U %out";
        row("upload stride by request, short last block",
            {fast, "inject --upload-stride requested"}, all.arg(imageSize), 0, "Upload done.",
            279 * 2048);
        row("upload stride by request, whole blocks", {fast, "inject --upload-stride requested"},
            all.arg(280 * 2048), 0, "Upload done.", imageSize);
        // The erase asks for 100 ms but holds the next poll until its 400 ms have passed; the
        // set-address and the write ask for 104 ms each.
        row("real timing", {"create"}, unitOnly + "-vv -a 0 -s 0x08000000 -D %block", 0,
            "Poll timeout 100 ms|Poll timeout 104 ms|Poll timeout 0 ms", 2048, 400 + 2 * 104);
    }

    void runs()
    {
        QFETCH(QStringList, setup);
        QFETCH(QString, args);
        QFETCH(QString, output);
        QFETCH(int, minMs);
        QVERIFY(setUp(setup));
        QElapsedTimer timer;
        timer.start();
        QProcess* p = run(args);
        QVERIFY2(timer.elapsed() >= minMs, qPrintable(QString::number(timer.elapsed())));
        const QString out =
            QString::fromLocal8Bit(p->readAllStandardOutput() + p->readAllStandardError());
        QTEST(p->exitCode(), "exitCode");
        for (const QString& text : output.split('|'))
            QVERIFY2(out.contains(text), qPrintable(text + "\n" + out));
        const QByteArray got = file_bytes(args.contains("-U") ? m_out : m_unit + "/flash.bin");
        qsizetype same = 0;
        while (same < got.size() && same < imageSize && got[same] == m_image[same])
            ++same;
        QTEST(int(same), "kept");
        // The unit stays, unless it was cut off.
        QCOMPARE(listed().filter("[0483:df11]").size(),
                 setup.filter(QRegularExpression("unplug|power-off")).isEmpty() ? 4 : 0);
    }
};

QTEST_GUILESS_MAIN(tst_VirtualUnit)
#include "tst_virtualunit.moc"
