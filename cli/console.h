// Standard error of the companion: step lines or a redrawn bar, and the termination signals.
#pragma once

#include <functional>

#include <QMutex>
#include <QString>

#include "dfu/commands.h"

class QObject;

namespace Cli {

class Console
{
public:
    // terminal: draw one bar redrawn in place; otherwise one plain line per step.
    explicit Console(bool terminal);

    // A new step ("Reading", "Erasing", ...): a line of its own.
    void step(const QString& name);
    // Hands dfu-util's records of a transfer over total bytes to the bar; a new stage is a step.
    DFU::ProgressHandler progress(qint64 total);
    // A line of its own, from any thread.
    void say(const QString& text);
    // Ends a bar left open, so that what follows on the terminal starts on a line of its own.
    void end_line();

private:
    void end_bar(); // with the mutex held
    void draw(const QString& name, double fraction);

    const bool terminal;
    QMutex mutex;
    QString current_step;
    bool bar_open = false;
    int last_percent = -1;
};

// Blocks SIGINT, SIGTERM and SIGHUP in the whole process; call first in main, before any thread
// exists, so that no thread is ended by one. dfu-util does not inherit the block: the runner
// starts it in a process group of its own, which a Ctrl+C in the terminal does not reach.
void block_termination_signals();
// Hands each of those signals, taken from the blocked set, to on_signal on the event loop.
void on_termination_signals(QObject* context, std::function<void(int)> on_signal);

} // namespace Cli
