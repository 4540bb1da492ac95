// SIGTERM, SIGINT and SIGHUP (a logout, kill, Ctrl+C in a terminal) close the main window as the
// user would, through the event loop: the same rule for a running transfer, the same clean-up.
#pragma once

class QWidget;

// Installs the handlers; each signal then closes `window`. Call once, on the GUI thread.
void close_on_termination_signals(QWidget* window);
