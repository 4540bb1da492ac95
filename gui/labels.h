// Creating the window's text labels from the layout model.
#pragma once

#include "gui/settings.h"

class MainWindow;

void add_labels(const Settings::Settings* settings, MainWindow* window, bool simulator);
