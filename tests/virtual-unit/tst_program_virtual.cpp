// The whole program in real-device mode, offscreen, with the virtual unit in its tool bundle: the
// real dfu-util against a unit made and faulted by the control program, one run per row. Every
// row ends with the same checks: the flow's last state, the Install button, whether "Done" was
// shown, what the unit's flash holds, a clean exit and the extracted files' folder gone.
#include <utility>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include "common/powercuts.h"
#include "common/programrun.h"
#include "common/virtualunit.h"
#include "dfu/dfuutil.h"
#include "dfu/listingparser.h"

namespace {

const QString older =
    QStringLiteral("create --type 3 --revision 2.2.0 --timing fast --absent-ms 500");

// Control commands: the older unit, then one inject.
QStringList with(const QString& inject)
{
    return {older, QStringLiteral("inject ") + inject};
}

void row(const QByteArray& name, const QStringList& setup, const QString& steps,
         const QString& expect)
{
    QTest::newRow(name.constData()) << setup << steps << expect;
}

// The faults a transfer can meet: the unit pulled, a stall of a second, a transfer error.
struct Fault
{
    const char* name;
    const char* option;
    const char* more;
    bool pulled;
};
const Fault faults[] = {{"unit pulled", "--unplug-after", "", true},
                        {"stalls", "--stall-after", " --stall-ms 1000", false},
                        {"transfer error", "--fail-after", "", false}};

// The older unit with one fault, once, when a transfer crosses `after` data bytes (or erase
// commands, for the direction "erase").
QStringList with(const Fault& fault, long long after, const char* direction)
{
    return with(QStringLiteral("%1 %2 --direction %3 --once%4")
                    .arg(QLatin1String(fault.option))
                    .arg(after)
                    .arg(QLatin1String(direction), QLatin1String(fault.more)));
}

// dfu-util 0.9 prints no erase stage: it erases each sector as its first block comes.
const bool erase_stage =
    !DFU::dfu_util::carried_tool_banner().startsWith(QLatin1String("dfu-util 0.9\n"));

// Steps split at "|" (programrun.h), plus "unit ..." for the control program.
const QString upgrade = QStringLiteral("entered B2|>click|entered B3|entered B1|entered B4|");
const QString offered = QStringLiteral("entered B2|");

} // namespace

class tst_ProgramVirtual final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void dfuUtilDirect();
    // Faults while the unit is read, and units the flow must not take for what they are not.
    void reading_data();
    void reading() { play(); }
    // Faults in the write, the leave, the return and the read-back.
    void writing_data();
    void writing() { play(); }
    // Escape, closing the window and termination signals while a run is under way.
    void stopping_data();
    void stopping() { play(); }
    // The cable pulled or the power lost anywhere in an upgrade (common/powercuts.h), then the
    // unit plugged in again: the window installs where it offers to, until it shows "Done".
    void cable_pulled_data() { cuts("--unplug-after"); }
    void cable_pulled() { play(); }
    void power_lost_data() { cuts("--power-off-after"); }
    void power_lost() { play(); }

private:
    static void columns();
    void play();
    void cuts(const char* option);
    static QString install_until_done(programrun::ProgramRun& program);
    bool unit(const QString& command) { return m_unit.control(command); }
    int run(const QStringList& arguments, QString* out = nullptr);

    QTemporaryDir m_dir;
    VirtualUnit m_unit{QStringLiteral(":resources/firmware.bin")};
};

void tst_ProgramVirtual::initTestCase()
{
    QVERIFY(m_dir.isValid() && m_unit.valid());
    QCOMPARE(m_unit.carried_image().size(), 573088);
    // The tool bundle this test links: dfu-util and the virtual libusb, as the program has them.
    for (const char* name : {"dfu-util", "libusb-1.0.so.0", "firmware.dfu"}) {
        const QString target = m_dir.filePath(QString::fromLatin1(name));
        QVERIFY(QFile::copy(QStringLiteral(":resources/") + QLatin1String(name), target));
        QVERIFY(QFile::setPermissions(target, QFile::ReadOwner | QFile::ExeOwner));
    }
}

// Runs the extracted dfu-util against the unit; its exit status (-1 if it hangs) and its output.
int tst_ProgramVirtual::run(const QStringList& arguments, QString* out)
{
    QProcess tool;
    tool.setProcessEnvironment(m_unit.environment());
    tool.start(m_dir.filePath(QStringLiteral("dfu-util")), arguments);
    if (!tool.waitForFinished(30000))
        return -1;
    if (out)
        *out = QString::fromLocal8Bit(tool.readAllStandardOutput());
    return tool.exitCode();
}

// The checks that need no window: the listing as the program parses it, and the generated DfuSe
// file, downloaded without an address, leaves the flash holding the raw image.
void tst_ProgramVirtual::dfuUtilDirect()
{
    QVERIFY(unit(QStringLiteral("create --blank-otp --timing fast")));
    QString listing;
    QCOMPARE(run({QStringLiteral("-l")}, &listing), 0);
    const DfuUtilParser parser(listing);
    QCOMPARE(parser.status, DfuUtilParser::one_dfu_device);
    QCOMPARE(parser.serials, QList<QString>{QStringLiteral("3473375A3334")});
    m_unit.mark();
    QCOMPARE(run({QStringLiteral("-a"), QStringLiteral("0"), QStringLiteral("-D"),
                  m_dir.filePath(QStringLiteral("firmware.dfu"))}),
             0);
    QCOMPARE(m_unit.flash(), QStringLiteral("new"));
}

// setup: control commands; steps: see above; expect: "B6 install=0 done=1 flash=new", the last
// state the flow entered ("B1" also when it never left it), the button, "Done" shown, the flash.
void tst_ProgramVirtual::columns()
{
    QTest::addColumn<QStringList>("setup");
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QString>("expect");
}

void tst_ProgramVirtual::reading_data()
{
    columns();
    // A failed or short read is read again, so a passing fault ends in the offer as usual;
    // a unit pulled mid-read is read afresh when it is back.
    const QString read_again = QStringLiteral("Reading the unit failed|") + offered;
    const QString back = QStringLiteral("Exit with 74|!entered B2|unit plug|") + offered;
    const QString on_offer = QStringLiteral("B2 install=1 done=0 flash=old");

    for (const auto& [place, after] : {std::pair{"OTP read", 100}, {"info read", 1000}})
        for (const Fault& fault : faults)
            row(QByteArray(place) + ": " + fault.name, with(fault, after, "upload"),
                fault.pulled ? back : read_again, on_offer);
    row("OTP read: short", with("--short-after 8 --once"), read_again, on_offer);
    row("info read: short", with("--short-after 1000 --once"), read_again, on_offer);
    // The block as it came: its revision text no longer the carried one, so it is offered.
    row("info read: a byte flipped", with("--flip-byte 0x08000210 --once"), offered, on_offer);
    // Still enumerating, the unit refuses to be opened: read again, never reported.
    row("read-out refused twice", with("--claim-fails 2"),
        read_again + QStringLiteral("!The unit did not answer"), on_offer);
    row("read-out refused for good", with("--claim-fails 100"),
        QStringLiteral("Status line: The unit did not answer when it was read|>state|"),
        QStringLiteral("B1 install=0 done=0 flash=old"));
    row("read-protected unit", with("--read-protected"),
        QStringLiteral("Status line: The unit did not answer when it was read|>state|"),
        QStringLiteral("B1 install=0 done=0 flash=old"));
    row("first status says dfuERROR", with("--first-status-error"), upgrade + "entered B6",
        QStringLiteral("B6 install=0 done=1 flash=new"));
    row("foreign DFU device beside the unit", with("--foreign-device"), upgrade + "entered B6",
        QStringLiteral("B6 install=0 done=1 flash=new"));
    // Several STM32F4 system bootloaders report this serial.
    row("serial not hex", {older + " --serial STM32FxSTM32"}, upgrade + "entered B6",
        QStringLiteral("B6 install=0 done=1 flash=new"));
    row("other product", {QStringLiteral("create --type 4 --revision 2.2.0 --timing fast")},
        QStringLiteral("entered B8|"), QStringLiteral("B8 install=0 done=0 flash=old"));
    // B9 announces itself by its signals only: not upgradable, yet a differing revision.
    row("blank OTP area", {QStringLiteral("create --blank-otp --timing fast")},
        QStringLiteral("OTP is blank.|/sig_DeviceConnected|/sig_UpgradeImpossible|"
                       "/sig_DifferingRevision|"),
        QStringLiteral("B1 install=0 done=0 flash=old"));
    row("two units", with("--second-unit 0123456789AB"),
        QStringLiteral("entered B1|!/sig_DeviceConnected|"),
        QStringLiteral("B1 install=0 done=0 flash=old"));
    row("a second unit appears while the install is offered", {older},
        offered + QStringLiteral("unit inject --second-unit 0123456789AB|entered B1|unit clear|") +
            offered,
        on_offer);
}

void tst_ProgramVirtual::writing_data()
{
    columns();
    const QString done = QStringLiteral("entered B6");
    const QString differs = QStringLiteral("entered B7");
    const QString written = QStringLiteral("B6 install=0 done=1 flash=new");
    const QString broken = QStringLiteral("B7 install=1 done=0 flash=other");
    // The whole image is missing but the information block: the unit is offered for repair.
    const QString emptied = QStringLiteral("B2 install=1 done=0 flash=other");
    const QString failed_write = QStringLiteral("entered B2|>click|entered B3|entered B1|");

    // The bar follows dfu-util through each phase.
    row("complete upgrade", {older},
        QStringLiteral("entered B2|>click|entered B3|") +
            (erase_stage ? "% progress_erasing|" : "") +
            "% progress_writing|% progress_restarting|entered B1|% progress_verifying|entered B4|" +
            done,
        written);
    // A unit that stays attached through a failed write (cuts have tables of their own). At the
    // third erase the first sectors, information block and all, are already blank: offered the
    // install again; dfu-util 0.9, which erases as it writes, has written them by then, and as the
    // two images differ only there, the unit holds the whole new image. Broken off in the last
    // block it names the new revision and differs.
    row("erase: stalls", with(faults[1], 2, "erase"),
        failed_write + (erase_stage ? offered : QStringLiteral("entered B4|") + done),
        erase_stage ? emptied : written);
    row("last block: transfer error", with(faults[2], 571400, "download"), upgrade + differs,
        broken);
    // dfu-util fails the leave although the image is written: the read-back decides.
    row("leave's last poll fails", with("--leave-status-fails --once"), upgrade + done, written);
    // The unit runs its new firmware and stays away: the user is told how to have it verified.
    row("unit stays away after the leave", with("--leave-mode app"),
        "entered B2|>click|entered B3|Status line: Firmware written; the unit restarts|"
        "entered B1|!entered B4|Status line: The firmware was written|unit plug|"
        "entered B4|" +
            done,
        written);
    row("unit re-enumerates slowly", with("--leave-mode reenumerate --reenumerate-ms 3000"),
        upgrade + done + "|!The unit did not answer", written);
    row("read-out refused after the leave", {older},
        QStringLiteral("entered B2|>click|/sig_FwDownloaded|unit inject --claim-fails 2|"
                       "Reading the unit failed|entered B4|") +
            done,
        written);
    // A read-back that fails or comes back short once is read again.
    for (const Fault& fault : faults)
        if (!fault.pulled)
            row(QByteArray("read-back once: ") + fault.name,
                with(fault, 4096, "upload"), upgrade + "Reading back failed|" + done, written);
    row("read-back once: short", with("--short-after 300000 --once"),
        upgrade + "Reading back failed|" + done, written);
    row("read-back: a byte flipped", with("--flip-byte 0x08040000 --once"), upgrade + differs,
        QStringLiteral("B7 install=1 done=0 flash=new"));
    // Whole blocks are read back, so a bootloader that addresses a short last block by its
    // length does not matter.
    row("last block read at the requested length's stride", with("--upload-stride requested"),
        upgrade + done, written);
    // Another unit of the product, same revision text but other bytes, put in while the written
    // one is away: verified as what it is.
    row("unit swapped before the verification", {older},
        QStringLiteral(
            "entered B2|>click|entered B3|entered B1|unit create --serial "
            "0123456789AB --type 3 --revision 2.3.0 --name Other --timing fast|entered B4|") +
            differs,
        broken);
}

void tst_ProgramVirtual::stopping_data()
{
    columns();
    // Each dfu-util poll waits 3 ms: a write of about 4 s, so the key comes while it runs. Install
    // stays enabled while the flow writes, as it always has; a click there is dropped.
    const QStringList slow{older, QStringLiteral("inject --poll-ms 3")};
    const QString writing = QStringLiteral("entered B2|>click|entered B3|\"-D\"|") +
                            (erase_stage ? "% progress_erasing|" : "% progress_writing|");
    const QString finishing = QStringLiteral("Status line: Finishing the running transfer|");
    const QString stopped = QStringLiteral("Status line: Stopped|");
    const QString closes =
        QStringLiteral("Closing waits for the running transfer|Status line: Finishing the running "
                       "transfer|>state|visible=1|The transfer has ended; closing");

    row("Escape during the write", slow,
        writing + ">key Escape|Oops, SM_A not dead yet|" + finishing + stopped,
        QStringLiteral("B3 install=1 done=0 flash=new"));
    row("window closed during the write", slow, writing + ">close|" + closes,
        QStringLiteral("B3 install=1 done=0 flash=new"));
    // Ctrl+C reaches the terminal's whole process group: the tool in a group of its own goes on.
    row("Ctrl+C in the terminal during the write", slow,
        writing + "kill -INT|Received signal 2|" + closes,
        QStringLiteral("B3 install=1 done=0 flash=new"));
    row("SIGTERM during the write", slow, writing + "kill TERM|Received signal 15|" + closes,
        QStringLiteral("B3 install=1 done=0 flash=new"));
    const QStringList stalled_read_back =
        with("--stall-after 4096 --stall-ms 2000 --direction upload --once");
    const QString reading_back = upgrade + QStringLiteral("0x08000000:573440|");
    row("Escape during the read-back", stalled_read_back,
        reading_back + ">key Escape|Oops, SM_A not dead yet|" + finishing + stopped,
        QStringLiteral("B4 install=0 done=0 flash=new"));
    // Closing leaves the flow running: the read-back, read again, still proves the unit.
    row("window closed during the read-back", stalled_read_back, reading_back + ">close|" + closes,
        QStringLiteral("B6 install=0 done=1 flash=new"));
    const QStringList stalled_read_out =
        with("--stall-after 100 --stall-ms 2000 --direction upload --once");
    row("Escape during the read-out", stalled_read_out,
        QStringLiteral("\"-U\"|>key Escape|Oops, SM_A not dead yet|") + finishing + stopped,
        QStringLiteral("B1 install=0 done=0 flash=old"));
    row("window closed during the read-out", stalled_read_out,
        QStringLiteral("\"-U\"|>close|") + closes, QStringLiteral("B1 install=0 done=0 flash=old"));
    // A read-out cannot harm the unit: one that hangs is ended 3 s after the quit.
    row("window closed during a read-out that hangs",
        with("--stall-after 100 --stall-ms 4800 --direction upload --once"),
        QStringLiteral("\"-U\"|>close|") +
            QString(closes).replace("|The transfer", "|still running after the stop|The transfer"),
        QStringLiteral("B1 install=0 done=0 flash=old"));
}

void tst_ProgramVirtual::cuts(const char* option)
{
    columns();
    // The cut ends a run with dfu-util's 74; the unit is back once the flow waits for one.
    for (const auto& [name, where] : power_cuts(m_unit.carried_image().size()))
        row(name, with(QStringLiteral("%1 %2 --once").arg(QLatin1String(option), where)),
            "entered B2|>click|entered B3|Exit with 74|entered B1|unit plug|install until done",
            QStringLiteral("B6 install=0 done=1 flash=new"));
}

// Clicks Install wherever the flow offers it, until it shows "Done": once should do.
QString tst_ProgramVirtual::install_until_done(programrun::ProgramRun& program)
{
    const QRegularExpression settled(QStringLiteral("entered (B[267])"));
    QStringList path;
    while (path.size() < 3 && !path.contains(QLatin1String("B6"))) {
        path << program.waitForMatch(settled).captured(1);
        if (path.last() != QLatin1String("B6") && program.send(QStringLiteral("click")) < 0)
            break;
    }
    qInfo().noquote() << "after the plug:" << path.join(QLatin1Char(' '));
    return path.last() == QLatin1String("B6") ? QString() : program.output().right(800);
}

void tst_ProgramVirtual::play()
{
    QFETCH(QStringList, setup);
    QFETCH(QString, steps);
    QFETCH(QString, expect);

    for (const QString& command : setup)
        QVERIFY2(unit(command), qPrintable(command));
    m_unit.mark();
    programrun::ProgramRun program;
    QVERIFY(program.start({QStringLiteral("-S"), QStringLiteral("-l")}, m_unit.environment()));
    for (const QString& step : steps.split(QLatin1Char('|'), Qt::SkipEmptyParts)) {
        const QString failure = step.startsWith(QLatin1String("unit "))
                                    ? (unit(step.mid(5)) ? QString() : step)
                                : step == QLatin1String("install until done")
                                    ? install_until_done(program)
                                    : program.step(step, 30000, 2500);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }
    // A run the row has not ended yet is closed as the user would.
    const bool ending = steps.contains(QLatin1String("closing"));
    if (!ending) {
        QVERIFY(program.send(QStringLiteral("state")) >= 0);
        QVERIFY(program.send(QStringLiteral("close")) >= 0);
    }
    QCOMPARE(program.finish(), 0);

    const QString out = program.output();
    const QRegularExpression state_line(
        QStringLiteral("programrun: state visible=1 install=(\\d)"));
    QRegularExpressionMatch last_state;
    for (const auto& m : state_line.globalMatch(out))
        last_state = m;
    const QRegularExpression entered(QStringLiteral("entered (B\\d)"));
    QString last_entered = QStringLiteral("B1");
    for (const auto& m : entered.globalMatch(out))
        last_entered = m.captured(1);
    const QString got = QStringLiteral("%1 install=%2 done=%3 flash=%4")
                            .arg(last_entered, last_state.captured(1))
                            .arg(int(out.contains(QLatin1String("/sig_FwMatches"))))
                            .arg(m_unit.flash());
    QCOMPARE(got, expect);
    // "Done" only ever for a unit whose flash holds the image, whatever a row expects.
    QVERIFY(!got.contains(QLatin1String("done=1")) || got.endsWith(QLatin1String("flash=new")));
    const QString folder = program.extracted_folder();
    QVERIFY(!folder.isEmpty());
    QVERIFY2(!QDir(folder).exists(), qPrintable(folder));
}

PROGRAMRUN_TEST_MAIN(tst_ProgramVirtual)

#include "tst_program_virtual.moc"
