// When the worker may stop and the window may close: a running transfer is never cut short.
#pragma once

#include <QObject>

class SM_A;
class StatusLine;
class QWidget;

class StopPolicy final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(StopPolicy)

public:
    // Watches window's close events; says on status what a stop is waiting for.
    StopPolicy(SM_A* worker, QWidget* window, StatusLine* status);

public slots:
    // Escape or Q: the worker stops once its current run has ended. An idle worker is waited for
    // briefly, a busy one not at all, and until it has ended the status line says so.
    void stopWorker();

protected:
    // A window closed while a transfer runs stays on screen, saying so, and closes itself once the
    // worker has ended: a window that vanished while the tool still writes invites pulling the
    // cable.
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    SM_A* worker;
    QWidget* window;
    StatusLine* status;
    bool close_deferred = false;
};
