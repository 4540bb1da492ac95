// Log window: dialog and standard-error formats, the handler, worker-thread delivery, save.
#include <cstdio>
#include <unistd.h>

#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTextBrowser>
#include <QThread>
#include <QtTest>

#include "gui/logwindow.h"

namespace {

// Sends file descriptor 2 to a temporary file while it lives.
class StderrCapture
{
public:
    StderrCapture()
    {
        file_.open();
        std::fflush(stderr);
        saved_ = dup(2);
        dup2(file_.handle(), 2);
    }
    ~StderrCapture() { restore(); }

    QByteArray take()
    {
        restore();
        file_.seek(0);
        return file_.readAll();
    }

private:
    void restore()
    {
        if (saved_ < 0)
            return;
        std::fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
        saved_ = -1;
    }

    QTemporaryFile file_;
    int saved_ = -1;
};

const QMessageLogContext context("worker.cpp", 77, "void SM_A::run()", "default");

} // namespace

class TestLogWindow : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void formats_data();
    void formats();
    void fatalAbortsAfterTheLine();
    void handlerNeedsTheController();
    void workerMessagesKeepTheirContext();
    void saveWritesThePlainText();
    void saveFailureShowsErrorBox();
    void toggleAttachesToTheMainWindow();
    void keysAndButtons();

private:
    LogWindow* controller_ = nullptr;
    LogWindowDialog* dialog_ = nullptr;
};

void TestLogWindow::init()
{
    controller_ = new LogWindow;
    dialog_ = controller_->dialog();
}

void TestLogWindow::cleanup()
{
    delete controller_;
    QVERIFY(!logWindow);
}

void TestLogWindow::formats_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("shown");
    QTest::addColumn<QByteArray>("written");

    QTest::newRow("debug") << int(QtDebugMsg) << "x"
                           << "Debug: x"
                           << QByteArray("Debug: x (worker.cpp:77, void SM_A::run())\n");
    QTest::newRow("info has no prefix")
        << int(QtInfoMsg) << "x"
        << "x" << QByteArray("Info: x (worker.cpp:77, void SM_A::run())\n");
    QTest::newRow("warning") << int(QtWarningMsg) << "x"
                             << "Warning: x"
                             << QByteArray("Warning: x (worker.cpp:77, void SM_A::run())\n");
    QTest::newRow("critical") << int(QtCriticalMsg) << "x"
                              << "CRITICAL: x"
                              << QByteArray("Critical: x (worker.cpp:77, void SM_A::run())\n");
    QTest::newRow("rich text is rendered")
        << int(QtInfoMsg) << "<span style=\"color:#000000\">Connected to an %1.</span>"
        << "Connected to an %1."
        << QByteArray("Info: <span style=\"color:#000000\">Connected to an %1.</span> "
                      "(worker.cpp:77, void SM_A::run())\n");
    QTest::newRow("unknown type is ignored") << 42 << "x"
                                             << "" << QByteArray();
}

void TestLogWindow::formats()
{
    QFETCH(int, type);
    QFETCH(QString, message);
    QFETCH(QString, shown);
    QFETCH(QByteArray, written);

    StderrCapture err;
    dialog_->outputMessage(QtMsgType(type), context, message);
    QCOMPARE(err.take(), written);
    QCOMPARE(dialog_->textBrowser()->toPlainText(), shown);
}

void TestLogWindow::fatalAbortsAfterTheLine()
{
    if (qEnvironmentVariableIsSet("LUMAXIS_FATAL_CHILD")) {
        dialog_->outputMessage(QtFatalMsg, context, QStringLiteral("gone"));
        std::fprintf(stderr, "survived\n");
        return;
    }
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("LUMAXIS_FATAL_CHILD"), QStringLiteral("1"));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("QTEST_DISABLE_STACK_DUMP"), QStringLiteral("1"));
    env.insert(QStringLiteral("QTEST_DISABLE_CORE_DUMP"), QStringLiteral("1"));
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(),
                {QStringLiteral("fatalAbortsAfterTheLine")});
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(child.exitStatus(), QProcess::CrashExit);
    const QByteArray err = child.readAllStandardError();
    QVERIFY2(err.contains("Fatal: gone (worker.cpp:77, void SM_A::run())\n"), err.constData());
    QVERIFY(!err.contains("survived"));
}

void TestLogWindow::handlerNeedsTheController()
{
    StderrCapture err;
    const QtMessageHandler previous = qInstallMessageHandler(logWindowMessageHandler);
    qInfo("dropped"); // no controller yet: lost, not even on standard error
    logWindow = controller_;
    qInfo("kept");
    qInstallMessageHandler(previous);
    logWindow = nullptr;

    QCOMPARE(dialog_->textBrowser()->toPlainText(), QStringLiteral("kept"));
    QVERIFY(err.take().startsWith("Info: kept ("));
}

void TestLogWindow::workerMessagesKeepTheirContext()
{
    logWindow = controller_;
    StderrCapture err;
    QThread* worker = QThread::create([] {
        // A context that dies with this scope, as a real one does after the log call returns.
        QByteArray file("sm_a.cpp");
        const QMessageLogContext local(file.constData(), 123, "void SM_A::scan()", "default");
        logWindowMessageHandler(QtWarningMsg, local, QStringLiteral("from the worker"));
        file.fill('X');
    });
    worker->start();
    QVERIFY(worker->wait(5000));
    delete worker;
    QCOMPARE(dialog_->textBrowser()->toPlainText(), QString()); // queued, not yet shown
    QTRY_COMPARE(dialog_->textBrowser()->toPlainText(), QStringLiteral("Warning: from the worker"));
    QCOMPARE(err.take(),
             QByteArray("Warning: from the worker (sm_a.cpp:123, void SM_A::scan())\n"));
    logWindow = nullptr;
}

void TestLogWindow::saveWritesThePlainText()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("logfile.txt"));
    QFile old(path);
    QVERIFY(old.open(QIODevice::WriteOnly));
    old.write(QByteArray(1000, 'o'));
    old.close();

    StderrCapture err;
    dialog_->outputMessage(QtInfoMsg, context, QStringLiteral("<b>first</b>"));
    dialog_->outputMessage(QtWarningMsg, context, QStringLiteral("second"));
    QVERIFY(dialog_->saveTo(path));

    QFile saved(path);
    QVERIFY(saved.open(QIODevice::ReadOnly));
    QCOMPARE(saved.readAll(), QByteArray("first\nWarning: second"));
}

void TestLogWindow::saveFailureShowsErrorBox()
{
    StderrCapture err;
    dialog_->outputMessage(QtInfoMsg, context, QStringLiteral("keep me"));
    const QString path = QStringLiteral("/nonexistent-dir/logfile.txt");

    QString title;
    QString text;
    QTimer::singleShot(0, this, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        QVERIFY(box);
        title = box->windowTitle();
        text = box->text();
        QCOMPARE(box->buttons().size(), 1);
        box->button(QMessageBox::Ok)->click();
    });
    QVERIFY(!dialog_->saveTo(path));
    QCOMPARE(title, QStringLiteral("Error"));
    QCOMPARE(text, QStringLiteral("<nobr>File '/nonexistent-dir/logfile.txt'<br/>cannot be opened "
                                  "for writing.<br/><br/>The log output could <b>not</b> be "
                                  "saved!</nobr>"));
    QCOMPARE(dialog_->textBrowser()->toPlainText(), QStringLiteral("keep me"));
    QVERIFY(!QFile::exists(path));
}

void TestLogWindow::toggleAttachesToTheMainWindow()
{
    QMainWindow main;
    main.setGeometry(100, 120, 300, 200);
    main.show();

    controller_->toggle_visibility(&main);
    QVERIFY(dialog_->isVisible());
    QCOMPARE(dialog_->geometry(), QRect(399, 120, 600, 400));
    controller_->toggle_visibility(&main);
    QVERIFY(!dialog_->isVisible());

    dialog_->move(5, 5); // moved by the user while hidden: the next show re-attaches it
    controller_->toggle_visibility(&main);
    QCOMPARE(dialog_->geometry().topLeft(), QPoint(399, 120));

    controller_->toggle_visibility(nullptr);
    QVERIFY(!dialog_->isVisible());
    controller_->toggle_visibility(nullptr);
    QVERIFY(dialog_->isVisible());
}

void TestLogWindow::keysAndButtons()
{
    StderrCapture err;
    dialog_->outputMessage(QtInfoMsg, context, QStringLiteral("line"));
    controller_->toggle_visibility(nullptr);
    QTest::keyClick(dialog_, Qt::Key_Escape);
    QTest::keyClick(dialog_, Qt::Key_Return);
    QVERIFY(dialog_->isVisible());

    dialog_->close();
    QVERIFY(!dialog_->isVisible());
    QCOMPARE(dialog_->textBrowser()->toPlainText(), QStringLiteral("line"));

    const QList<QPushButton*> buttons = dialog_->findChildren<QPushButton*>();
    QCOMPARE(buttons.size(), 3);
    controller_->toggle_visibility(nullptr);
    buttons[2]->click(); // "hide log"
    QVERIFY(!dialog_->isVisible());
    buttons[0]->click(); // "clear"
    QCOMPARE(dialog_->textBrowser()->toPlainText(), QString());
}

QTEST_MAIN(TestLogWindow)
#include "tst_logwindow.moc"
