// Joins the upgrade flow's signals to the window: status line, install button, progress bar, keys.
#pragma once

class QApplication;
class StatusLine;

// The main window's status line; made by add_connections.
extern StatusLine* statusLine;

void add_connections(QApplication* app);
