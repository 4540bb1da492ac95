#include "app/stoppolicy.h"

#include <QCloseEvent>
#include <QDeadlineTimer>
#include <QDebug>
#include <QWidget>

#include "app/statusline.h"
#include "statemachines/sm_a.h"

StopPolicy::StopPolicy(SM_A* worker, QWidget* window, StatusLine* status)
    : QObject(window), worker(worker), window(window), status(status)
{
    window->installEventFilter(this);
}

void StopPolicy::stopWorker()
{
    qInfo() << "Trying to stop sm_A";
    worker->do_stop();
    if (!worker->transfer_running() && worker->wait(QDeadlineTimer(1000))) {
        status->setStopping(StatusLine::Stopping::Stopped);
        return;
    }
    qWarning() << "Oops, SM_A not dead yet";
    status->setStopping(StatusLine::Stopping::FinishingRun);
    connect(worker, &QThread::finished, status,
            [this] { status->setStopping(StatusLine::Stopping::Stopped); });
    if (worker->isFinished())
        status->setStopping(StatusLine::Stopping::Stopped);
}

bool StopPolicy::eventFilter(QObject* watched, QEvent* event)
{
    if (watched != window || event->type() != QEvent::Close || !worker->isRunning() ||
        !worker->transfer_running())
        return QObject::eventFilter(watched, event);
    event->ignore();
    if (!close_deferred) {
        close_deferred = true;
        qInfo() << "Closing waits for the running transfer";
        worker->do_stop();
        status->setStopping(StatusLine::Stopping::FinishingRun);
        connect(worker, &QThread::finished, window, [this] {
            qInfo() << "The transfer has ended; closing";
            window->close();
        });
    }
    return true;
}
