#include "app/termination.h"

#include <QtGlobal>
#if defined(Q_OS_UNIX)
#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <QDebug>
#include <QSocketNotifier>
#include <QWidget>

#include "support/terminatingsignals.h"

#if defined(Q_OS_UNIX)

namespace {

// The handler only writes the signal's number into this pair; the event loop does the rest.
int signal_pipe[2] = {-1, -1};

void on_signal(int number)
{
    const char byte = char(number);
    const int saved = errno;
    [[maybe_unused]] const ssize_t written = ::write(signal_pipe[1], &byte, 1);
    errno = saved;
}

} // namespace

void close_on_termination_signals(QWidget* window)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signal_pipe) != 0) {
        qWarning() << "No signal handling: socketpair failed";
        return;
    }
    auto* notifier = new QSocketNotifier(signal_pipe[0], QSocketNotifier::Read, window);
    QObject::connect(notifier, &QSocketNotifier::activated, window, [window] {
        char byte = 0;
        if (::read(signal_pipe[0], &byte, 1) == 1)
            qInfo() << "Received signal" << int(byte) << "- closing the window";
        window->close();
    });
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : support::terminating_signals)
        ::sigaction(number, &action, nullptr);
}
#else
// Elsewhere the platform's own session end closes the window.
void close_on_termination_signals(QWidget*) {}
#endif
