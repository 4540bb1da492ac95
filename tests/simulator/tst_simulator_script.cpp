// The simulated dfu-util run through the program's rewritten command table: what each command
// writes, prints and how it exits.
#include <QtTest>

#include "common/filebytes.h"
#include "device/fwinfo.h"
#include "device/otpinfo.h"
#include "dfu/commands.h"
#include "dfu/dfuutil.h"
#include "dfu/scan.h"
#include "simulator/simulator.h"

namespace {

// A command as the program sends it; what dfu-util says on failure goes to stderr.
struct Run
{
    int exit_code = -1; // -1: crashed or did not end
    QString err;
};

Run run(DFU::CmdID id, const QStringList& extra = {})
{
    QProcess process;
    process.start(DFU::commands[id].program, DFU::commands[id].args + extra);
    const bool ended =
        process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit;
    return {ended ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardError())};
}

} // namespace

class TestSimulatorScript final : public QObject
{
    Q_OBJECT

    QTemporaryDir work;
    QScopedPointer<QTemporaryDir> state;
    const QByteArray image = file_bytes(simulator::dfu_util_path("images/firmware.bin"));

    QString path(const QString& name) const { return work.filePath(name); }

private slots:
    void initTestCase()
    {
        QVERIFY(work.isValid());
        QVERIFY(image.size() > 2048);
        simulator::setup_for_simulated_dfu_util(simulator::fast_progress);
        QCOMPARE(
            DFU::commands[DFU::list].args,
            (QStringList{"--dfu-util-command", "list", "--fast-progress", "-d", "0483", "-l"}));
    }

    // Every test starts from a state folder that holds no unit yet: first use makes the default.
    void init()
    {
        state.reset(new QTemporaryDir);
        qputenv("LUMAXIS_SIMULATOR_STATE", state->path().toLocal8Bit());
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "0");
        for (const QString& name : QDir(work.path()).entryList(QDir::Files))
            QFile::remove(path(name));
    }

    void version_prints_the_banner_the_self_test_expects()
    {
        const DFU::CommandResult r = DFU::run_command(DFU::version, {});
        QCOMPARE(r.exit_code, 0);
        QCOMPARE(r.output, DFU::dfu_util::expected_output_of_execution_test);
    }

    void scenario_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QStringList>("serials"); // as the program's scan finds them
        QTest::addColumn<int>("otp_type");        // -1: blank, -2: the upload fails
        QTest::addColumn<int>("fw_type");         // 0: the upload fails
        QTest::addColumn<QString>("fw_revision");
        QTest::addColumn<int>("download_exit"); // -1: not tried
        QTest::addColumn<int>("differing");     // bytes read back wrong; -1: some
        const auto row = [](const char* name, const char* scenario, int units, int otp, int fw,
                            const char* revision, int download, int differing) {
            const QStringList serials = QStringList{"3473375A3334", "206F32A35548"}.mid(0, units);
            QTest::newRow(name) << scenario << serials << otp << fw << revision << download
                                << differing;
        };
        row("older revision", "default", 1, 3, 3, "2.2.0", 0, 0);
        row("blank OTP", "blank_otp", 1, -1, 3, "2.2.0", -1, 0);
        row("other product", "other_product", 1, 4, 4, "1.4.0", -1, 0);
        row("unknown type", "unknown_type", 1, 0x51, 3, "2.2.0", -1, 0);
        row("OTP upload fails", "otp_upload_fails", 1, -2, 3, "2.2.0", -1, 0);
        row("no unit", "no_unit", 0, -2, 0, "", -1, 0);
        row("two units", "two_units", 2, -2, 0, "", -1, 0);
        row("download breaks off", "download_fails", 1, 3, 3, "2.2.0", 74, -1);
        row("one bit does not take", "readback_differs", 1, 3, 3, "2.3.0", 0, 1);
    }

    // Uploads write exactly the requested number of bytes or fail like dfu-util; a download
    // writes the information block first, so only the read-back tells a failed one.
    void scenario()
    {
        QFETCH(QString, scenario);
        QFETCH(QStringList, serials);
        QFETCH(int, otp_type);
        QFETCH(int, fw_type);
        QFETCH(int, download_exit);
        QFETCH(int, differing);
        QCOMPARE(simulator::sim_setup_prepared_config(scenario), 0);
        QStringList found;
        for (const DFU::DeviceItem& item : DFU::make_scan().devices)
            found << item.serial;
        QCOMPARE(found, serials);

        const Run o = run(DFU::upload_OTP, {path("otp.bin")});
        QCOMPARE(o.exit_code, otp_type == -2 ? 74 : 0);
        QCOMPARE(QFileInfo(path("otp.bin")).size(), otp_type == -2 ? 0 : 512);
        const Device::OTP_Info otp = Device::make_OTP_Info(path("otp.bin"));
        QVERIFY(otp_type == -2 || otp.empty == (otp_type == -1));
        QVERIFY(otp_type == -2 || otp.product.raw_type == qMax(otp_type, 0));
        QCOMPARE(run(DFU::upload_FW_info, {path("info.bin")}).exit_code, fw_type ? 0 : 74);
        QCOMPARE(QFileInfo(path("info.bin")).size(), fw_type ? 2048 : 0);
        const Device::FW_Info fw = Device::make_FW_Info(path("info.bin"));
        QCOMPARE(int(fw.product.raw_type), fw_type);
        QTEST(fw.revision, "fw_revision");
        if (download_exit < 0)
            return;

        QCOMPARE(run(DFU::download_FW, {simulator::dfu_util_path("images/firmware.bin")}).exit_code,
                 download_exit);
        // Read back as the verification does.
        const QString flash = path("flash.bin");
        run(DFU::upload_FW,
            {"-s", QStringLiteral("0x08000000:%1").arg(image.size() + 16), "-U", flash});
        const QByteArray back = file_bytes(flash);
        QCOMPARE(Device::make_FW_Info(flash).revision, QStringLiteral("2.3.0"));
        QCOMPARE(back.mid(image.size()), QByteArray(16, '\xff')); // erased beyond the image
        int wrong = 0;
        for (int i = 0; i < image.size(); ++i)
            wrong += back[i] != image[i];
        QVERIFY(differing < 0 ? wrong > 0 : wrong == differing);
    }

    // The unit is away for a while after leaving its bootloader, as a real one restarts.
    void download_leaves_the_bootloader()
    {
        qputenv("LUMAXIS_SIMULATOR_ABSENT_MS", "1000");
        QCOMPARE(run(DFU::download_FW, {simulator::dfu_util_path("images/firmware.bin")}).exit_code,
                 0);
        const Run away = run(DFU::upload_OTP, {path("otp.bin")});
        QCOMPARE(away.exit_code, 74);
        QVERIFY(away.err.contains("No DFU capable USB device available"));
        QTRY_COMPARE_WITH_TIMEOUT(DFU::make_scan().devices.size(), 1, 10000);
    }

    void default_state_folder_data()
    {
        QTest::addColumn<QString>("runtime"); // XDG_RUNTIME_DIR in the user's folder; "": unset
        QTest::addColumn<QString>("state");
        const QString cache = QStringLiteral("home/.cache/lumaxis-upgrade/simulator-state");
        QTest::newRow("runtime folder") << "run"
                                        << "run/lumaxis-upgrade/simulator-state";
        QTest::newRow("no runtime folder: the cache") << "" << cache;
        QTest::newRow("runtime folder missing: the cache") << "gone" << cache;
    }

    // The script run by hand and the program, given the same environment, use the same folder:
    // the user's own, as the script's folder may be a system one.
    void default_state_folder()
    {
        QFETCH(QString, runtime);
        QFETCH(QString, state);
        QTemporaryDir user;
        QVERIFY(QDir(user.path()).mkdir(QStringLiteral("run")));
        qunsetenv("LUMAXIS_SIMULATOR_STATE");
        qunsetenv("XDG_CACHE_HOME");
        qputenv("HOME", user.filePath(QStringLiteral("home")).toLocal8Bit());
        if (runtime.isEmpty())
            qunsetenv("XDG_RUNTIME_DIR");
        else
            qputenv("XDG_RUNTIME_DIR", user.filePath(runtime).toLocal8Bit());
        QCOMPARE(
            QProcess::execute(simulator::dfu_util_path(QStringLiteral("dfu-util_simulator.sh")),
                              {"--dfu-util-command", "setup_prepared_config", "no_unit"}),
            0);
        QCOMPARE(file_bytes(user.filePath(state + QStringLiteral("/scenario"))), "no_unit\n");
        QVERIFY(DFU::make_scan().devices.empty());
    }
};

QTEST_GUILESS_MAIN(TestSimulatorScript)
#include "tst_simulator_script.moc"
