#include "app/connections.h"

#include <QApplication>
#include <QDebug>
#include <QKeySequence>
#include <QShortcut>

#include "app/shell.h"
#include "app/statusline.h"
#include "app/stoppolicy.h"
#include "app/upgradeprogress.h"
#include "gui/installbutton.h"
#include "gui/logwindow.h"
#include "gui/mainwindow.h"
#include "gui/progressbar.h"
#include "gui/settings.h"
#include "statemachines/sm_a.h"
#include "statemachines/sm_b.h"

StatusLine* statusLine = nullptr;

namespace {

void toggle_log_window()
{
    if (logWindow)
        logWindow->toggle_visibility(mainWindow.data());
}

} // namespace

void add_connections(QApplication* app)
{
    MainWindow* window = mainWindow.data();
    const auto layout_text = [](const QString& id) { return settings.gui.text(id); };
    statusLine = new StatusLine(window->statusLabel(), layout_text,
                                [](const QString& id) { return english_layout.text(id); });
    auto* progress = new UpgradeProgress(window->progressBar(), layout_text);
    auto* stopping = new StopPolicy(sm_A, window, statusLine);

    QObject::connect(window, &MainWindow::finished, [] {
        qInstallMessageHandler(nullptr);
        qInfo() << "Msg-handler reset";
    });
    QObject::connect(window, &MainWindow::finished, sm_B, &QStateMachine::stop);
    QObject::connect(window, &MainWindow::finished, stopping, &StopPolicy::stopWorker);
    QObject::connect(sm_B, &QState::finished, app, &QCoreApplication::quit);
    QObject::connect(sm_B, &SM_B::sig_UpgradeImpossible, window, &MainWindow::disableDownload);
    QObject::connect(sm_B, &SM_B::sig_UpgradePossible, window, &MainWindow::enableDownload);
    QObject::connect(window->installButton(), &QAbstractButton::clicked, sm_B, &SM_B::do_download);

    // The status line: the flow's unit, and what the worker finds out of its own beside it.
    QObject::connect(sm_B, &SM_B::sig_DeviceConnected, statusLine,
                     [] { statusLine->showConnected(SM_B::device_info); });
    for (const auto signal : {&SM_B::sig_DifferingRevision, &SM_B::sig_FwMatches,
                              &SM_B::sig_FwDiffers})
        QObject::connect(sm_B, signal, statusLine,
                         [] { statusLine->showRevision(SM_B::device_info); });
    QObject::connect(sm_B, &SM_B::sig_UpgradeImpossible, statusLine, &StatusLine::showNoUnit);
    QObject::connect(sm_A, &SM_A::sig_NoAccess, statusLine, &StatusLine::setNoAccess);
    QObject::connect(sm_A, &SM_A::sig_DeviceError, statusLine, &StatusLine::setReadFailed);
    QObject::connect(sm_A, &SM_A::sig_NoDevConn, statusLine, &StatusLine::clearReadFailed);
    QObject::connect(sm_A, &SM_A::sig_FwDownloaded, statusLine, &StatusLine::downloadEnded);
    // Beside the flow's own verdict: a read-back that failed for want of room says so.
    QObject::connect(sm_A, &SM_A::sig_FwUploadedDiffers, statusLine, &StatusLine::verifyFailed);

    // The bar.
    QObject::connect(sm_B, &SM_B::sig_DoDownload, progress, &UpgradeProgress::downloadStarted);
    QObject::connect(sm_B, &SM_B::sig_UploadingVerifying, progress,
                     &UpgradeProgress::verificationStarted);
    QObject::connect(sm_A, &SM_A::sig_Progress, progress, &UpgradeProgress::toolProgress);
    QObject::connect(sm_A, &SM_A::sig_FwDownloaded, progress, &UpgradeProgress::downloadEnded);
    QObject::connect(sm_B, &SM_B::sig_DeviceConnected, progress, &UpgradeProgress::unitBack);
    QObject::connect(sm_B, &SM_B::sig_FwMatches, progress, &UpgradeProgress::matches);
    QObject::connect(sm_B, &SM_B::sig_FwDiffers, progress, &UpgradeProgress::differs);
    // A unit back from its restart that is not verified ends the upgrade's bar.
    for (const auto signal : {&SM_B::sig_UpgradeImpossible, &SM_B::sig_UpgradePossible,
                              &SM_B::sig_InvalidProduct})
        QObject::connect(sm_B, signal, progress, &UpgradeProgress::hideUnlessUpgrading);

    const QKeySequence toggle_keys(Qt::CTRL | Qt::Key_L);
    auto* main_shortcut = new QShortcut(toggle_keys, window);
    main_shortcut->setContext(Qt::WindowShortcut);
    QObject::connect(main_shortcut, &QShortcut::activated, toggle_log_window);
    if (logWindow) {
        auto* log_shortcut = new QShortcut(toggle_keys, logWindow->dialog());
        log_shortcut->setContext(Qt::WindowShortcut);
        QObject::connect(log_shortcut, &QShortcut::activated, toggle_log_window);
    }
}
