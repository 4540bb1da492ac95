// Layout model, progress bar, main window and log window, measured with the embedded fonts.
#include <csignal>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QLabel>
#include <QMessageBox>
#include <QSignalSpy>
#include <QTextBrowser>
#include <QtTest>

#include "common/filebytes.h"
#include "common/logcapture.h"
#include "gui/circle.h"
#include "gui/installbutton.h"
#include "gui/logwindow.h"
#include "gui/mainwindow.h"
#include "gui/progressbar.h"
#include "support/fonts.h"

namespace {

const QMessageLogContext context("worker.cpp", 77, "void SM_A::run()", "default");

QLabel* label_with(QWidget* window, const QString& part)
{
    for (QLabel* label : window->findChildren<QLabel*>())
        if (label->text().contains(part))
            return label;
    return nullptr;
}

// While it lives, a save into folder fails as a row asks: limit -1 makes the folder read-only,
// for root too (its CAP_DAC_OVERRIDE, which writes anywhere, is dropped from this thread), and a
// limit above 0 caps the size of written files, so a longer write breaks off (process-wide: a test
// log written to a file loses the lines of that moment).
class SaveHindrance final
{
public:
    SaveHindrance(const QString& folder, int limit) : folder_(folder), limit_(limit)
    {
        if (limit < 0) {
            QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner);
            syscall(SYS_capget, &caps_header_, caps_);
            __user_cap_data_struct dropped[2] = {caps_[0], caps_[1]};
            dropped[0].effective &= ~(1u << CAP_DAC_OVERRIDE);
            syscall(SYS_capset, &caps_header_, dropped);
        } else if (limit > 0) {
            getrlimit(RLIMIT_FSIZE, &fsize_);
            const rlimit capped{rlim_t(limit), fsize_.rlim_max};
            setrlimit(RLIMIT_FSIZE, &capped);
            xfsz_ = std::signal(SIGXFSZ, SIG_IGN); // the write fails instead of ending the test
        }
    }
    ~SaveHindrance()
    {
        if (limit_ < 0) {
            syscall(SYS_capset, &caps_header_, caps_);
            QFile::setPermissions(folder_, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        } else if (limit_ > 0) {
            setrlimit(RLIMIT_FSIZE, &fsize_);
            std::signal(SIGXFSZ, xfsz_);
        }
    }
    Q_DISABLE_COPY_MOVE(SaveHindrance)

private:
    const QString folder_;
    const int limit_;
    __user_cap_header_struct caps_header_{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct caps_[2]{};
    rlimit fsize_{};
    void (*xfsz_)(int) = SIG_DFL;
};

} // namespace

class TestGui : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void layout_file_data();
    void layout_file();
    void label_look_up();
    void progress_timing_data();
    void progress_timing();
    void progress_finishes_once();
    void window_layout();
    void window_keys();
    void log_dialog();
    void log_source();
    void log_save_data();
    void log_save();
    void fatal_data();
    void fatal();

private:
    Settings::Settings settings_;
    std::unique_ptr<MainWindow> window_;
    std::unique_ptr<LogWindow> log_;
};

void TestGui::initTestCase()
{
    QTest::ignoreMessage(QtInfoMsg, "Load/set default font: \"Lumaxis Sans\"");
    support::setup_fonts();
    QCOMPARE(QGuiApplication::font().family(), QStringLiteral("Lumaxis Sans"));
    QCOMPARE(QGuiApplication::font().pointSize(), 11);
    settings_.gui = Settings::make_GUI(QStringLiteral(":resources/settings_GUI.json"));
    settings_.desired_FW_type = Device::Kestrel;
    settings_.desired_FW_revision = QStringLiteral("2.3.0");
}

void TestGui::init()
{
    window_.reset(MainWindow_factory(&settings_, nullptr, true));
    log_ = std::make_unique<LogWindow>();
}

void TestGui::layout_file_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<QString>("printed"); // after "GUI settings:\n"

    QTest::newRow("circle") << R"({"circles": [{"name": "On", "center": {"x": 490, "y": 258},
        "radius": 15, "pen_width": 15, "color": "#60FF4040"}]})"
                            << "\tCircle 'On': (490,258), r=15, w=15, color=#60ff4040\n";
    QTest::newRow("labels in order, raw line break")
        << "{\"labels\": [{\"id\": \"b\", \"position\": {\"x\": 1, \"y\": 2}, \"size\": 9, "
           "\"font\": \"Serif\", \"text\": \"%1 a\n%2\"}, {\"id\": \"c\", \"white\": false}]}"
        << "\tLabel 'b': (1,2) {} font='Serif':9: '%1 a\n%2'\n"
           "\tLabel 'c': (-1,-1) {not-white} font='':-1: ''\n";
    QTest::newRow("label of wrong types")
        << R"({"labels": [{"id": 1, "position": 3, "size": "9", "font": [], "create": "yes",
        "white": 0, "text": {}}]})"
        << "\tLabel '': (-1,-1) {not-white no-create} font='':0: ''\n";
    QTest::newRow("truncated") << R"({"labels": [ {"id": "x")" << QString();
    QTest::newRow("members of wrong type") << R"({"labels": 1, "circles": {}})" << QString();
}

void TestGui::layout_file()
{
    QFETCH(QString, json);
    QFETCH(QString, printed);
    // A broken file still gives a valid, empty model; the window factory then stops.
    QCOMPARE(QString(Settings::GUI(json)), "GUI settings:\n" + printed);
}

void TestGui::label_look_up()
{
    const Settings::GUI gui(QStringLiteral(R"({"labels": [{"id": "s", "text": "first"},
        {"id": "s", "text": "second"}, {"id": "st", "text": "longer"}]})"));
    QCOMPARE(gui.text(QStringLiteral("s")), QStringLiteral("first"));
    QTest::ignoreMessage(QtWarningMsg, "No matching label with id \"S\" found");
    QCOMPARE(gui.label(QStringLiteral("S")), nullptr);
    QCOMPARE(QString(Settings::make_GUI(QStringLiteral("/nonexistent/settings_GUI.json"))),
             QStringLiteral("GUI settings:\n"));
}

void TestGui::progress_timing_data()
{
    QTest::addColumn<int>("minimum");
    QTest::addColumn<int>("maximum");
    QTest::addColumn<double>("seconds");
    QTest::addColumn<int>("duration");
    QTest::addColumn<int>("interval");

    QTest::newRow("default 10 s") << 0 << 100 << -1.0 << 10000 << 100;
    QTest::newRow("short run, 50 ms ticks") << 0 << 100 << 0.5 << 500 << 50;
    QTest::newRow("huge saturates") << 0 << 100 << 1e12 << INT32_MAX << INT32_MAX / 100;
    QTest::newRow("empty range, one step") << 5 << 5 << 1.0 << 1000 << 1000;
    QTest::newRow("extreme range") << INT_MIN << INT_MAX << 1e12 << INT32_MAX << 50;
}

void TestGui::progress_timing()
{
    QFETCH(int, minimum);
    QFETCH(int, maximum);
    QFETCH(double, seconds);
    QFETCH(int, duration);
    QFETCH(int, interval);

    ProgressBar bar(nullptr);
    bar.setRange(minimum, maximum);
    // A negative time keeps the one before: the default, or the first start's.
    bar.startAutoProgress(QStringLiteral("a"), seconds);
    bar.startAutoProgress(QStringLiteral("b"), -1.0);
    QCOMPARE(bar.duration(), duration);
    QCOMPARE(bar.timer()->interval(), interval);
    QCOMPARE(bar.value(), minimum);
}

void TestGui::progress_finishes_once()
{
    ProgressBar bar(nullptr);
    QSignalSpy finished(&bar, &ProgressBar::finished);
    bar.increase(); // a stray tick before the start has no clock to read
    QCOMPARE(finished.count(), 0);
    bar.startAutoProgress(QStringLiteral("x"), 0.0);
    QVERIFY(finished.wait(5000));
    QCOMPARE(bar.value(), 100);
    QVERIFY(!bar.timer()->isActive());
    QVERIFY(bar.isVisible()); // hiding is the caller's business
}

void TestGui::window_layout()
{
    QCOMPARE(window_->size(), QSize(665, 517));
    QCOMPARE(window_->minimumSize(), window_->maximumSize());
    QCOMPARE(window_->installButton()->geometry(), QRect(207, 417, 250, 40));
    // The step-2 label's generous box reaches over the button; the button must stay clickable.
    const QRect overlap = label_with(window_.get(), QStringLiteral("CENTER DIAL"))->geometry() &
                          window_->installButton()->geometry();
    QVERIFY(!overlap.isEmpty());
    QCOMPARE(window_->childAt(overlap.center()), window_->installButton());
    QCOMPARE(window_->findChildren<Circle*>().value(0)->geometry(), QRect(475, 243, 30, 30));

    // Shown: 2, 4, 5, 7a, 7b, 9, status_noDev, and sim_mode in the simulator only.
    QCOMPARE(window_->findChildren<QLabel*>(QString(), Qt::FindDirectChildrenOnly).size(), 8);
    QCOMPARE(label_with(window_.get(), QStringLiteral("Simulator mode"))->pos(), QPoint(480, 407));
    const std::unique_ptr<MainWindow> real(MainWindow_factory(&settings_, nullptr, false));
    QVERIFY(!label_with(real.get(), QStringLiteral("Simulator mode")));
    QCOMPARE(window_->installButton()->text(), QStringLiteral("4. Click here to start upgrade"));
    QCOMPARE(window_->statusLabel(), label_with(window_.get(), QStringLiteral("'Type-C'")));
    QCOMPARE(window_->statusLabel()->pos(), QPoint(37, 483));
    QCOMPARE(window_->step3Label()->pos(), QPoint(37, 428));

    QLabel* title = label_with(window_.get(), QStringLiteral("Firmware upgrade"));
    QVERIFY(title->text().contains(QLatin1String(">Vega-5 LinkSync</span>")));
    // The version sits right-aligned in a fixed column, tall enough for its four lines.
    QLabel* version = label_with(window_.get(), QStringLiteral("Firmware version:"));
    QVERIFY(version->text().endsWith(QLatin1String("2.3.0</span>")));
    QCOMPARE(version->alignment(), Qt::AlignRight | Qt::AlignTop);
    QCOMPARE(version->geometry(), QRect(400, 32, 228, version->fontMetrics().height() * 4));
    // The revision is the image's own bytes: markup in it shows as text.
    Settings::Settings marked = settings_;
    marked.desired_FW_revision = QStringLiteral("<b>9</b>");
    const std::unique_ptr<MainWindow> shown(MainWindow_factory(&marked, nullptr, false));
    QVERIFY(label_with(shown.get(), QStringLiteral("&lt;b&gt;9&lt;/b&gt;</span>")));
}

void TestGui::window_keys()
{
    // The key alone decides: modifiers are ignored, other keys swallowed.
    QSignalSpy finished(window_.get(), &MainWindow::finished);
    const LogCapture log;
    QTest::keyClick(window_.get(), Qt::Key_A, Qt::ControlModifier);
    QVERIFY(window_->installButton()->isEnabled());
    QTest::keyClick(window_.get(), Qt::Key_A);
    QVERIFY(!window_->installButton()->isEnabled());
    for (Qt::Key key : {Qt::Key_X, Qt::Key_Return, Qt::Key_Escape, Qt::Key_Q})
        QTest::keyClick(window_.get(), key, Qt::ShiftModifier);
    QCOMPARE(finished.count(), 2);
    QCOMPARE(log.lines(),
             QStringList(
                 {"info: MainWindow downloadMode: setEnabled true", "info: Download  enabled",
                  "info: MainWindow downloadMode: setEnabled false", "info: Download  disabled"}));
}

void TestGui::log_dialog()
{
    // 7 is no message type, yet inside the enum's range: 42 would be undefined behaviour.
    for (QtMsgType type : {QtInfoMsg, QtCriticalMsg, QtMsgType(7)})
        log_->dialog()->outputMessage(type, context, QStringLiteral("x"));
    log_->dialog()->outputMessage(QtInfoMsg, context, QStringLiteral("<b>Connected</b> to %1."));
    QCOMPARE(log_->dialog()->textBrowser()->toPlainText(),
             QStringLiteral("x\nCRITICAL: x\nConnected to %1."));

    window_->move(100, 120);
    log_->toggle_visibility(window_.get());
    const QRect main = window_->geometry();
    QCOMPARE(log_->dialog()->geometry(), QRect(main.right(), main.top(), 600, 400));
    QTest::keyClick(log_->dialog(), Qt::Key_Escape); // must not close the log
    QVERIFY(log_->dialog()->isVisible());
    log_->toggle_visibility(window_.get());
    QVERIFY(!log_->dialog()->isVisible());
}

void TestGui::log_source()
{
    // Library code logging through the handler, built like the shipped program: its line on
    // standard error names the source file, a line and the function.
    QTemporaryFile err;
    QVERIFY(err.open());
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(err.handle(), STDERR_FILENO);
    logWindow = log_.get();
    const QtMessageHandler previous = qInstallMessageHandler(logWindowMessageHandler);
    settings_.gui.label(QStringLiteral("missing"));
    qInstallMessageHandler(previous);
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    const QString line = QString::fromLocal8Bit(file_bytes(err.fileName()));
    const QRegularExpression expected(
        R"(^Warning: No matching label with id "missing" found )"
        R"(\(/\S+/gui/settings\.cpp:[1-9]\d*, .*Settings::GUI::label\(.*\)\n$)");
    QVERIFY2(expected.match(line).hasMatch(), qPrintable(line));
}

void TestGui::log_save_data()
{
    QTest::addColumn<QString>("name");      // in a fresh folder
    QTest::addColumn<QByteArray>("before"); // the file's contents before; empty: none
    QTest::addColumn<int>("limit"); // folder read-only (-1), writes beyond this size fail, or 0
    QTest::addColumn<QByteArray>("after"); // empty: not saved, the error box shown

    const QByteArray log("first\nWarning: second");
    QTest::newRow("new file") << "logfile.txt" << QByteArray() << 0 << log;
    QTest::newRow("over a writable file, folder read-only")
        << "logfile.txt" << QByteArray("old") << -1 << log;
    QTest::newRow("folder missing") << "missing/logfile.txt" << QByteArray() << 0 << QByteArray();
    QTest::newRow("write fails half-way")
        << "logfile.txt" << QByteArray("old") << 8 << QByteArray();
}

void TestGui::log_save()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, before);
    QFETCH(int, limit);
    QFETCH(QByteArray, after);
    QTemporaryDir dir;
    const QString path = dir.filePath(name);
    QFile file(path);
    QVERIFY(before.isEmpty() || (file.open(QIODevice::WriteOnly) && file.write(before) > 0));
    file.close();
    LogWindowDialog* dialog = log_->dialog();
    dialog->outputMessage(QtInfoMsg, context, QStringLiteral("<b>first</b>"));
    dialog->outputMessage(QtWarningMsg, context, QStringLiteral("second"));

    QString shown;
    QTimer closer;
    connect(&closer, &QTimer::timeout, this, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            shown = box->windowTitle() + '|' + box->text();
            box->button(QMessageBox::Ok)->click();
        }
    });
    closer.start(10);
    bool ok = false;
    {
        const SaveHindrance hindrance(dir.path(), limit);
        ok = dialog->saveTo(path);
    }
    QCOMPARE(ok, !after.isEmpty());
    QCOMPARE(file_bytes(path), after.isEmpty() ? before : after); // never half a log
    if (!ok)
        QCOMPARE(shown, QStringLiteral("Error|<nobr>File '%1'<br/>cannot be opened for writing."
                                       "<br/><br/>The log output could <b>not</b> be saved!</nobr>")
                            .arg(path));
    else
        QVERIFY(shown.isEmpty());
}

void TestGui::fatal_data()
{
    QTest::addColumn<QByteArray>("written");

    // A worker's message keeps its context after the worker's scope has ended; the fatal line
    // is written before the end.
    QTest::newRow("log window") << QByteArray(
        "Warning: from the worker (sm_a.cpp:123, void SM_A::scan())\n"
        "Fatal: gone (worker.cpp:77, void SM_A::run())\n");
    QTest::newRow("layout without status text")
        << QByteArray("No message with id 'status_noDev' found, aborting");
}

// Paths that end the process run in a child copy of this test.
void TestGui::fatal()
{
    QFETCH(QByteArray, written);
    if (qEnvironmentVariableIsSet("LUMAXIS_FATAL_CHILD")) {
        if (QTest::currentDataTag() == QLatin1String("layout without status text")) {
            const Settings::Settings empty;
            MainWindow_factory(&empty, nullptr, false);
        }
        logWindow = log_.get();
        const std::unique_ptr<QThread> worker(QThread::create([] {
            QByteArray file("sm_a.cpp");
            const QMessageLogContext local(file.constData(), 123, "void SM_A::scan()", "default");
            logWindowMessageHandler(QtWarningMsg, local, QStringLiteral("from the worker"));
            file.fill('X');
        }));
        worker->start();
        QVERIFY(worker->wait(5000));
        QTRY_VERIFY(!log_->dialog()->textBrowser()->toPlainText().isEmpty());
        log_->dialog()->outputMessage(QtFatalMsg, context, QStringLiteral("gone"));
        std::fprintf(stderr, "survived\n");
        return;
    }
    QProcess child;
    qputenv("QTEST_DISABLE_STACK_DUMP", "1");
    qputenv("LUMAXIS_FATAL_CHILD", "1");
    child.start(QCoreApplication::applicationFilePath(),
                {QStringLiteral("fatal:") + QTest::currentDataTag()});
    qunsetenv("LUMAXIS_FATAL_CHILD");
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(child.exitStatus(), QProcess::CrashExit);
    const QByteArray out = child.readAllStandardOutput() + child.readAllStandardError();
    QVERIFY2(out.contains(written) && !out.contains("survived"), out.constData());
}

QTEST_MAIN(TestGui)
#include "tst_gui.moc"
