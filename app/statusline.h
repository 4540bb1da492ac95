// The status line's text, decided in one place from what the flow and the worker report.
#pragma once

#include <functional>

#include <QObject>
#include <QString>
#include <QTimer>

class QLabel;

class StatusLine final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(StatusLine)

public:
    // text(id) looks a layout text up.
    StatusLine(QLabel* label, std::function<QString(const QString& id)> text);

    // How long a unit may stay away after a write before the user is told how to bring it back.
    static constexpr int unit_return_ms = 15000;

    enum class Stopping { No, FinishingRun, Stopped };

public slots:
    // A connected unit's own text; it stands until no unit is connected.
    void showUnit(const QString& text);
    // No unit is connected: the text says why, or what to do.
    void showNoUnit();
    void setStartProblem(const QString& folder, const QString& reason);
    void setNoAccess(const QString& node);
    void setReadFailed();
    void clearReadFailed();
    void downloadEnded(int exit_code);
    void setStopping(StatusLine::Stopping stopping);

private:
    // After a write: the unit restarting (as it should), not back in time, or the write broke off.
    enum class Written { No, Restarting, NotBack, Broken };

    void render();

    QLabel* label;
    std::function<QString(const QString&)> text;
    QTimer unit_return;
    int download_exit_code = 0;

    bool unit_shown = false;
    QString unit_text;
    QString start_problem;
    QString no_access_node;
    bool read_failed = false;
    Written written = Written::No;
    Stopping stopping = Stopping::No;
};
