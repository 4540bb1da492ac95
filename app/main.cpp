// Entry point: start-up, event loop, shutdown; the exit status is the event loop's result.
#include <QApplication>

#include "app/shell.h"

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    GUI_init();
    const int result = app.exec();
    return GUI_cleanup(result);
}
