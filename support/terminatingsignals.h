// The signals that end a program from outside: Ctrl+C in a terminal, kill, a logout.
#pragma once

#include <QtGlobal>
#if defined(Q_OS_UNIX)
#include <csignal>

namespace support {

inline constexpr int terminating_signals[] = {SIGINT, SIGTERM, SIGHUP};

inline sigset_t terminating_signal_set()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : terminating_signals)
        sigaddset(&set, number);
    return set;
}

} // namespace support
#endif
