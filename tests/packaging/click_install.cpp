// Preloaded into the installed program by check_package.sh, whose offscreen window takes no input
// from outside: clicks Install once it is offered, reports each progress-bar text on standard
// error, and closes the window when the bar says "Done".
#include <cstdio>

#include <QApplication>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>
#include <QTimer>

namespace {

void drive()
{
    auto* timer = new QTimer(qApp);
    QObject::connect(timer, &QTimer::timeout, [clicked = false, shown = QString()]() mutable {
        for (QWidget* window : QApplication::topLevelWidgets()) {
            for (QPushButton* button : window->findChildren<QPushButton*>()) {
                if (!clicked && button->inherits("InstallButton") && button->isVisible() &&
                    button->isEnabled()) {
                    clicked = true;
                    std::fprintf(stderr, "click_install: clicked Install\n");
                    QTest::mouseClick(button, Qt::LeftButton);
                }
            }
            for (QProgressBar* bar : window->findChildren<QProgressBar*>()) {
                if (bar->isVisible() && bar->text() != shown) {
                    shown = bar->text();
                    std::fprintf(stderr, "click_install: bar \"%s\"\n", qPrintable(shown));
                    if (shown.startsWith(QLatin1String("Done")))
                        window->close();
                }
            }
        }
    });
    timer->start(100);
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(drive)
