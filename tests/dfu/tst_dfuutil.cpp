// The tool's location, its version self-test, and the real dfu-util's banner and empty listing.
#include <QtTest>

#include "common/logcapture.h"
#include "dfu/dfuutil.h"
#include "dfu/scan.h"
#include "fakecontrol.h"
#include "support/files.h"

using support_misc::Platform;

namespace {

QString banner_with_crlf()
{
    return QString(DFU::dfu_util::expected_output_of_execution_test)
        .replace(QStringLiteral("\n"), QStringLiteral("\r\n"));
}

// The tool the program embeds once the assets are built, else the system's.
QString real_dfu_util_dir()
{
    for (const QString& dir : {QStringLiteral(GENERATED_DIR), QStringLiteral("/usr/bin")}) {
        if (QFileInfo(dir + QStringLiteral("/dfu-util")).isExecutable())
            return dir;
    }
    return {};
}

} // namespace

class tst_DfuUtil final : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { DFU::Command::path.clear(); }

    void banner_has_the_expected_shape();
    void tool_lies_in_the_extraction_dir();
    void matches_expected_output_data();
    void matches_expected_output();
    void execution_test_data();
    void execution_test();
    void real_tool_fails_the_test_with_its_own_banner();
    void real_tool_lists_no_unit();
};

void tst_DfuUtil::banner_has_the_expected_shape()
{
    const QString& banner = DFU::dfu_util::expected_output_of_execution_test;
    QCOMPARE(banner.size(), 261);
    const QStringList lines = banner.split(QLatin1Char('\n'));
    QCOMPARE(lines.size(), 8); // seven ended lines, then nothing
    QCOMPARE(lines[0], QStringLiteral("dfu-util 0.9"));
    QCOMPARE(lines[1], QString());
    QCOMPARE(lines[2].size(), 66);
    QCOMPARE(lines[3].size(), 52);
    QVERIFY(lines[3].contains(QStringLiteral("2010-2016")));
    QCOMPARE(lines[4],
             QStringLiteral("This program is Free Software and has ABSOLUTELY NO WARRANTY"));
    QCOMPARE(lines[5].size(), 64);
    QCOMPARE(lines[6], QString());
    QCOMPARE(lines[7], QString());
}

void tst_DfuUtil::tool_lies_in_the_extraction_dir()
{
    QCOMPARE(DFU::dfu_util::basename(), QStringLiteral("dfu-util"));
    QCOMPARE(DFU::dfu_util::full_path(), Files::external_dir.path() + QStringLiteral("/dfu-util"));
}

void tst_DfuUtil::matches_expected_output_data()
{
    QTest::addColumn<QString>("output");
    QTest::addColumn<Platform>("platform");
    QTest::addColumn<bool>("equal");

    const QString banner = DFU::dfu_util::expected_output_of_execution_test;
    QTest::newRow("exact banner") << banner << Platform::Linux << true;
    QTest::newRow("one extra trailing newline")
        << banner + QLatin1Char('\n') << Platform::Linux << false;
    QTest::newRow("CR LF in a Windows build") << banner_with_crlf() << Platform::windows << true;
    QTest::newRow("CR LF in a macOS build") << banner_with_crlf() << Platform::macOS << false;
    QTest::newRow("empty") << QString() << Platform::windows << false;
}

void tst_DfuUtil::matches_expected_output()
{
    QFETCH(QString, output);
    QFETCH(Platform, platform);
    QFETCH(bool, equal);

    QCOMPARE(DFU::dfu_util::is_expected_output(output, platform), equal);
}

void tst_DfuUtil::execution_test_data()
{
    QTest::addColumn<int>("exit_code");
    QTest::addColumn<QString>("output");
    QTest::addColumn<bool>("passed");
    QTest::addColumn<QString>("line");

    const QString banner = DFU::dfu_util::expected_output_of_execution_test;
    QTest::newRow("expected banner")
        << 0 << banner << true
        << QStringLiteral(
               R"(info: Result of execution test: status was ok and output: "as expected")");
    QTest::newRow("exit code 1 with the banner")
        << 1 << banner << false
        << QStringLiteral(
               R"(info: Result of execution test: status was bad and output: "as expected")");
    QTest::newRow("other release")
        << 0 << QStringLiteral("dfu-util 0.8\n\n") << false
        << QStringLiteral(
               R"(info: Result of execution test: status was ok and output: "dfu-util 0.8\n\n")");
    QTest::newRow("no output")
        << 0 << QString() << false
        << QStringLiteral(R"(info: Result of execution test: status was ok and output: "")");
}

void tst_DfuUtil::execution_test()
{
    QFETCH(int, exit_code);
    QFETCH(QString, output);
    QFETCH(bool, passed);
    QFETCH(QString, line);

    FakeDfuUtil fake;
    fake.set_exit(QStringLiteral("version"), exit_code);
    fake.set_stdout(QStringLiteral("version"), output);

    LogCapture capture;
    QCOMPARE(DFU::dfu_util::execution_test(), passed);
    QCOMPARE(capture.lines().filter(QStringLiteral("Result of execution test")), QStringList{line});
    QCOMPARE(fake.calls(), QList<QStringList>{{QStringLiteral("-V")}});
}

void tst_DfuUtil::real_tool_fails_the_test_with_its_own_banner()
{
    const QString dir = real_dfu_util_dir();
    if (dir.isEmpty())
        QSKIP("no dfu-util on this machine");
    DFU::Command::path = dir;

    const DFU::CommandResult run = DFU::run_command(DFU::version, {});
    QCOMPARE(run.exit_code, 0);
    // Debian 12 ships release 0.11, embedded as it is.
    QVERIFY2(run.output.startsWith(QStringLiteral("dfu-util 0.11\n")), qPrintable(run.output));

    // Another release passes the run but not the banner comparison, and says so in the log.
    LogCapture capture;
    QVERIFY(!DFU::dfu_util::execution_test());
    QCOMPARE(capture.lines().filter(QStringLiteral("Result of execution test")),
             QStringList{QStringLiteral(
                 "info: Result of execution test: status was ok and output: \"dfu-util 0.11\\n\\n"
                 "Copyright 2005-2009 Weston Schmidt, Harald Welte and OpenMoko Inc.\\n"
                 "Copyright 2010-2021 Tormod Volden and Stefan Schmidt\\n"
                 "This program is Free Software and has ABSOLUTELY NO WARRANTY\\n"
                 "Please report bugs to http://sourceforge.net/p/dfu-util/tickets/\\n\\n\"")});
}

void tst_DfuUtil::real_tool_lists_no_unit()
{
    const QString dir = real_dfu_util_dir();
    if (dir.isEmpty())
        QSKIP("no dfu-util on this machine");
    DFU::Command::path = dir;

    const DFU::CommandResult run = DFU::run_command(DFU::list, {});
    QCOMPARE(run.exit_code, 0);
    QVERIFY2(!run.output.contains(QStringLiteral("Found DFU")), qPrintable(run.output));

    const DFU::ScanResult scan = DFU::make_scan();
    QCOMPARE(scan.status, 1);
    QVERIFY(scan.devices.isEmpty());
}

QTEST_GUILESS_MAIN(tst_DfuUtil)
#include "tst_dfuutil.moc"
