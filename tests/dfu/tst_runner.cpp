// The command table and the blocking runner, against small stand-in tools.
#include <QDebug>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QTest>

#include "dfu/commands.h"
#include "common/logcapture.h"

Q_DECLARE_METATYPE(DFU::CmdID)

namespace {

// How the runner's log lines show a program and its arguments.
QString shown(const QString& program, const QList<QString>& args)
{
    QString text;
    QDebug(&text) << program << args;
    return text.trimmed(); // a logged message loses the stream's trailing space
}

QString start_line(const QString& program, const QList<QString>& args)
{
    return QStringLiteral("info: Start  ") + shown(program, args);
}

QString one_per_line(const QList<QString>& args)
{
    QString text;
    for (const QString& arg : args)
        text += arg + QLatin1Char('\n');
    return text;
}

void use_program(DFU::CmdID id, const QString& program, const QList<QString>& args = {})
{
    DFU::Command command;
    command.program = program;
    command.args = args;
    DFU::commands[id] = command;
}

} // namespace

class tst_Runner final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void command_text_data();
    void command_text();
    void passes_arguments_untouched_data();
    void passes_arguments_untouched();
    void exit_code_data();
    void exit_code();
    void crashing_tool();
    void missing_tool();
    void id_missing_from_table_data();
    void id_missing_from_table();
    void list_start_line_data();
    void list_start_line();
    void waits_past_time_limit();

private:
    QTemporaryDir tool_dir_; // holds the argument-printing stand-in, named dfu-util
    QString tool_;
    QMap<DFU::CmdID, DFU::Command> table_;
};

void tst_Runner::initTestCase()
{
    QVERIFY(tool_dir_.isValid());
    tool_ = tool_dir_.filePath(QStringLiteral("dfu-util"));
    QVERIFY(QFile::copy(QStringLiteral(LUMAXIS_FAKE_EXIT), tool_));
    table_ = DFU::commands;
}

void tst_Runner::init()
{
    DFU::commands = table_;
    DFU::Command::path = tool_dir_.path();
}

void tst_Runner::cleanup()
{
    DFU::commands = table_;
    DFU::Command::path.clear();
    qunsetenv("LUMAXIS_FAKE_EXIT_CODE");
    qunsetenv("LUMAXIS_FAKE_STDERR");
    QLoggingCategory::setFilterRules(QString());
}

void tst_Runner::command_text_data()
{
    QTest::addColumn<DFU::CmdID>("id");
    QTest::addColumn<QString>("text");

    QTest::newRow("version") << DFU::version << "dfu-util(-V)";
    QTest::newRow("list") << DFU::list << "dfu-util(-d,0483,-l)";
    QTest::newRow("upload_OTP") << DFU::upload_OTP << "dfu-util(-d,0483,-a,2,-s,0x1FFF7800:512,-U)";
    QTest::newRow("upload_FW_info")
        << DFU::upload_FW_info << "dfu-util(-d,0483,-a,0,-s,0x08000000:2048,-U)";
    QTest::newRow("upload_FW") << DFU::upload_FW << "dfu-util(-d,0483,-a,0)";
    QTest::newRow("download_FW") << DFU::download_FW
                                 << "dfu-util(-d,0483,-a,0,-s,0x08000000:leave,-D)";
    QTest::newRow("setup_prepared_config") << DFU::setup_prepared_config << "dfu-util()";
}

void tst_Runner::command_text()
{
    QFETCH(DFU::CmdID, id);
    QFETCH(QString, text);

    QCOMPARE(DFU::commands.size(), 7);
    QCOMPARE(QString(DFU::commands.value(id)), text);
}

void tst_Runner::passes_arguments_untouched_data()
{
    QTest::addColumn<DFU::CmdID>("id");
    QTest::addColumn<QList<QString>>("extra");
    QTest::addColumn<QList<QString>>("received");

    const QString target = QStringLiteral("/tmp/upgrade_abc123/uploaded_FW.bin");
    QTest::newRow("version") << DFU::version << QList<QString>{} << QList<QString>{"-V"};
    QTest::newRow("upload_FW, caller's range and target")
        << DFU::upload_FW << QList<QString>{"-s", "0x08000000:573088", "-U", target}
        << QList<QString>{"-d", "0483", "-a", "0", "-s", "0x08000000:573088", "-U", target};
    QTest::newRow("download_FW") << DFU::download_FW
                                 << QList<QString>{"/tmp/upgrade_abc123/firmware.bin"}
                                 << QList<QString>{"-d", "0483",
                                                   "-a", "0",
                                                   "-s", "0x08000000:leave",
                                                   "-D", "/tmp/upgrade_abc123/firmware.bin"};
    // No shell between us and the tool: nothing is split, expanded or unquoted.
    const QList<QString> odd{"two words", "it's", "\"quoted\"", "$HOME",   "*",
                             "a;b",       "`id`", "",           "Grüße ✓", "back\\slash"};
    QTest::newRow("spaces, quotes, shell characters") << DFU::setup_prepared_config << odd << odd;
}

void tst_Runner::passes_arguments_untouched()
{
    QFETCH(DFU::CmdID, id);
    QFETCH(QList<QString>, extra);
    QFETCH(QList<QString>, received);

    const LogCapture capture;
    const DFU::CommandResult result = DFU::run_command(id, extra);
    QCOMPARE(result.exit_code, 0);
    QCOMPARE(result.output, one_per_line(received));
    QCOMPARE(capture.lines(), QStringList{start_line(tool_, received)});
}

void tst_Runner::exit_code_data()
{
    QTest::addColumn<int>("code");

    QTest::newRow("success") << 0;
    QTest::newRow("1") << 1;
    QTest::newRow("74, dfu-util's I/O error") << 74;
    QTest::newRow("255") << 255;
}

void tst_Runner::exit_code()
{
    QFETCH(int, code);

    qputenv("LUMAXIS_FAKE_EXIT_CODE", QByteArray::number(code));
    qputenv("LUMAXIS_FAKE_STDERR", "error text that is not part of the output");
    const LogCapture capture;
    const DFU::CommandResult result = DFU::run_command(DFU::version, {});
    QCOMPARE(result.exit_code, code);
    QCOMPARE(result.output, QStringLiteral("-V\n"));

    QStringList expected{start_line(tool_, {"-V"})};
    if (code != 0) {
        expected << QStringLiteral(R"(info: Exit with %1 from %2 returned: "-V\n")")
                        .arg(QString::number(code), shown(tool_, {"-V"}));
    }
    QCOMPARE(capture.lines(), expected);
}

void tst_Runner::crashing_tool()
{
    DFU::Command::path.clear();
    const QString crasher = QStringLiteral(LUMAXIS_FAKE_CRASH);
    use_program(DFU::upload_OTP, crasher, {"-U"});

    const LogCapture capture;
    const DFU::CommandResult result = DFU::run_command(DFU::upload_OTP, {"otp.bin"});
    QCOMPARE(result.exit_code, -1);
    QCOMPARE(result.output, QStringLiteral("crashing\n"));
    QCOMPARE(capture.lines(),
             (QStringList{start_line(crasher, {"-U", "otp.bin"}),
                          QStringLiteral(R"(info: Exit with -1 from %1 returned: "crashing\n")")
                              .arg(shown(crasher, {"-U", "otp.bin"}))}));
}

void tst_Runner::missing_tool()
{
    QTemporaryDir empty;
    QVERIFY(empty.isValid());
    DFU::Command::path = empty.path();
    const QString program = empty.filePath(QStringLiteral("dfu-util"));

    const LogCapture capture;
    const DFU::CommandResult result = DFU::run_command(DFU::version, {});
    // Not started reads as a clean run with no output; callers fail on the missing content.
    QCOMPARE(result.exit_code, 0);
    QCOMPARE(result.output, QString());
    QCOMPARE(capture.lines(),
             (QStringList{start_line(program, {"-V"}),
                          "info: waitForFinished(): Process did not finish in time, exit status: "
                          "QProcess::NormalExit and output: \"\"",
                          "info: will wait again, forever"}));
}

void tst_Runner::id_missing_from_table_data()
{
    QTest::addColumn<DFU::CmdID>("id");

    QTest::newRow("removed entry") << DFU::upload_OTP;
    QTest::newRow("value outside the enumeration") << DFU::CmdID(42);
}

void tst_Runner::id_missing_from_table()
{
    QFETCH(DFU::CmdID, id);

    DFU::commands.remove(id);
    const DFU::CommandResult result = DFU::run_command(id, {"only", "mine"});
    QCOMPARE(result.exit_code, 0);
    QCOMPARE(result.output, QStringLiteral("only\nmine\n"));
    QVERIFY(DFU::commands.contains(id));
    QCOMPARE(QString(DFU::commands.value(id)), QStringLiteral("dfu-util()"));
}

void tst_Runner::list_start_line_data()
{
    QTest::addColumn<QString>("rules");
    QTest::addColumn<QStringList>("log");

    QTest::newRow("silent by default") << QString() << QStringList{};
    QTest::newRow("switched on") << "lumaxis.dfu.list.debug=true"
                                 << QStringList{QStringLiteral("debug: Start  ") +
                                                shown(tool_, {"-d", "0483", "-l"})};
}

void tst_Runner::list_start_line()
{
    QFETCH(QString, rules);
    QFETCH(QStringList, log);

    QLoggingCategory::setFilterRules(rules);
    const LogCapture capture;
    const DFU::CommandResult result = DFU::run_command(DFU::list, {});
    QCOMPARE(result.exit_code, 0);
    QCOMPARE(result.output, QStringLiteral("-d\n0483\n-l\n"));
    QCOMPARE(capture.lines(), log);
}

void tst_Runner::waits_past_time_limit()
{
    if (qEnvironmentVariableIntValue("LUMAXIS_SLOW_TESTS") != 1)
        QSKIP("waits out the 30 s limit; run with LUMAXIS_SLOW_TESTS=1 (ctest -L slow)");

    DFU::Command::path.clear();
    const QString sleeper = QStringLiteral(LUMAXIS_FAKE_SLEEP);
    use_program(DFU::download_FW, sleeper, {"32"});

    const LogCapture capture;
    const DFU::CommandResult result = DFU::run_command(DFU::download_FW, {"early", "late"});
    // Never killed; what was read for the time-out line is not part of the result.
    QCOMPARE(result.exit_code, 0);
    QCOMPARE(result.output, QStringLiteral("late\n"));
    QCOMPARE(capture.lines(),
             (QStringList{start_line(sleeper, {"32", "early", "late"}),
                          "info: waitForFinished(): Process did not finish in time, exit status: "
                          "QProcess::NormalExit and output: \"early\\n\"",
                          "info: will wait again, forever"}));
}

QTEST_GUILESS_MAIN(tst_Runner)
#include "tst_runner.moc"
