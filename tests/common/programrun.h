// Runs the whole program (GUI_init, event loop, GUI_cleanup) in a child process of the test and
// drives its window from there: a test that links lumaxis_app and a tool bundle uses
// PROGRAMRUN_TEST_MAIN instead of QTEST_MAIN and starts itself as the program with ProgramRun.
#pragma once

#include <csignal>
#include <limits>
#include <unistd.h>

#include <QApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QKeySequence>
#include <QLabel>
#include <QProcess>
#include <QRegularExpression>
#include <QSocketNotifier>
#include <QTest>

#include "app/shell.h"
#include "gui/installbutton.h"
#include "gui/mainwindow.h"
#include "gui/progressbar.h"

namespace programrun {

inline const char* const child_variable = "LUMAXIS_PROGRAMRUN_CHILD";

// One command on the child's standard input: "click" (Install, by mouse); "key Escape", "key Q",
// "key Ctrl+L" (any QKeySequence text, typed into the window); "close" (the window, as the window
// system does); "state" (logs `programrun: state visible=1 install=0 bar="caption"|hidden
// status="text"`). Each is answered by the log line "programrun: done <command> in <n> ms"
// once it has returned.
inline void run_command(const QString& command)
{
    QElapsedTimer took;
    took.start();
    if (command == QLatin1String("click")) {
        QTest::mouseClick(mainWindow->installButton(), Qt::LeftButton);
    } else if (command.startsWith(QLatin1String("key "))) {
        const QKeyCombination key = QKeySequence::fromString(command.mid(4))[0];
        QTest::keyClick(mainWindow->windowHandle(), key.key(), key.keyboardModifiers());
    } else if (command == QLatin1String("close")) {
        mainWindow->close();
    } else if (command == QLatin1String("state")) {
        const ProgressBar* bar = mainWindow->progressBar();
        QDebug line = qInfo().nospace();
        line << "programrun: state visible=" << int(mainWindow->isVisible())
             << " install=" << int(mainWindow->installButton()->isEnabled()) << " bar=";
        if (bar->isVisible())
            line << bar->text();
        else
            line << "hidden";
        line << " status=" << mainWindow->statusLabel()->text();
    }
    qInfo().noquote() << "programrun: done" << command << "in" << took.elapsed() << "ms";
}

// The child: main() of app/main.cpp plus the command reader.
inline int child_main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    GUI_init();
    QByteArray pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char chunk[256];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            input.setEnabled(false);
            return;
        }
        pending.append(chunk, n);
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0; pending.remove(0, end + 1))
            run_command(QString::fromUtf8(pending.left(end)));
    });
    const int result = app.exec();
    return GUI_cleanup(result);
}

// The test's side: starts the program, reads its standard output and error as one text.
class ProgramRun final
{
    Q_DISABLE_COPY_MOVE(ProgramRun)

public:
    ProgramRun() { process_.setProcessChannelMode(QProcess::MergedChannels); }
    // A run left behind by a failed check is closed, so it removes its temporary folder.
    ~ProgramRun()
    {
        if (process_.state() == QProcess::NotRunning)
            return;
        process_.write("close\n");
        if (!process_.waitForFinished(5000)) {
            process_.kill();
            process_.waitForFinished(5000);
        }
    }

    // Starts this test executable as the program with the given options ("-s", "-l").
    bool start(const QStringList& arguments,
               QProcessEnvironment environment = QProcessEnvironment::systemEnvironment())
    {
        environment.insert(QString::fromLatin1(child_variable), QStringLiteral("1"));
        process_.setProcessEnvironment(environment);
        // A process group of its own, as a shell gives a job, so that a test can signal it whole.
        process_.setChildProcessModifier([] { ::setpgid(0, 0); });
        process_.start(QCoreApplication::applicationFilePath(), arguments);
        return process_.waitForStarted(10000);
    }

    // Waits until `text` appears after the previous match; false if the time runs out or the
    // program ends first. Successive calls so check that lines come in order.
    bool waitFor(const QString& text, int timeout_ms = 30000)
    {
        return waitForMatch(QRegularExpression(QRegularExpression::escape(text)), timeout_ms)
            .hasMatch();
    }

    // As waitFor, for the next match of a pattern; no match if the time runs out.
    QRegularExpressionMatch waitForMatch(const QRegularExpression& pattern, int timeout_ms = 30000)
    {
        const QRegularExpressionMatch match = find(pattern, cursor_, timeout_ms);
        if (match.hasMatch())
            cursor_ = match.capturedEnd();
        return match;
    }

    // Sends one command (see run_command) and waits for its answer; the time it took in the
    // program in milliseconds, or -1. Leaves the position of waitFor alone.
    int send(const QString& command, int timeout_ms = 10000)
    {
        const qsizetype from = output_.size();
        process_.write(command.toUtf8() + '\n');
        process_.waitForBytesWritten(timeout_ms);
        const QRegularExpression answer(
            QStringLiteral("programrun: done %1 in (\\d+) ").arg(QRegularExpression::escape(command)));
        const QRegularExpressionMatch match = find(answer, from, timeout_ms);
        return match.hasMatch() ? match.captured(1).toInt() : -1;
    }

    // One step of a test's script: ">command" for the window, answered within max_send_ms;
    // "!text" that must not appear within absent_ms; "kill TERM" (INT, HUP) sends the program that
    // signal ("kill -INT" its whole process group); otherwise a text that must come next within
    // wait_ms. Returns what went wrong, or an empty text.
    QString step(const QString& step, int wait_ms = 30000, int absent_ms = 2000,
                 int max_send_ms = std::numeric_limits<int>::max())
    {
        bool ok = true;
        if (step.startsWith(QLatin1String("kill "))) {
            // "kill -INT": to the program's whole process group, as Ctrl+C in its terminal.
            const bool group = step.at(5) == QLatin1Char('-');
            const QString name = step.mid(group ? 6 : 5);
            const int number = name == QLatin1String("TERM") ? SIGTERM
                               : name == QLatin1String("INT") ? SIGINT
                                                              : SIGHUP;
            const pid_t pid = pid_t(process_.processId());
            ok = ::kill(group ? -pid : pid, number) == 0;
        } else if (step.startsWith(QLatin1Char('>'))) {
            const int took = send(step.mid(1));
            ok = took >= 0 && took < max_send_ms;
        } else if (step.startsWith(QLatin1Char('!'))) {
            ok = !waitFor(step.mid(1), absent_ms);
        } else if (!waitFor(step, wait_ms)) {
            return step + QStringLiteral("\n--- not after:\n") + output_;
        }
        return ok ? QString() : step;
    }

    // Waits for the end; the exit status, or -1 after a crash or when the time ran out.
    int finish(int timeout_ms = 30000)
    {
        if (!process_.waitForFinished(timeout_ms))
            return -1;
        output_ += QString::fromLocal8Bit(process_.readAll());
        return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
    }

    // Everything the program wrote so far, standard output and error interleaved.
    const QString& output() const { return output_; }

    // The folder the program extracted its tool into, as its first run of the tool shows it.
    QString extracted_folder() const
    {
        static const QRegularExpression tool(QStringLiteral("\"([^\"]*)/dfu-util\""));
        return tool.match(output_).captured(1);
    }

private:
    QRegularExpressionMatch find(const QRegularExpression& pattern, qsizetype from, int timeout_ms)
    {
        QDeadlineTimer deadline(timeout_ms);
        for (;;) {
            const bool ended = process_.state() == QProcess::NotRunning; // before the last read
            output_ += QString::fromLocal8Bit(process_.readAll());
            const QRegularExpressionMatch match = pattern.match(output_, from);
            if (match.hasMatch() || ended || deadline.hasExpired())
                return match;
            process_.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
        }
    }

    QProcess process_;
    QString output_;
    qsizetype cursor_ = 0;
};

} // namespace programrun

// main() of a test that runs the program: the child runs it, the parent runs the test object.
#define PROGRAMRUN_TEST_MAIN(TestObject)                                                           \
    int main(int argc, char* argv[])                                                               \
    {                                                                                              \
        if (qEnvironmentVariableIsSet(programrun::child_variable))                                 \
            return programrun::child_main(argc, argv);                                             \
        QCoreApplication app(argc, argv);                                                          \
        TestObject test;                                                                           \
        return QTest::qExec(&test, argc, argv);                                                    \
    }
