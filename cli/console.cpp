#include "cli/console.h"

#include <csignal>
#include <cstdio>
#include <sys/signalfd.h>
#include <unistd.h>

#include <QDebug>
#include <QSocketNotifier>

#include "dfu/upgraderules.h"
#include "support/terminatingsignals.h"

namespace Cli {

namespace {

constexpr int bar_width = 30;

QString stage_name(DFU::Phase stage)
{
    switch (stage) {
    case DFU::Phase::Erasing:
        return QStringLiteral("Erasing");
    case DFU::Phase::Writing:
        return QStringLiteral("Writing");
    case DFU::Phase::Restarting:
        return QStringLiteral("Restarting");
    case DFU::Phase::Verifying:
        break;
    }
    return QStringLiteral("Verifying");
}

void write_err(const QString& text)
{
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stderr);
    std::fflush(stderr);
}

} // namespace

Console::Console(bool terminal) : terminal(terminal) {}

void Console::end_bar()
{
    if (bar_open)
        write_err(QStringLiteral("\n"));
    bar_open = false;
}

void Console::step(const QString& name)
{
    QMutexLocker lock(&mutex);
    end_bar();
    current_step = name;
    last_percent = -1;
    write_err(name + QStringLiteral("...\n"));
}

void Console::end_line()
{
    QMutexLocker lock(&mutex);
    end_bar();
}

void Console::say(const QString& text)
{
    QMutexLocker lock(&mutex);
    end_bar();
    write_err(text + QLatin1Char('\n'));
}

void Console::draw(const QString& name, double fraction)
{
    QMutexLocker lock(&mutex);
    if (name != current_step) {
        end_bar();
        current_step = name;
        last_percent = -1;
        if (!terminal)
            write_err(name + QStringLiteral("...\n"));
    }
    const int percent = int(fraction * 100);
    if (!terminal || percent == last_percent)
        return;
    last_percent = percent;
    const int filled = int(fraction * bar_width);
    write_err(QStringLiteral("\r%1 [%2%3] %4%")
                  .arg(name.leftJustified(10))
                  .arg(QString(filled, QLatin1Char('#')))
                  .arg(QString(bar_width - filled, QLatin1Char('.')))
                  .arg(percent, 3));
    bar_open = true;
}

DFU::ProgressHandler Console::progress(qint64 total)
{
    return [this, total](const DFU::ToolProgress& record) {
        draw(stage_name(record.stage), Upgrade::fraction(record, total));
    };
}

void block_termination_signals()
{
    const sigset_t set = support::terminating_signal_set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void on_termination_signals(QObject* context, std::function<void(int)> on_signal)
{
    const sigset_t set = support::terminating_signal_set();
    const int fd = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0) {
        qWarning() << "No signal handling: signalfd failed";
        return;
    }
    auto* notifier = new QSocketNotifier(fd, QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [fd, on_signal] {
        signalfd_siginfo info{};
        while (::read(fd, &info, sizeof info) == ssize_t(sizeof info))
            on_signal(int(info.ssi_signo));
    });
}

} // namespace Cli
