// The simulator script run directly: what each command word writes and how it exits.
#include <QtTest>

#include "device/fwinfo.h"
#include "device/otpinfo.h"
#include "dfu/commands.h"
#include "dfu/dfuutil.h"
#include "dfu/scan.h"
#include "simulator/simulator.h"

namespace {

struct Run
{
    int exit_code = -1; // -1: crashed or did not end
    QString out;
    QString err;
};

QString script()
{
    return simulator::dfu_util_path(QStringLiteral("dfu-util_simulator.sh"));
}

QString image(const QString& name)
{
    return simulator::dfu_util_path(QStringLiteral("images/") + name);
}

QByteArray read_all(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The arguments the program sends after rewriting its command table, without --fast-progress:
// the fast mode comes from the environment here.
QStringList program_args(DFU::CmdID id, const QString& word, const QStringList& extra = {})
{
    return QStringList{QStringLiteral("--dfu-util-command"), word} + DFU::commands[id].args + extra;
}

Run run(const QStringList& args)
{
    QProcess process;
    process.start(script(), args);
    Run result;
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    if (process.exitStatus() == QProcess::NormalExit)
        result.exit_code = process.exitCode();
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}

Run setup(const QString& scenario)
{
    return run(
        {QStringLiteral("--dfu-util-command"), QStringLiteral("setup_prepared_config"), scenario});
}

Run list()
{
    return run(program_args(DFU::list, QStringLiteral("list")));
}

Run upload_OTP(const QString& target)
{
    return run(program_args(DFU::upload_OTP, QStringLiteral("upload_OTP"), {target}));
}

Run upload_FW_info(const QString& target)
{
    return run(program_args(DFU::upload_FW_info, QStringLiteral("upload_FW"), {target}));
}

// Reads the flash back as the verification does: "-s 0x08000000:<count>".
Run upload_FW(const QString& target, int count)
{
    return run(program_args(DFU::upload_FW, QStringLiteral("upload_FW"),
                            {QStringLiteral("-s"), QStringLiteral("0x08000000:%1").arg(count),
                             QStringLiteral("-U"), target}));
}

Run download(const QString& file)
{
    return run(program_args(DFU::download_FW, QStringLiteral("download_FW"), {file}));
}

int units_listed()
{
    const Run listing = list();
    return listing.exit_code == 0 ? DFU::scan_for_devices(listing.out).devices.size() : -1;
}

} // namespace

class TestSimulatorScript final : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QScopedPointer<QTemporaryDir> state;
    int image_size = 0;

    QString path(const QString& name) const { return work.filePath(name); }

    // The flash contents from 0x08000000, as far as the desired image reaches.
    QByteArray flash_head(int count)
    {
        const QString target = path(QStringLiteral("flash_%1.bin").arg(count));
        QFile::remove(target);
        const Run r = upload_FW(target, count);
        return r.exit_code == 0 ? read_all(target) : QByteArray();
    }

    QString revision_on_unit()
    {
        const QString target = path(QStringLiteral("info.bin"));
        QFile::remove(target);
        return upload_FW_info(target).exit_code == 0 ? Device::make_FW_Info(target).revision
                                                     : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        QVERIFY2(QFileInfo(script()).isExecutable(), qPrintable(script()));
        qputenv("LUMAXIS_SIMULATOR_FAST", "1");
        image_size = int(QFileInfo(image(QStringLiteral("firmware.bin"))).size());
        QVERIFY(image_size > 2048);
    }

    // Every test starts from a state folder that does not hold a unit yet.
    void init()
    {
        state.reset(new QTemporaryDir);
        QVERIFY(state->isValid());
        qputenv("LUMAXIS_SIMULATOR_STATE", state->path().toLocal8Bit());
        qunsetenv("LUMAXIS_SIMULATOR_ABSENT_MS");
        for (const QString& name : QDir(work.path()).entryList(QDir::Files))
            QFile::remove(path(name));
    }

    void version_prints_the_banner_the_self_test_expects()
    {
        const Run r = run(program_args(DFU::version, QStringLiteral("version")));
        QCOMPARE(r.exit_code, 0);
        QCOMPARE(r.out, DFU::dfu_util::expected_output_of_execution_test);
    }

    void first_use_without_set_up_holds_the_default_unit()
    {
        QCOMPARE(units_listed(), 1);
        QCOMPARE(revision_on_unit(), QStringLiteral("2.2.0"));
    }

    void listing_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<int>("lines");
        QTest::addColumn<int>("scan_status");
        QTest::addColumn<QStringList>("serials");
        const QString unit = QStringLiteral("3473375A3334");
        QTest::newRow("one unit") << "default" << 4 << 0 << QStringList{unit};
        QTest::newRow("no unit") << "no_unit" << 0 << 1 << QStringList{};
        QTest::newRow("two units")
            << "two_units" << 8 << 1 << QStringList{unit, QStringLiteral("206F32A35548")};
        QTest::newRow("three lines") << "three_lines" << 3 << 1 << QStringList{unit};
    }

    void listing()
    {
        QFETCH(QString, scenario);
        QFETCH(int, lines);
        QFETCH(int, scan_status);
        QFETCH(QStringList, serials);
        QCOMPARE(setup(scenario).exit_code, 0);

        const Run r = list();
        QCOMPARE(r.exit_code, 0);
        QVERIFY(r.out.startsWith(DFU::dfu_util::expected_output_of_execution_test));
        const QRegularExpression unit_line(QStringLiteral("^Found DFU: \\[0483:df11\\] ver=2200"),
                                           QRegularExpression::MultilineOption);
        QCOMPARE(int(r.out.count(unit_line)), lines);

        const DFU::ScanResult scan = DFU::scan_for_devices(r.out);
        QCOMPARE(scan.status, scan_status);
        QStringList found;
        for (const DFU::DeviceItem& item : scan.devices)
            found << item.serial;
        QCOMPARE(found, serials);
    }

    void another_vendor_lists_nothing()
    {
        const Run r = run({QStringLiteral("--dfu-util-command"), QStringLiteral("list"),
                           QStringLiteral("-d"), QStringLiteral("1d50"), QStringLiteral("-l")});
        QCOMPARE(r.exit_code, 0);
        QVERIFY(!r.out.contains(QStringLiteral("Found DFU")));
    }

    void readout_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<int>("otp_exit");
        QTest::addColumn<bool>("otp_blank");
        QTest::addColumn<int>("otp_raw_type");
        QTest::addColumn<int>("info_exit");
        QTest::addColumn<int>("fw_type");
        QTest::addColumn<QString>("fw_revision");
        QTest::newRow("older revision") << "default" << 0 << false << 3 << 0 << 3 << "2.2.0";
        QTest::newRow("same revision") << "same_revision" << 0 << false << 3 << 0 << 3 << "2.3.0";
        QTest::newRow("blank OTP") << "blank_otp" << 0 << true << 0 << 0 << 3 << "2.2.0";
        QTest::newRow("other product") << "other_product" << 0 << false << 4 << 0 << 4 << "1.4.0";
        QTest::newRow("unknown type") << "unknown_type" << 0 << false << 0x51 << 0 << 3 << "2.2.0";
        QTest::newRow("OTP upload fails")
            << "otp_upload_fails" << 74 << false << 0 << 0 << 3 << "2.2.0";
        QTest::newRow("no unit") << "no_unit" << 74 << false << 0 << 74 << 0 << "";
        QTest::newRow("two units") << "two_units" << 74 << false << 0 << 74 << 0 << "";
    }

    // Uploads write exactly the requested number of bytes, or fail like dfu-util.
    void readout()
    {
        QFETCH(QString, scenario);
        QFETCH(int, otp_exit);
        QFETCH(bool, otp_blank);
        QFETCH(int, otp_raw_type);
        QFETCH(int, info_exit);
        QFETCH(int, fw_type);
        QFETCH(QString, fw_revision);
        QCOMPARE(setup(scenario).exit_code, 0);

        const QString otp = path(QStringLiteral("otp.bin"));
        const Run o = upload_OTP(otp);
        QCOMPARE(o.exit_code, otp_exit);
        if (otp_exit == 0) {
            QCOMPARE(QFileInfo(otp).size(), 512);
            QVERIFY(o.out.contains(QStringLiteral("Upload done.")));
            const Device::OTP_Info info = Device::make_OTP_Info(otp);
            QCOMPARE(info.empty, otp_blank);
            QCOMPARE(info.product.raw_type, otp_raw_type);
        } else {
            QVERIFY(o.err.startsWith(QStringLiteral("dfu-util: ")));
            QVERIFY(QFileInfo(otp).size() == 0); // absent, or left empty as dfu-util does
        }

        const QString info_file = path(QStringLiteral("info.bin"));
        const Run i = upload_FW_info(info_file);
        QCOMPARE(i.exit_code, info_exit);
        if (info_exit == 0) {
            QCOMPARE(QFileInfo(info_file).size(), 2048);
            const Device::FW_Info fw = Device::make_FW_Info(info_file);
            QVERIFY(fw.valid);
            QCOMPARE(int(fw.product.raw_type), fw_type);
            QCOMPARE(fw.revision, fw_revision);
        } else {
            QVERIFY(!QFileInfo::exists(info_file));
        }
    }

    void full_upload_data()
    {
        QTest::addColumn<int>("count");
        QTest::newRow("one byte") << 1;
        QTest::newRow("information block") << 2048;
        QTest::newRow("image") << -1;
        QTest::newRow("image and one more") << -2;
        QTest::newRow("whole flash") << 1048576;
    }

    // Beyond the image the unit's flash is erased: 0xFF, never stale or zero bytes.
    void full_upload()
    {
        QFETCH(int, count);
        if (count < 0)
            count = image_size - 1 - count;
        QCOMPARE(setup(QStringLiteral("same_revision")).exit_code, 0);
        const QByteArray desired = read_all(image(QStringLiteral("firmware.bin")));

        const QByteArray flash = flash_head(count);
        QCOMPARE(flash.size(), count);
        QCOMPARE(flash.left(desired.size()), desired.left(count));
        if (count > desired.size())
            QCOMPARE(flash.mid(desired.size()), QByteArray(count - desired.size(), '\xff'));
    }

    void download_leaves_the_bootloader_and_comes_back_with_the_new_flash()
    {
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "3000");
        QCOMPARE(setup(QStringLiteral("default")).exit_code, 0);
        const QString desired = image(QStringLiteral("firmware.bin"));

        const Run d = download(desired);
        QCOMPARE(d.exit_code, 0);
        QVERIFY(d.out.contains(QStringLiteral("File downloaded successfully")));

        QCOMPARE(units_listed(), 0);
        const Run away = upload_OTP(path(QStringLiteral("otp.bin")));
        QCOMPARE(away.exit_code, 74);
        QVERIFY(away.err.contains(QStringLiteral("No DFU capable USB device available")));

        QTRY_COMPARE_WITH_TIMEOUT(units_listed(), 1, 10000);
        QCOMPARE(flash_head(image_size), read_all(desired));
        QCOMPARE(revision_on_unit(), QStringLiteral("2.3.0"));
    }

    void failing_download_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<int>("exit_code");
        QTest::addColumn<int>("differing_bytes");
        QTest::newRow("breaks off half-way") << "download_fails" << 74 << -1;
        QTest::newRow("one bit does not take") << "readback_differs" << 0 << 1;
    }

    // The download writes the new information block, yet the read-back is not the image.
    void failing_download()
    {
        QFETCH(QString, scenario);
        QFETCH(int, exit_code);
        QFETCH(int, differing_bytes);
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "0");
        QCOMPARE(setup(scenario).exit_code, 0);
        const QByteArray desired = read_all(image(QStringLiteral("firmware.bin")));

        const Run d = download(image(QStringLiteral("firmware.bin")));
        QCOMPARE(d.exit_code, exit_code);
        if (exit_code != 0)
            QVERIFY(d.err.contains(QStringLiteral("dfu-util: Error during download")));

        QCOMPARE(units_listed(), 1);
        QCOMPARE(revision_on_unit(), QStringLiteral("2.3.0"));
        const QByteArray flash = flash_head(image_size);
        QCOMPARE(flash.size(), desired.size());
        int differing = 0;
        for (int i = 0; i < flash.size(); ++i)
            differing += flash[i] != desired[i];
        if (differing_bytes < 0)
            QVERIFY(differing > 0);
        else
            QCOMPARE(differing, differing_bytes);
    }

    void a_scenario_switch_resets_the_state()
    {
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "60000");
        QCOMPARE(setup(QStringLiteral("default")).exit_code, 0);
        QCOMPARE(download(image(QStringLiteral("firmware.bin"))).exit_code, 0);
        QCOMPARE(units_listed(), 0);

        const Run s = setup(QStringLiteral("default"));
        QCOMPARE(s.exit_code, 0);
        QCOMPARE(units_listed(), 1);
        QCOMPARE(revision_on_unit(), QStringLiteral("2.2.0"));

        QCOMPARE(setup(QStringLiteral("no_unit")).exit_code, 0);
        QCOMPARE(units_listed(), 0);
        QCOMPARE(setup(QStringLiteral("same_revision")).exit_code, 0);
        QCOMPARE(revision_on_unit(), QStringLiteral("2.3.0"));
    }

    void unplug_and_plug_another_unit()
    {
        const QString word = QStringLiteral("--dfu-util-command");
        QCOMPARE(run({word, QStringLiteral("unplug")}).exit_code, 0);
        QCOMPARE(units_listed(), 0);
        QCOMPARE(run({word, QStringLiteral("plug"), QStringLiteral("0123abcd")}).exit_code, 0);
        const DFU::ScanResult scan = DFU::scan_for_devices(list().out);
        QCOMPARE(scan.status, 0);
        QCOMPARE(scan.devices.first().serial, QStringLiteral("0123abcd"));
    }

    void bad_arguments_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("exit_code");
        QTest::addColumn<QString>("message");
        const QString w = QStringLiteral("--dfu-util-command");
        const QString target = QStringLiteral("@target");
        const QStringList up{w, QStringLiteral("upload_FW"), "-d", "0483", "-a", "0", "-s"};
        QTest::newRow("no command word") << QStringList{"-l"} << 64 << "is missing";
        QTest::newRow("unknown command word") << QStringList{w, "erase"} << 64 << "'erase'";
        QTest::newRow("unknown option") << QStringList{w, "list", "-l", "-x"} << 64 << "-- 'x'";
        QTest::newRow("option without value") << (up.mid(0, 6) << "-s") << 64 << "-- 's'";
        QTest::newRow("stray argument") << QStringList{w, "list", "-l", "now"} << 64 << "'now'";
        QTest::newRow("address not a number")
            << (up + QStringList{"flash:2048", "-U", target}) << 64 << "Invalid dfuse address";
        QTest::newRow("length not a number")
            << (up + QStringList{"0x08000000:2k", "-U", target}) << 64 << "modifier: 2k";
        QTest::newRow("no length")
            << (up + QStringList{"0x08000000", "-U", target}) << 64 << "needs a length";
        QTest::newRow("beyond the flash")
            << (up + QStringList{"0x08000000:1048577", "-U", target}) << 64 << "outside";
        QTest::newRow("below the flash")
            << (up + QStringList{"0x07FFFFFF:16", "-U", target}) << 64 << "outside";
        QTest::newRow("no upload target") << (up + QStringList{"0x08000000:16"}) << 64 << "-U";
        QTest::newRow("alternate setting 3")
            << QStringList{w, "upload_FW", "-a", "3", "-s", "0xFFFF0000:4", "-U", target} << 74
            << "alt 0 and 2";
        QTest::newRow("missing download file")
            << (program_args(DFU::download_FW, "download_FW") << "@missing.bin") << 66
            << "Could not open file";
        QTest::newRow("unknown scenario")
            << QStringList{w, "setup_prepared_config", "nope"} << 64 << "'nope'";
        QTest::newRow("scenario outside configs")
            << QStringList{w, "setup_prepared_config", "../configs/default"} << 64 << "named";
        QTest::newRow("scenario missing")
            << QStringList{w, "setup_prepared_config"} << 64 << "NAME";
    }

    // Refused like dfu-util: a non-zero code, a message on stderr, no file written.
    void bad_arguments()
    {
        QFETCH(QStringList, args);
        QFETCH(int, exit_code);
        QFETCH(QString, message);
        for (QString& arg : args) {
            if (arg.startsWith(QLatin1Char('@')))
                arg = path(arg.mid(1));
        }
        const QByteArray flash_before = flash_head(2048);

        const Run r = run(args);
        QCOMPARE(r.exit_code, exit_code);
        QVERIFY2(r.err.startsWith(QStringLiteral("dfu-util: ")), qPrintable(r.err));
        QVERIFY2(r.err.contains(message), qPrintable(r.err));
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("target"))));
        QCOMPARE(flash_head(2048), flash_before);
    }

    void an_existing_upload_target_is_left_alone()
    {
        const QString target = path(QStringLiteral("stale.bin"));
        QFile file(target);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("stale");
        file.close();

        const Run r = upload_OTP(target);
        QCOMPARE(r.exit_code, 73);
        QVERIFY(r.err.contains(QStringLiteral("File exists")));
        QCOMPARE(read_all(target), QByteArray("stale"));
    }

    void a_dfuse_file_is_refused_for_a_raw_download()
    {
        const QString dfuse = path(QStringLiteral("firmware.dfu"));
        QFile file(dfuse);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("DfuSe\x01") + QByteArray(4096, '\x5a'));
        file.close();

        const Run r = download(dfuse);
        QCOMPARE(r.exit_code, 64);
        QVERIFY(r.err.contains(QStringLiteral("not meant for raw download")));
        QCOMPARE(revision_on_unit(), QStringLiteral("2.2.0"));
    }
};

QTEST_GUILESS_MAIN(TestSimulatorScript)
#include "tst_simulator_script.moc"
