#include "app/connections.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDeadlineTimer>
#include <QDebug>
#include <QKeySequence>
#include <QShortcut>

#include "app/shell.h"
#include "app/statusline.h"
#include "app/upgradeprogress.h"
#include "gui/installbutton.h"
#include "gui/logwindow.h"
#include "gui/mainwindow.h"
#include "gui/progressbar.h"
#include "gui/settings.h"
#include "statemachines/sm_a.h"
#include "statemachines/sm_b.h"

StatusLine* statusLine = nullptr;
UpgradeProgress* upgradeProgress = nullptr;

namespace {

QString settings_text(const char* id)
{
    return settings.gui.text(QString::fromLatin1(id));
}

QString revision_text(const Settings::GUI& layout)
{
    const QString product = sm_B->device_info.OTP_info.product_name();
    // The unit's own bytes go into a rich-text label: markup in them must show as text.
    const QString revision = sm_B->device_info.FW_revision.toHtmlEscaped();
    return revision.isEmpty()
               ? layout.text(QStringLiteral("status_devRevUnknown")).arg(product)
               : layout.text(QStringLiteral("status_devRev")).arg(product, revision);
}

void show_revision_text()
{
    statusLine->showUnit(revision_text(settings.gui), revision_text(english_layout));
}

// The bar's own captions come from the layout too, so they are translated; the English words
// stand in when an outside layout file lacks them.
QString caption(const char* id, const char* english)
{
    const QString text = settings_text(id);
    return text.isEmpty() ? QString::fromLatin1(english) : text;
}

// Escape or Q: the worker stops once its current run has ended. A read-out or a write is never cut
// short: an idle worker is waited for briefly, a busy one not at all, and until it has ended the
// status line says so.
void stop_worker()
{
    qInfo() << "Trying to stop sm_A";
    sm_A->do_stop();
    if (!sm_A->transfer_running() && sm_A->wait(QDeadlineTimer(1000))) {
        statusLine->setStopping(StatusLine::Stopping::Stopped);
        return;
    }
    qWarning() << "Oops, SM_A not dead yet";
    statusLine->setStopping(StatusLine::Stopping::FinishingRun);
    QObject::connect(sm_A, &QThread::finished, statusLine,
                     [] { statusLine->setStopping(StatusLine::Stopping::Stopped); });
    if (sm_A->isFinished())
        statusLine->setStopping(StatusLine::Stopping::Stopped);
}

// A window closed while a transfer runs stays on screen, saying so, and closes itself once the
// worker has ended: a window that vanished while the tool still writes invites pulling the cable.
class CloseWhenIdle final : public QObject
{
public:
    using QObject::QObject;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() != QEvent::Close || !sm_A->isRunning() || !sm_A->transfer_running())
            return QObject::eventFilter(watched, event);
        event->ignore();
        if (!deferred) {
            deferred = true;
            qInfo() << "Closing waits for the running transfer";
            sm_A->do_stop();
            statusLine->setStopping(StatusLine::Stopping::FinishingRun);
            QObject::connect(sm_A, &QThread::finished, watched, [watched] {
                qInfo() << "The transfer has ended; closing";
                static_cast<QWidget*>(watched)->close();
            });
        }
        return true;
    }

private:
    bool deferred = false;
};

// The bar goes when no upgrade needs it any more; a unit away for its restart does.
void hide_progress_bar()
{
    upgradeProgress->abandon();
    ProgressBar* bar = mainWindow->progressBar();
    bar->setFormat(QStringLiteral("This text should not be visible!"));
    bar->hide();
}

void on_fw_matches()
{
    ProgressBar* bar = mainWindow->progressBar();
    bar->timer()->stop();
    bar->setValue(bar->maximum());
    bar->setFormat(caption("progress_done", "Done. Disconnect USB cable."));
    upgradeProgress->done();
    show_revision_text();
}

void on_fw_differs()
{
    show_revision_text();
    ProgressBar* bar = mainWindow->progressBar();
    bar->timer()->stop();
    bar->setValue(bar->minimum());
    // The caption is kept although the bar hides at once, so a later show without a new
    // format still explains itself.
    bar->setFormat(QStringLiteral("FW differs"));
    bar->hide();
}

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
    upgradeProgress = new UpgradeProgress(window->progressBar(), layout_text);

    QObject::connect(window, &MainWindow::finished, [] {
        qInstallMessageHandler(nullptr);
        qInfo() << "Msg-handler reset";
    });
    QObject::connect(window, &MainWindow::finished, sm_B, &QStateMachine::stop);
    QObject::connect(window, &MainWindow::finished, stop_worker);
    window->installEventFilter(new CloseWhenIdle(window));
    QObject::connect(sm_B, &QState::finished, app, &QCoreApplication::quit);
    QObject::connect(sm_B, &SM_B::sig_UpgradeImpossible, window, &MainWindow::disableDownload);
    QObject::connect(sm_B, &SM_B::sig_UpgradePossible, window, &MainWindow::enableDownload);
    QObject::connect(sm_B, &SM_B::sig_DeviceConnected, [] {
        const QString product = sm_B->device_info.OTP_info.product_name();
        const QString id = QStringLiteral("status_devConn");
        statusLine->showUnit(settings.gui.text(id).arg(product),
                             english_layout.text(id).arg(product));
    });
    QObject::connect(sm_B, &SM_B::sig_DifferingRevision, show_revision_text);
    QObject::connect(sm_B, &SM_B::sig_UpgradeImpossible, window, [] {
        statusLine->showNoUnit();
        if (!upgradeProgress->upgrading())
            hide_progress_bar();
    });
    // A unit back from its restart that is not verified ends the upgrade's bar.
    for (const auto signal : {&SM_B::sig_UpgradePossible, &SM_B::sig_InvalidProduct})
        QObject::connect(sm_B, signal, window, [] {
            if (!upgradeProgress->upgrading())
                hide_progress_bar();
        });
    // What the worker finds out of its own, beside the flow.
    QObject::connect(sm_A, &SM_A::sig_NoAccess, statusLine, &StatusLine::setNoAccess);
    QObject::connect(sm_A, &SM_A::sig_DeviceError, statusLine, &StatusLine::setReadFailed);
    QObject::connect(sm_A, &SM_A::sig_NoDevConn, statusLine, &StatusLine::clearReadFailed);
    QObject::connect(sm_A, &SM_A::sig_FwDownloaded, statusLine, &StatusLine::downloadEnded);
    QObject::connect(sm_A, &SM_A::sig_FwDownloaded, upgradeProgress,
                     &UpgradeProgress::downloadEnded);
    QObject::connect(sm_A, &SM_A::sig_Progress, upgradeProgress, &UpgradeProgress::toolProgress);
    QObject::connect(sm_B, &SM_B::sig_DeviceConnected, upgradeProgress, &UpgradeProgress::unitBack);
    QObject::connect(window->installButton(), &QAbstractButton::clicked, sm_B, &SM_B::do_download);
    // The time-based runs stand until dfu-util's first progress record replaces them, and stay
    // for a tool that prints none.
    QObject::connect(sm_B, &SM_B::sig_DoDownload, [] {
        mainWindow->progressBar()->startAutoProgress(
            caption("progress_upgrading", "Upgrading firmware"), 100.0);
        upgradeProgress->downloadStarted();
    });
    QObject::connect(sm_B, &SM_B::sig_UploadingVerifying, [] {
        mainWindow->progressBar()->startAutoProgress(
            caption("progress_uploadingVerifying", "Uploading & verifying"), 0.5);
        upgradeProgress->verificationStarted();
    });
    QObject::connect(sm_B, &SM_B::sig_FwMatches, on_fw_matches);
    QObject::connect(sm_B, &SM_B::sig_FwDiffers, on_fw_differs);

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
