// The command line: the simulator switches and the log-window flag.
#pragma once

class QCoreApplication;

// True: start-up installs the log-window message handler.
extern bool use_log_window;

// Reads the command line once, at start-up; sets simulator::use and use_log_window.
void parse_arguments(QCoreApplication* app);
