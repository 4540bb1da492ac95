// The dfu-util side: command table and runner, listing classification, the version self-test,
// and the unit read-out and read-back against a fake dfu-util.
#include <QtTest>

#include "common/logcapture.h"
#include "dfu/deviceinfo.h"
#include "dfu/dfuutil.h"
#include "dfu/listingparser.h"
#include "dfu/scan.h"
#include "support/files.h"
#include "tools/imagetool/firmwareimage.h"

namespace {

const QString A = QStringLiteral("3473375A3334");
const QString B = QStringLiteral("205F32845431");
const QString fake = QStringLiteral(FAKE_DFU_UTIL_DIR "/dfu-util");

// A listing line as dfu-util 0.9 to 0.11 prints it for alternate setting alt of a unit.
QString line(const QString& serial, int alt = 0, const QString& path = QStringLiteral("1-2.4"),
             const QString& release = QStringLiteral("2200"))
{
    return QStringLiteral("Found DFU: [0483:df11] ver=%1, devnum=7, cfg=1, intf=0, path=\"%2\", "
                          "alt=%3, name=\"@Internal Flash\"%4\n")
        .arg(release, path, QString::number(alt),
             serial.isEmpty() ? QString() : QStringLiteral(", serial=\"%1\"").arg(serial));
}

// The first count lines of one unit, alternate setting 3 first as releases list them.
QString unit(const QString& serial, int count = 4, const QString& path = QStringLiteral("1-2.4"))
{
    QString text;
    for (int i = 0; i < count; ++i)
        text += line(serial, 3 - i % 4, path);
    return text;
}

// How the runner's log lines show values: a program and its arguments, an output.
template <typename... T> QString shown(const T&... values)
{
    QString text;
    QDebug stream(&text);
    ((stream << values), ...);
    return text.trimmed();
}

// Working files and the fake's control files share the run's directory.
void put(const QString& name, const QByteArray& bytes)
{
    QFile file(Files::working_path(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

QByteArray image(std::uint8_t type, const QByteArray& revision = "2.3.0")
{
    return ImageTool::make_image({{type}, "Vega-5 LinkSync", revision, {}},
                                 ImageTool::BlockForm::Intact, 4096);
}

QByteArray otp(std::uint8_t type)
{
    return ImageTool::make_otp_area(ImageTool::make_otp_record({type}));
}

} // namespace

class tst_Dfu final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void command_table();
    void serial_selection_data();
    void serial_selection();
    void self_test_data();
    void self_test();
    void waits_past_time_limit();
    void listing_data();
    void listing();
    void progress_data();
    void progress();
    void progress_while_running();

    void read_device_info_data();
    void read_device_info();
    void read_back_data();
    void read_back();
    void desired_FW_read_once();

private:
    QMap<DFU::CmdID, DFU::Command> table_;
};

void tst_Dfu::initTestCase()
{
    qputenv("FAKE_DFU_UTIL_CONTROL", Files::external_dir.path().toUtf8());
    table_ = DFU::commands;
}

void tst_Dfu::init()
{
    DFU::commands = table_;
    DFU::Command::path = QStringLiteral(FAKE_DFU_UTIL_DIR);
    for (const QString& name : QDir(Files::external_dir.path()).entryList(QDir::Files))
        QFile::remove(Files::working_path(name));
}

void tst_Dfu::command_table()
{
    QStringList texts;
    for (DFU::CmdID id : {DFU::version, DFU::list, DFU::upload_OTP, DFU::upload_FW_info,
                          DFU::upload_FW, DFU::download_FW, DFU::download_FW_staying})
        texts << QString(DFU::commands.value(id));
    QCOMPARE(texts,
             (QStringList{"dfu-util(-V)", "dfu-util(-d,0483,-l)",
                          "dfu-util(-d,,0483:df11,-a,2,-s,0x1FFF7800:512,-U)",
                          "dfu-util(-d,,0483:df11,-a,0,-s,0x08000000:2048,-U)",
                          "dfu-util(-d,,0483:df11,-a,0)",
                          "dfu-util(-d,,0483:df11,-a,0,-s,0x08000000:leave,-D)",
                          "dfu-util(-d,,0483:df11,-a,0,-s,0x08000000,-D)"}));

    // The scan lists twice a second; its runs must not flood the log.
    const LogCapture capture;
    DFU::run_command(DFU::list, {});
    QCOMPARE(capture.lines(), QStringList());

    // The Windows tool ends its lines with CR LF; only a Windows build forgives that.
    const QString crlf =
        QString(DFU::dfu_util::expected_output_of_execution_test).replace("\n", "\r\n");
    QVERIFY(DFU::dfu_util::is_expected_output(crlf, support_misc::Platform::windows));
    QVERIFY(!DFU::dfu_util::is_expected_output(crlf, support_misc::Platform::macOS));
}

// The window never selects a unit: without a serial or path, every run's command line is the
// table's; the companion's selection goes in front, where no option of the table can take it for
// its value.
void tst_Dfu::serial_selection_data()
{
    QTest::addColumn<int>("id");
    QTest::addColumn<QString>("serial");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expected");
    const QString otp = "-d ,0483:df11 -a 2 -s 0x1FFF7800:512 -U x.bin";
    const int list = DFU::list, otp_read = DFU::upload_OTP;
    QTest::newRow("window: the table's own") << otp_read << QString() << QString() << otp;
    QTest::newRow("serial: version untouched") << int(DFU::version) << A << "1-2.3"
                                               << "-V";
    QTest::newRow("serial and path: list") << list << A << "1-2.3"
                                           << "-S " + A + " -p 1-2.3 -d 0483 -l";
    QTest::newRow("serial: OTP, -U keeps its file")
        << otp_read << A << QString() << "-S " + A + " " + otp;
}

void tst_Dfu::serial_selection()
{
    QFETCH(int, id);
    QFETCH(QString, serial);
    QFETCH(QString, path);
    QFETCH(QString, expected);
    DFU::Command::serial = serial;
    DFU::Command::usb_path = path;
    const QStringList args = DFU::arguments(
        DFU::CmdID(id), id == DFU::upload_OTP ? QStringList{"x.bin"} : QStringList());
    DFU::Command::serial.clear();
    DFU::Command::usb_path.clear();
    QCOMPARE(args.join(' '), expected);
}

void tst_Dfu::self_test_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QByteArray>("code");
    QTest::addColumn<QString>("output");
    QTest::addColumn<bool>("passed");
    QTest::addColumn<QStringList>("log"); // after the start line

    const QString banner = DFU::dfu_util::expected_output_of_execution_test;
    const QString crash = QStringLiteral(LUMAXIS_FAKE_CRASH);
    const QString exit_line = QStringLiteral("info: Exit with %1 from %2 returned: %3");
    const QString result = QStringLiteral("info: Result of execution test: status was %1");
    QTest::newRow("expected banner") << fake << QByteArray("0") << banner << true
                                     << QStringList{result.arg("ok and output: \"as expected\"")};
    QTest::newRow("the carried tool's banner")
        << fake << QByteArray("0") << DFU::dfu_util::carried_tool_banner() << true
        << QStringList{result.arg("ok and output: \"as expected\"")};
    const QString other = QStringLiteral("dfu-util 0.10\n\nCopyright 2010-2020 Tormod Volden\n\n");
    QTest::newRow("another release's banner")
        << fake << QByteArray("0") << other << false
        << QStringList{result.arg("ok and output: " + shown(other))};
    QTest::newRow("banner, exit 1")
        << fake << QByteArray("1") << banner << false
        << QStringList{exit_line.arg("1", shown(fake, QList<QString>{"-V"}), shown(banner)),
                       result.arg("bad and output: \"as expected\"")};
    QTest::newRow("crash") << crash << QByteArray() << QString() << false
                           << QStringList{exit_line.arg("-1", shown(crash, QList<QString>{"-V"}),
                                                        "\"crashing\\n\""),
                                          result.arg("bad and output: \"crashing\\n\"")};
    // Not started reads as a clean run with no output; callers fail on the missing content.
    QTest::newRow("missing tool")
        << "/nonexistent/dfu-util" << QByteArray() << QString() << false
        << QStringList{"info: waitForFinished(): Process did not finish in time, exit status: "
                       "QProcess::NormalExit and output: \"\"",
                       "info: will wait again, forever", result.arg("ok and output: \"\"")};
}

void tst_Dfu::self_test()
{
    QFETCH(QString, program);
    QFETCH(QByteArray, code);
    QFETCH(QString, output);
    QFETCH(bool, passed);
    QFETCH(QStringList, log);

    DFU::Command::path.clear();
    DFU::commands[DFU::version].program = program;
    put("version.exit", code);
    put("version.stdout", output.toUtf8());
    const LogCapture capture;
    QCOMPARE(DFU::dfu_util::execution_test(), passed);
    log.prepend("info: Start  " + shown(program, QList<QString>{"-V"}));
    QCOMPARE(capture.lines(), log);
}

void tst_Dfu::waits_past_time_limit()
{
    if (qEnvironmentVariableIntValue("LUMAXIS_SLOW_TESTS") != 1)
        QSKIP("waits out the 30 s limit; run with LUMAXIS_SLOW_TESTS=1 (ctest -L slow)");

    DFU::Command::path.clear();
    DFU::commands[DFU::download_FW] = {QStringLiteral(LUMAXIS_FAKE_SLEEP), {"32"}};
    const LogCapture capture;
    const DFU::CommandResult result = DFU::run_command(DFU::download_FW, {"early", "late"});
    // Never killed; what was read for the time-out line is not part of the result.
    QCOMPARE(result.exit_code, 0);
    QCOMPARE(result.output, QStringLiteral("late\n"));
    QCOMPARE(capture.lines().last(), QStringLiteral("info: will wait again, forever"));
}

void tst_Dfu::listing_data()
{
    QTest::addColumn<QString>("listing");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("devices"); // as the scan result's text shows them

    const QString banner = QStringLiteral("dfu-util 0.11\n\nCopyright 2010-2021 Tormod Volden\n\n");
    const QString a = A + " at 1-2.4", b = B + " at 1-2.3";
    QTest::newRow("nothing attached") << banner << 0 << "";
    QTest::newRow("one unit") << banner + unit(A) << 1 << a;
    QTest::newRow("three lines") << banner + unit(A, 3) << 2 << a;
    QTest::newRow("two units") << unit(A) + unit(B, 4, "1-2.3") << 3 << a + "," + b;
    QTest::newRow("other release ignored")
        << unit(A) + line(A, 0, "1-2.4", "2201") << 1 << a;
    QTest::newRow("CRLF") << QString(unit(A)).replace("\n", "\r\n") << 1 << a;
    // The forms of listings published with real parts attached.
    QTest::newRow("serial not hex (F401/F411, F446)")
        << unit("STM32FxSTM32") << 1 << "STM32FxSTM32 at 1-2.4";
    QTest::newRow("one placeholder serial on two units")
        << unit("FFFFFFFEFFFF") + unit("FFFFFFFEFFFF", 4, "1-2.3") << 3
        << "FFFFFFFEFFFF at 1-2.4,FFFFFFFEFFFF at 1-2.3";
    QTest::newRow("dfu-util 0.8: no path") << QString(unit(A)).remove(" path=\"1-2.4\",") << 1 << A;
    QTest::newRow("alternate setting 0 first")
        << line(A, 0) + line(A, 1) + line(A, 2) + line(A, 3) << 1 << a;
    QTest::newRow("a Runtime device and another maker's DFU device beside it")
        << "Found Runtime: [0483:5740] ver=0200, devnum=12, cfg=1, intf=2, path=\"1-1\", alt=0, "
           "name=\"UNKNOWN\", serial=\"UNKNOWN\"\n"
           "Found DFU: [1d50:6017] ver=0100, devnum=5, cfg=1, intf=0, path=\"1-3\", alt=0, "
           "name=\"@Internal Flash   /0x08000000/8*001Ka,120*001Kg\", serial=\"7D8C41A2\"\n" +
               unit(A)
        << 1 << a;
    QTest::newRow("serial unreadable: dfu-util's UNKNOWN") << unit("UNKNOWN") << 0 << "";
    QTest::newRow("line without serial stops")
        << line(A, 3) + line(B, 2) + line(QString(), 1) + line(A, 0) << 0
        << a + "," + B + " at 1-2.4";
}

void tst_Dfu::listing()
{
    QFETCH(QString, listing);
    QFETCH(int, status);
    QFETCH(QString, devices);

    QCOMPARE(int(DfuUtilParser(listing).status), status);
    QCOMPARE(QString(DFU::scan_for_devices(listing)),
             QStringLiteral("ScanResult: status %1, devices: %2")
                 .arg(status == DfuUtilParser::one_dfu_device ? 0 : 1)
                 .arg(devices));
}

// dfu-util's progress line as it redraws it: "\r<stage>\t[<25 cells>] <pct>% <n> bytes".
static QByteArray bar(const char* stage, int percent, qint64 bytes)
{
    return QStringLiteral("\r%1\t[%2] %3% %4 bytes")
        .arg(QLatin1String(stage))
        .arg(QString(percent / 4, QLatin1Char('=')), -25)
        .arg(percent, 3)
        .arg(bytes, 12)
        .toLatin1();
}

void tst_Dfu::progress_data()
{
    // The output in the pieces it arrives in, split at "|", and the records handed out.
    QTest::addColumn<QByteArray>("pieces");
    QTest::addColumn<QString>("records"); // "stage:percent:bytes", blank-separated

    const QByteArray erase_done = bar("Erase   ", 100, 573088) + "\nErase    done.\n";
    QTest::newRow("a download's stages, every record in order")
        << QByteArray("Opening DFU capable USB device...\n" + bar("Erase   ", 0, 0) + bar("Erase   ", 4, 24576) +
                      "|" + erase_done + bar("Download", 0, 0) + "|" + bar("Download", 52, 299008))
        << "0:0:0 0:4:24576 0:100:573088 1:0:0 1:52:299008";
    QTest::newRow("a record cut anywhere is taken once whole")
        << QByteArray(bar("Upload", 20, 114688).replace("114688 by", "1146|88 by").replace("\t[", "\t|["))
        << "3:20:114688";
    QTest::newRow("no record: banner, listing, a verbose line")
        << QByteArray("dfu-util 0.11\n|Found DFU: [0483:df11] ver=2200|Download\tfrom image offset")
        << "";
    QTest::newRow("a stage dfu-util does not print is no record")
        << QByteArray(bar("Verify", 10, 10)) << "";
}

void tst_Dfu::progress()
{
    QFETCH(QByteArray, pieces);
    QFETCH(QString, records);
    DFU::ProgressReader reader;
    QStringList got;
    for (const QByteArray& piece : pieces.split('|'))
        for (const DFU::ToolProgress& p : reader.feed(piece))
            got << QStringLiteral("%1:%2:%3").arg(int(p.stage)).arg(p.percent).arg(p.bytes);
    QCOMPARE(got.join(' '), records);
    // The whole text at once gives the newest record.
    const auto last = DFU::last_progress(QByteArray(pieces).replace('|', QByteArray()));
    QCOMPARE(last.has_value(), !records.isEmpty());
}

// The runner hands the records over while the tool runs and keeps the whole output.
void tst_Dfu::progress_while_running()
{
    const QByteArray output = "Downloading\n" + bar("Erase   ", 100, 4096) + bar("Download", 50, 2048);
    put("download_FW.stdout", output);
    QList<DFU::ToolProgress> seen;
    const DFU::CommandResult result = DFU::run_command(
        DFU::download_FW, {"image.bin"}, [&](const DFU::ToolProgress& p) { seen << p; });
    QCOMPARE(result.output, QString::fromLatin1(output));
    QVERIFY(!seen.isEmpty());
    QCOMPARE(seen.last(), (DFU::ToolProgress{DFU::Phase::Writing, 50, 2048}));
}

void tst_Dfu::read_device_info_data()
{
    QTest::addColumn<QByteArray>("otp");
    QTest::addColumn<QByteArray>("flash");
    QTest::addColumn<QByteArray>("otp_exit");
    QTest::addColumn<QByteArray>("fw_info_exit");
    QTest::addColumn<int>("exit");        // the read-out's
    QTest::addColumn<QString>("text");    // the DeviceInfo's text form afterwards
    QTest::addColumn<QStringList>("log"); // a mismatch line is also the result's output

    const QString fw = QStringLiteral("FW info:\n  Type: ProductInfo: KSTR (3)\n"
                                      "  Name: Vega-5 LinkSync\n  Rev.: 2.3.0\n  Details:");
    const QString otp_line =
        QStringLiteral(R"(info: "OTP info:\nOTP info:\nMarker %1\nProduct: ProductInfo: %2\n")");
    const QString mismatch = QStringLiteral("info: Upload done.\nFW assumed invalid because of "
                                            "product type mismatch.\nOTP contains%1\nwhereas FW "
                                            "contains\n%2");
    const QString unread = QStringLiteral("DeviceInfo:\n\tDevice type:\t%1\n\tFW_revision:\told\n");
    const QString match = QStringLiteral("DeviceInfo:\n\tDevice type:\t3\n\tFW_revision:\t2.3.0\n");
    const QByteArray kestrel = otp(Device::Kestrel), ok = "0", firmware = image(Device::Kestrel);
    const int short_read = DFU::short_read_exit_code;

    QTest::newRow("OTP upload fails") << kestrel << firmware << QByteArray("1") << ok << 1
                                      << "DeviceInfo:\nInvalid" << QStringList();
    // dfu-util exits 0 at the first short block: a few bytes are no identity.
    QTest::newRow("OTP read-out short") << kestrel.left(8) << firmware << ok << ok << short_read
                                        << "DeviceInfo:\nInvalid" << QStringList();
    QTest::newRow("products match")
        << kestrel << firmware << ok << ok << 0 << match
        << QStringList{otp_line.arg("valid", "KSTR (3)"), "info: " + match + ' ' + fw};
    QTest::newRow("products differ")
        << otp(Device::Verdant) << firmware << ok << ok << 0 << unread.arg(4)
        << QStringList{otp_line.arg("valid", "VRDN (4)"),
                       mismatch.arg("ProductInfo: VRDN (4)", fw)};
    QTest::newRow("FW-info upload fails") << kestrel << firmware << ok << QByteArray("74") << 74
                                          << unread.arg(3)
                                          << QStringList{otp_line.arg("valid", "KSTR (3)")};
    QTest::newRow("FW-info read-out short")
        << kestrel << firmware.left(1000) << ok << ok << short_read << unread.arg(3)
        << QStringList{otp_line.arg("valid", "KSTR (3)")};
    // A whole block without valid information: an interrupted earlier write, to be repaired.
    QTest::newRow("FW-info complete, no valid block")
        << kestrel << QByteArray(4096, '\xFF') << ok << ok << 0 << unread.arg(3)
        << QStringList{otp_line.arg("valid", "KSTR (3)"),
                       mismatch.arg("ProductInfo: KSTR (3)", "FW info:\n\tInvalid")};
    QTest::newRow("blank OTP, normal build")
        << ImageTool::blank_otp_area() << firmware << ok << ok << 0 << unread.arg(0)
        << QStringList{"info: Upload done.\n OTP is blank.\n",
                       otp_line.arg("invalid", "invalid (0)"),
                       mismatch.arg("ProductInfo: invalid (0)", fw)};
}

void tst_Dfu::read_device_info()
{
    QFETCH(QByteArray, otp);
    QFETCH(QByteArray, flash);
    QFETCH(QByteArray, otp_exit);
    QFETCH(QByteArray, fw_info_exit);
    QFETCH(int, exit);
    QFETCH(QString, text);
    QFETCH(QStringList, log);

    // A failed upload leaves its file behind, and the fake, like dfu-util, refuses an existing
    // target: each row also proves that the files of the row before were deleted.
    put("otp.bin", otp);
    put("flash.bin", flash);
    put("upload_OTP.stdout", "Upload done.\n");
    put("upload_OTP.exit", otp_exit);
    put("upload_FW_info.exit", fw_info_exit);

    DFU::DeviceInfo info;
    info.FW_revision = QStringLiteral("old"); // the read-out fills fields, never resets
    const LogCapture capture;
    const DFU::CommandResult result = DFU::read_device_info(nullptr, &info);
    QCOMPARE(capture.lines().filter(QRegularExpression("^info: (?!Start |Exit with)")), log);
    QCOMPARE(result.exit_code, exit);
    const bool mismatch = !log.isEmpty() && log.last().contains("FW assumed invalid");
    if (mismatch)
        QCOMPARE(result.output, log.last().mid(6));
    else
        QVERIFY(result.output.startsWith(QStringLiteral("Upload done.\n")));
    // A short read names both sizes, in the output and in a warning.
    QCOMPARE(result.output.contains(QRegularExpression("expected (512|2048) bytes, got (8|1000)")),
             exit == DFU::short_read_exit_code);
    QCOMPARE(QString(info), text);
    QCOMPARE(info.FW_info.valid, text.contains("2.3.0"));
}

void tst_Dfu::read_back_data()
{
    QTest::addColumn<int>("length"); // of the reference image
    QTest::addColumn<QByteArray>("flash");
    QTest::addColumn<QByteArray>("upload_exit");
    QTest::addColumn<bool>("equal");

    const QByteArray bytes = image(Device::Kestrel);
    QByteArray last_differs = bytes;
    last_differs[4095] = char(bytes[4095] ^ 1);
    QTest::newRow("flash holds the image")
        << 4096 << bytes + QByteArray(500, '\xFF') << QByteArray("0") << true;
    QTest::newRow("last byte differs") << 4096 << last_differs << QByteArray("0") << false;
    QTest::newRow("upload fails") << 4096 << bytes << QByteArray("74") << false;
    // Read in whole blocks, compared over the image's length: what follows it does not count.
    QTest::newRow("image ends mid-block") << 3000 << last_differs << QByteArray("0") << true;
    // The read-back ends early although dfu-util exits 0: never a match.
    QTest::newRow("read-back short") << 3000 << bytes.left(3000) << QByteArray("0") << false;
}

void tst_Dfu::read_back()
{
    QFETCH(int, length);
    QFETCH(QByteArray, flash);
    QFETCH(QByteArray, upload_exit);
    QFETCH(bool, equal);

    // No shell between us and the tool: the name reaches it unsplit and unexpanded.
    const QString target = QStringLiteral("it's \"q\" $HOME;*`id` Grüße ✓.bin");
    put("reference.bin", image(Device::Kestrel).left(length));
    put(target, "stale"); // must be deleted first, else the tool refuses to upload
    put("flash.bin", flash);
    put("upload_FW.exit", upload_exit);
    QCOMPARE(DFU::upload_and_compare_FW_bin(Files::working_path("reference.bin"),
                                            Files::working_path(target)),
             equal);
}

void tst_Dfu::desired_FW_read_once()
{
    put(Files::desired_FW_fileName_bin, image(Device::Kestrel));
    // Read once at start-up; a later change of the file is not seen.
    QCOMPARE(DFU::desired_FW_Info().revision, QStringLiteral("2.3.0"));
    put(Files::desired_FW_fileName_bin, image(Device::Kestrel, "2.4.0"));
    QCOMPARE(DFU::desired_FW_Info().revision, QStringLiteral("2.3.0"));
}

QTEST_GUILESS_MAIN(tst_Dfu)
#include "tst_dfu.moc"
