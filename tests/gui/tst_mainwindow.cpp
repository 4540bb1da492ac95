// Main window: geometry, labels, install button, download mode, keys and the factory's check.
#include <QLabel>
#include <QProcess>
#include <QScreen>
#include <QSignalSpy>
#include <QtTest>

#include "gui/circle.h"
#include "gui/installbutton.h"
#include "gui/mainwindow.h"
#include "gui/progressbar.h"
#include "gui/settings.h"
#include "support/fonts.h"

namespace {

QStringList* captured = nullptr;

void capture(QtMsgType, const QMessageLogContext&, const QString& message)
{
    if (captured)
        captured->append(message);
}

// Collects the log lines written while it lives.
struct LogCapture
{
    QStringList lines;
    QtMessageHandler previous;
    LogCapture() : previous(qInstallMessageHandler(capture)) { captured = &lines; }
    ~LogCapture()
    {
        captured = nullptr;
        qInstallMessageHandler(previous);
    }
};

Settings::Settings compiled_in_settings()
{
    Settings::Settings s;
    s.gui = Settings::make_GUI(QStringLiteral(":resources/settings_GUI.json"));
    s.desired_FW_name = QStringLiteral("Vega-5 LinkSync");
    s.desired_FW_type = Device::Kestrel;
    s.desired_FW_revision = QStringLiteral("2.3.0");
    return s;
}

QLabel* label_with(MainWindow* window, const QString& part)
{
    for (QLabel* label : window->findChildren<QLabel*>()) {
        if (label->text().contains(part))
            return label;
    }
    return nullptr;
}

} // namespace

class TestMainWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void geometryAtScaleOne();
    void labels_data();
    void labels();
    void labelStyleAndPlacement();
    void keys_data();
    void keys();
    void downloadModeSignalsAndLog();
    void missingStatusTextIsFatal();

private:
    Settings::Settings settings_;
    std::unique_ptr<MainWindow> window_;
    QStringList log_;
};

void TestMainWindow::initTestCase()
{
    // Labels are sized by font metrics: measure with the fonts the program uses.
    support::setup_fonts();
    QCOMPARE(support::lumaxis_font_name, QStringLiteral("Lumaxis Sans"));
}

void TestMainWindow::init()
{
    settings_ = compiled_in_settings();
    LogCapture log;
    window_.reset(MainWindow_factory(&settings_, nullptr, true));
    log_ = log.lines;
}

void TestMainWindow::cleanup()
{
    window_.reset();
}

void TestMainWindow::geometryAtScaleOne()
{
    QCOMPARE(window_->scale(), 1.0);
    const QRect screen = QGuiApplication::primaryScreen()->geometry();
    QCOMPARE(window_->size(), QSize(665, 517));
    QCOMPARE(window_->minimumSize(), window_->maximumSize());
    QCOMPARE(window_->geometry().top(), screen.top() + 50);
    // Centred; the offscreen platform's frame margins may shift it by a pixel.
    QVERIFY(qAbs(window_->geometry().center().x() - screen.center().x()) <= 1);
    QCOMPARE(window_->installButton()->geometry(), QRect(207, 417, 250, 40));
    QCOMPARE(window_->progressBar()->geometry(), QRect(207, 417, 250, 40));
    // The step-2 label's generous box reaches over the button's top edge; the button stays on top.
    const QRect overlap = label_with(window_.get(), QStringLiteral("CENTER DIAL"))->geometry() &
                          window_->installButton()->geometry();
    QVERIFY(!overlap.isEmpty());
    QCOMPARE(window_->childAt(overlap.center()), window_->installButton());
    QVERIFY(!window_->progressBar()->isVisible());
    QVERIFY(window_->isVisible());
    QVERIFY(window_->styleSheet().contains(QLatin1String("://resources/background.jpg")));
    const QList<Circle*> circles = window_->findChildren<Circle*>();
    QCOMPARE(circles.size(), 2);
    QCOMPARE(circles[0]->geometry(), QRect(475, 243, 30, 30));
}

void TestMainWindow::labels_data()
{
    QTest::addColumn<bool>("simulator");
    QTest::newRow("real device") << false;
    QTest::newRow("simulator") << true;
}

void TestMainWindow::labels()
{
    QFETCH(bool, simulator);
    window_.reset(MainWindow_factory(&settings_, nullptr, simulator));

    QLabel* sim = label_with(window_.get(), QStringLiteral("Simulator mode"));
    QCOMPARE(sim != nullptr, simulator);
    if (sim)
        QCOMPARE(sim->pos(), QPoint(480, 407));
    QVERIFY(!label_with(window_.get(), QStringLiteral("Debug mode")));
    // Shown labels: 2, 4, 5, 7a, 7b, 9, status_noDev, and "sim_mode" with the simulator.
    QCOMPARE(window_->findChildren<QLabel*>(QString(), Qt::FindDirectChildrenOnly).size(),
             simulator ? 8 : 7);

    QCOMPARE(window_->installButton()->text(), QStringLiteral("4. Click here to start upgrade"));
    QCOMPARE(window_->installButton()->objectName(), QStringLiteral("GUI_8"));
    QVERIFY(!window_->installButton()->isEnabled());
    QCOMPARE(window_->statusLabel(), label_with(window_.get(), QStringLiteral("'Type-C'")));
    QCOMPARE(window_->statusLabel()->pos(), QPoint(37, 483));
    QCOMPARE(window_->step3Label()->text(), QStringLiteral("3. Connect USB cable"));
    QCOMPARE(window_->step3Label()->pos(), QPoint(37, 428));

    QLabel* title = label_with(window_.get(), QStringLiteral("Firmware upgrade"));
    QVERIFY(title->text().contains(QLatin1String(">Vega-5 LinkSync</span>")));
    QVERIFY(!title->text().contains(QLatin1String("%1")));
    QCOMPARE(title->alignment(), Qt::AlignLeft | Qt::AlignTop);
    QLabel* version = label_with(window_.get(), QStringLiteral("Firmware version:"));
    QVERIFY(version->text().endsWith(QLatin1String("2.3.0</span>")));
    QCOMPARE(version->alignment(), Qt::AlignRight | Qt::AlignTop);
    QCOMPARE(version->geometry(), QRect(400, 32, 228, version->fontMetrics().height() * 4));
}

void TestMainWindow::labelStyleAndPlacement()
{
    Settings::Settings custom;
    custom.gui = Settings::GUI(QStringLiteral(R"({"labels": [
        {"id": "status_noDev", "text": "no unit", "white": false, "size": 10},
        {"id": "x", "text": "two\nlines", "position": {"x": 0, "y": 40}}]})"));
    window_.reset(MainWindow_factory(&custom, nullptr, false));

    QLabel* status = window_->statusLabel();
    QCOMPARE(status->pos(), QPoint(0, 0));
    QVERIFY(status->styleSheet().contains(QLatin1String("color : black;")));
    QVERIFY(status->font().pixelSize() > 0);
    QLabel* other = label_with(window_.get(), QStringLiteral("two"));
    QCOMPARE(other->pos(), QPoint(0, 0)); // x at 0 keeps the origin
    QCOMPARE(other->height(), 2 * other->fontMetrics().height());
    QVERIFY(other->styleSheet().contains(QLatin1String("rgba(175,175,175,100%)")));
    QVERIFY(!window_->step3Label());
}

void TestMainWindow::keys_data()
{
    QTest::addColumn<QList<int>>("keys");
    QTest::addColumn<int>("modifiers");
    QTest::addColumn<QStringList>("signals_");
    QTest::addColumn<bool>("mode");

    QTest::newRow("A") << QList<int>{Qt::Key_A} << 0 << QStringList{"mode"} << true;
    QTest::newRow("A twice") << QList<int>{Qt::Key_A, Qt::Key_A} << 0 << QStringList{"mode", "mode"}
                             << false;
    QTest::newRow("Escape") << QList<int>{Qt::Key_Escape} << 0 << QStringList{"finished"} << false;
    QTest::newRow("Shift+Q then Ctrl+A: modifiers ignored")
        << QList<int>{Qt::Key_Q, Qt::Key_A} << int(Qt::ShiftModifier | Qt::ControlModifier)
        << QStringList{"finished", "mode"} << true;
    QTest::newRow("other keys") << QList<int>{Qt::Key_X, Qt::Key_Return} << 0 << QStringList{}
                                << false;
}

void TestMainWindow::keys()
{
    QFETCH(QList<int>, keys);
    QFETCH(int, modifiers);
    QFETCH(QStringList, signals_);
    QFETCH(bool, mode);

    QStringList seen;
    connect(window_.get(), &MainWindow::finished, this, [&] { seen << "finished"; });
    connect(window_.get(), &MainWindow::downloadModeChanged, this, [&] { seen << "mode"; });
    for (int key : keys)
        QTest::keyClick(window_.get(), Qt::Key(key), Qt::KeyboardModifiers(modifiers));
    QCOMPARE(seen, signals_);
    QCOMPARE(window_->downloadMode(), mode);
    QCOMPARE(window_->installButton()->isEnabled(), mode);
}

void TestMainWindow::downloadModeSignalsAndLog()
{
    QCOMPARE(log_.filter(QStringLiteral("Overriding width to")),
             QStringList{QStringLiteral("Overriding width to  228 for text: \"<span "
                                        "style=\\\"font-size:20pt\\\">\\nFirmware "
                                        "version:\\n<br>\\n%1</span>\"")});
    QCOMPARE(log_.filter(QStringLiteral("ownload")),
             QStringList({"MainWindow downloadMode: setEnabled false", "Download  disabled"}));

    QSignalSpy changed(window_.get(), &MainWindow::downloadModeChanged);
    LogCapture log;
    window_->enableDownload();
    window_->enableDownload();
    window_->disableDownload();
    window_->toggleDownload();
    QCOMPARE(changed.count(), 4);
    QCOMPARE(log.lines,
             QStringList({"MainWindow downloadMode: setEnabled true", "Download  enabled",
                          "MainWindow downloadMode: setEnabled true", "Download  enabled",
                          "MainWindow downloadMode: setEnabled false", "Download  disabled",
                          "MainWindow downloadMode: setEnabled true", "Download  enabled"}));
    QVERIFY(window_->installButton()->isEnabled());
}

void TestMainWindow::missingStatusTextIsFatal()
{
    if (qEnvironmentVariableIsSet("LUMAXIS_FATAL_CHILD")) {
        Settings::Settings empty;
        empty.gui = Settings::GUI(QStringLiteral("not json"));
        MainWindow_factory(&empty, nullptr, false);
        return; // not reached
    }
    // qFatal ends the process, so the check runs in a child copy of this test.
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("LUMAXIS_FATAL_CHILD"), QStringLiteral("1"));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("QTEST_DISABLE_STACK_DUMP"), QStringLiteral("1"));
    env.insert(QStringLiteral("QTEST_DISABLE_CORE_DUMP"), QStringLiteral("1"));
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(),
                {QStringLiteral("missingStatusTextIsFatal")});
    QVERIFY(child.waitForFinished(30000));
    QVERIFY(child.exitStatus() == QProcess::CrashExit || child.exitCode() != 0);
    // The test library logs the fatal message on standard output.
    const QByteArray err = child.readAllStandardOutput() + child.readAllStandardError();
    QVERIFY2(err.contains("No message with id 'status_noDev' found, aborting"), err.constData());
}

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
