// The program-wide objects and the start-up and shutdown sequences of the application shell.
#pragma once

#include <QPointer>

class MainWindow;
class SM_B;
namespace Settings {
struct GUI;
struct Settings;
}

extern QPointer<MainWindow> mainWindow;
extern Settings::Settings settings;
// The layout in English, whatever the window speaks: the log's words.
extern Settings::GUI english_layout;
extern SM_B* sm_B;

// Builds every long-lived object in a fixed order and starts the flow; needs the application object.
void GUI_init();

// Stops and frees the state machines; returns the event loop's result unchanged.
int GUI_cleanup(int exec_result);
