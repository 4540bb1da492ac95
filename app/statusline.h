// The status line's text, decided in one place from what the flow and the worker report.
#pragma once

#include <functional>

#include <QObject>
#include <QString>
#include <QTimer>

#include "dfu/deviceinfo.h"
#include "gui/spoken.h"

class QLabel;

class StatusLine final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(StatusLine)

public:
    using Lookup = std::function<QString(const QString& id)>;
    // text(id) looks a layout text up, log_text(id) the English one for the log (text when
    // not given): the window speaks the user's language, the log stays English.
    StatusLine(QLabel* label, Lookup text, Lookup log_text = nullptr);

    // How long a unit may stay away after a write before the user is told how to bring it back.
    static constexpr int unit_return_ms = 15000;

    enum class Stopping { No, FinishingRun, Stopped };

public slots:
    // A connected unit's own text; it stands until no unit is connected.
    void showUnit(const QString& text, const QString& logged = QString());
    // A unit just connected: its product; then, once the flow knows it, with its revision.
    void showConnected(const DFU::DeviceInfo& unit);
    void showRevision(const DFU::DeviceInfo& unit);
    // No unit is connected: the text says why, or what to do.
    void showNoUnit();
    // What start-up could not do: the layout id that says it, filled with folder and reason.
    void setStartProblem(const QString& id, const QString& folder, const QString& reason);
    void setNoAccess(const QString& node);
    // A read of the unit failed for good, or its firmware read back differs: either is told as the
    // working folder being full when that is why.
    void setReadFailed();
    void verifyFailed();
    void clearReadFailed();
    void downloadEnded(Upgrade::WriteEnd end);
    void setStopping(StatusLine::Stopping stopping);

private:
    // After a write: the unit restarting (as it should), not back in time, or the write broke off.
    enum class Written { No, Restarting, NotBack, Broken };

    void render();
    // The line as a screen reader hears it, once it has settled.
    void announce();
    // The line for the current state in the words of `look`; `unit` for a connected unit.
    QString compose(const Lookup& look, const QString& unit) const;

    QLabel* label;
    Lookup text;
    Lookup log_text;
    QTimer unit_return;
    Upgrade::WriteEnd write_end = Upgrade::WriteEnd::Written;

    bool unit_shown = false;
    QString unit_text;
    QString unit_logged;
    bool folder_full = false;
    QString start_id;
    QString start_folder;
    QString start_reason;
    QString no_access_node;
    bool read_failed = false;
    Written written = Written::No;
    Stopping stopping = Stopping::No;
    SettledAnnouncement announcement{this, [this] { announce(); }};
};
