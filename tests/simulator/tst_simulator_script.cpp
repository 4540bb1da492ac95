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

QString sim_file(const QString& name)
{
    return simulator::dfu_util_path(name);
}

QByteArray read_all(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

Run run(const QStringList& args)
{
    QProcess process;
    process.start(sim_file(QStringLiteral("dfu-util_simulator.sh")), args);
    Run result;
    if (process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit)
        result.exit_code = process.exitCode();
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}

// What the program sends after rewriting its table; fast mode comes from the environment.
Run run(DFU::CmdID id, const QString& word, const QStringList& extra = {})
{
    return run(QStringList{QStringLiteral("--dfu-util-command"), word} + DFU::commands[id].args +
               extra);
}

Run setup(const QString& scenario)
{
    return run(DFU::setup_prepared_config, QStringLiteral("setup_prepared_config"), {scenario});
}

Run download(const QString& file)
{
    return run(DFU::download_FW, QStringLiteral("download_FW"), {file});
}

int units_listed()
{
    const Run listing = run(DFU::list, QStringLiteral("list"));
    return listing.exit_code == 0 ? int(DFU::scan_for_devices(listing.out).devices.size()) : -1;
}

} // namespace

class TestSimulatorScript final : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QScopedPointer<QTemporaryDir> state;
    const QString desired = sim_file(QStringLiteral("images/firmware.bin"));

    QString path(const QString& name) const { return work.filePath(name); }

    // Reads the flash back as the verification does, into a fresh file.
    Run upload_FW(int count, const QString& target)
    {
        QFile::remove(target);
        return run(DFU::upload_FW, QStringLiteral("upload_FW"),
                   {QStringLiteral("-s"), QStringLiteral("0x08000000:%1").arg(count),
                    QStringLiteral("-U"), target});
    }

    QByteArray flash(int count)
    {
        const QString target = path(QStringLiteral("flash.bin"));
        return upload_FW(count, target).exit_code == 0 ? read_all(target) : QByteArray();
    }

    QString revision_on_unit()
    {
        const QString target = path(QStringLiteral("info.bin"));
        QFile::remove(target);
        const Run r = run(DFU::upload_FW_info, QStringLiteral("upload_FW"), {target});
        return r.exit_code == 0 ? Device::make_FW_Info(target).revision : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        qputenv("LUMAXIS_SIMULATOR_FAST", "1");
        QVERIFY(QFileInfo(desired).size() > 2048);
    }

    // Every test starts from a state folder that holds no unit yet: first use makes the default.
    void init()
    {
        state.reset(new QTemporaryDir);
        qputenv("LUMAXIS_SIMULATOR_STATE", state->path().toLocal8Bit());
        qunsetenv("LUMAXIS_SIMULATOR_ABSENT_MS");
        for (const QString& name : QDir(work.path()).entryList(QDir::Files))
            QFile::remove(path(name));
    }

    void version_prints_the_banner_the_self_test_expects()
    {
        const Run r = run(DFU::version, QStringLiteral("version"));
        QCOMPARE(r.exit_code, 0);
        QCOMPARE(r.out, DFU::dfu_util::expected_output_of_execution_test);
    }

    void listing_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<int>("lines");
        QTest::addColumn<QStringList>("serials");
        const QString unit = QStringLiteral("3473375A3334");
        QTest::newRow("one unit") << "default" << 4 << QStringList{unit};
        QTest::newRow("no unit") << "no_unit" << 0 << QStringList{};
        QTest::newRow("two units") << "two_units" << 8 << QStringList{unit, "206F32A35548"};
        QTest::newRow("three lines") << "three_lines" << 3 << QStringList{unit};
    }

    void listing()
    {
        QFETCH(QString, scenario);
        QFETCH(int, lines);
        QFETCH(QStringList, serials);
        QCOMPARE(setup(scenario).exit_code, 0);

        const Run r = run(DFU::list, QStringLiteral("list"));
        QCOMPARE(r.exit_code, 0);
        const QRegularExpression unit_line(QStringLiteral("^Found DFU: \\[0483:df11\\] ver=2200"),
                                           QRegularExpression::MultilineOption);
        QCOMPARE(int(r.out.count(unit_line)), lines);
        const DFU::ScanResult scan = DFU::scan_for_devices(r.out);
        QCOMPARE(scan.status, lines == 4 ? 0 : 1);
        QStringList found;
        for (const DFU::DeviceItem& item : scan.devices)
            found << item.serial;
        QCOMPARE(found, serials);
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
        const Run o = run(DFU::upload_OTP, QStringLiteral("upload_OTP"), {otp});
        QCOMPARE(o.exit_code, otp_exit);
        if (otp_exit == 0) {
            QCOMPARE(QFileInfo(otp).size(), 512);
            const Device::OTP_Info info = Device::make_OTP_Info(otp);
            QCOMPARE(info.empty, otp_blank);
            QCOMPARE(info.product.raw_type, otp_raw_type);
        } else {
            QVERIFY(o.err.startsWith(QStringLiteral("dfu-util: ")));
            QCOMPARE(QFileInfo(otp).size(), 0); // absent, or left empty as dfu-util does
        }

        const QString info_file = path(QStringLiteral("info.bin"));
        QCOMPARE(run(DFU::upload_FW_info, QStringLiteral("upload_FW"), {info_file}).exit_code,
                 info_exit);
        QCOMPARE(QFileInfo(info_file).size(), info_exit == 0 ? 2048 : 0);
        const Device::FW_Info fw = Device::make_FW_Info(info_file);
        QCOMPARE(int(fw.product.raw_type), fw_type);
        QCOMPARE(fw.revision, fw_revision);
    }

    // A full read-back has exactly the asked size; beyond the image the flash is erased.
    void full_upload()
    {
        QCOMPARE(setup(QStringLiteral("same_revision")).exit_code, 0);
        const QByteArray image = read_all(desired);
        QCOMPARE(flash(int(image.size())), image);
        QCOMPARE(flash(int(image.size()) + 16), image + QByteArray(16, '\xff'));
        QCOMPARE(flash(1048576).size(), 1048576);
    }

    void download_leaves_the_bootloader_and_comes_back_with_the_new_flash()
    {
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "3000");
        const Run d = download(desired);
        QCOMPARE(d.exit_code, 0);
        QVERIFY(d.out.contains(QStringLiteral("File downloaded successfully")));

        QCOMPARE(units_listed(), 0);
        const Run away = run(DFU::upload_OTP, QStringLiteral("upload_OTP"), {path("otp.bin")});
        QCOMPARE(away.exit_code, 74);
        QVERIFY(away.err.contains(QStringLiteral("No DFU capable USB device available")));

        QTRY_COMPARE_WITH_TIMEOUT(units_listed(), 1, 10000);
        QCOMPARE(flash(int(read_all(desired).size())), read_all(desired));
    }

    void failing_download_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<int>("exit_code");
        QTest::addColumn<int>("differing_bytes");
        QTest::newRow("breaks off half-way") << "download_fails" << 74 << -1;
        QTest::newRow("one bit does not take") << "readback_differs" << 0 << 1;
    }

    // The new information block is written, yet the read-back is not the image.
    void failing_download()
    {
        QFETCH(QString, scenario);
        QFETCH(int, exit_code);
        QFETCH(int, differing_bytes);
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "0");
        QCOMPARE(setup(scenario).exit_code, 0);

        QCOMPARE(download(desired).exit_code, exit_code);
        QCOMPARE(units_listed(), 1);
        QCOMPARE(revision_on_unit(), QStringLiteral("2.3.0"));
        const QByteArray image = read_all(desired);
        const QByteArray back = flash(int(image.size()));
        QCOMPARE(back.size(), image.size());
        int differing = 0;
        for (int i = 0; i < back.size(); ++i)
            differing += back[i] != image[i];
        QVERIFY(differing > 0);
        if (differing_bytes > 0)
            QCOMPARE(differing, differing_bytes);
    }

    void a_scenario_switch_resets_the_state()
    {
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "60000");
        QCOMPARE(download(desired).exit_code, 0);
        QCOMPARE(units_listed(), 0);

        QCOMPARE(setup(QStringLiteral("default")).exit_code, 0);
        QCOMPARE(units_listed(), 1);
        QCOMPARE(revision_on_unit(), QStringLiteral("2.2.0"));
    }

    void bad_arguments_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("exit_code");
        QTest::addColumn<QString>("message");
        const QString w = QStringLiteral("--dfu-util-command");
        const QStringList up{w, "upload_FW", "-d", "0483", "-a", "0", "-s"};
        QTest::newRow("no command word") << QStringList{"-l"} << 64 << "is missing";
        QTest::newRow("unknown command word") << QStringList{w, "erase"} << 64 << "'erase'";
        QTest::newRow("unknown option") << QStringList{w, "list", "-l", "-x"} << 64 << "-- 'x'";
        QTest::newRow("option without value") << up << 64 << "-- 's'";
        QTest::newRow("address not a number")
            << (up + QStringList{"flash:2048", "-U", "@target"}) << 64 << "Invalid dfuse address";
        QTest::newRow("length not a number")
            << (up + QStringList{"0x08000000:2k", "-U", "@target"}) << 64 << "modifier: 2k";
        QTest::newRow("no length")
            << (up + QStringList{"0x08000000", "-U", "@target"}) << 64 << "needs a length";
        QTest::newRow("beyond the flash")
            << (up + QStringList{"0x08000000:1048577", "-U", "@target"}) << 64 << "outside";
        QTest::newRow("missing download file")
            << QStringList{w, "download_FW", "-a", "0", "-s", "0x08000000:leave", "-D", "@none"}
            << 66 << "Could not open file";
        QTest::newRow("unknown scenario")
            << QStringList{w, "setup_prepared_config", "../default"} << 64 << "named '../default'";
    }

    // Refused like dfu-util: a non-zero code, a message on stderr, nothing written.
    void bad_arguments()
    {
        QFETCH(QStringList, args);
        QFETCH(int, exit_code);
        QFETCH(QString, message);
        args.replaceInStrings(QRegularExpression(QStringLiteral("^@")), work.path() + "/");
        const QByteArray flash_before = flash(2048);

        const Run r = run(args);
        QCOMPARE(r.exit_code, exit_code);
        QVERIFY2(r.err.startsWith(QStringLiteral("dfu-util: ")), qPrintable(r.err));
        QVERIFY2(r.err.contains(message), qPrintable(r.err));
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("target"))));
        QCOMPARE(flash(2048), flash_before);
    }

    void an_existing_upload_target_is_left_alone()
    {
        const QString target = path(QStringLiteral("stale.bin"));
        QFile file(target);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("stale") == 5);
        file.close();

        const Run r = run(DFU::upload_OTP, QStringLiteral("upload_OTP"), {target});
        QCOMPARE(r.exit_code, 73);
        QVERIFY(r.err.contains(QStringLiteral("File exists")));
        QCOMPARE(read_all(target), QByteArray("stale"));
    }
};

QTEST_GUILESS_MAIN(TestSimulatorScript)
#include "tst_simulator_script.moc"
