// Joins the upgrade flow's signals to the window: status line, install button, progress bar, keys.
#pragma once

class QApplication;

void add_connections(QApplication* app);
