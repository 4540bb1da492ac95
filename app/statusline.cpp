#include "app/statusline.h"

#include <utility>

#include <QAccessible>
#include <QDebug>
#include <QLabel>
#include <QRegularExpression>

namespace {

QString plain(const QString& shown)
{
    static const QRegularExpression markup(QStringLiteral("<[^>]*>"));
    return QString(shown).remove(markup).simplified();
}

} // namespace

StatusLine::StatusLine(QLabel* label, std::function<QString(const QString& id)> text)
    : QObject(label), label(label), text(std::move(text))
{
    // Named from the start, so a change is announced once, by the name's change below.
    label->setAccessibleName(plain(label->text()));
    unit_return.setSingleShot(true);
    unit_return.setInterval(unit_return_ms);
    connect(&unit_return, &QTimer::timeout, this, [this] {
        written = download_exit_code == 0 ? Written::NotBack : Written::Broken;
        qInfo() << "The unit has not come back" << unit_return_ms / 1000
                << "s after the download, which exited with" << download_exit_code;
        render();
    });
}

void StatusLine::showUnit(const QString& unit)
{
    unit_shown = true;
    unit_text = unit;
    // A unit is back: whatever the last one left unsaid is settled by reading this one.
    unit_return.stop();
    written = Written::No;
    read_failed = false;
    render();
}

void StatusLine::showNoUnit()
{
    unit_shown = false;
    render();
}

void StatusLine::setStartProblem(const QString& folder, const QString& reason)
{
    start_problem = text(QStringLiteral("status_startFailed"))
                        .arg(folder.toHtmlEscaped(), reason.toHtmlEscaped());
    render();
}

void StatusLine::setNoAccess(const QString& node)
{
    no_access_node = node;
    render();
}

void StatusLine::setReadFailed()
{
    read_failed = true;
    render();
}

void StatusLine::clearReadFailed()
{
    if (!read_failed)
        return;
    read_failed = false;
    render();
}

void StatusLine::downloadEnded(int exit_code)
{
    download_exit_code = exit_code;
    // A good write is followed by the unit's restart: the plain no-unit hint would read as if
    // the cable were the problem.
    if (exit_code == 0) {
        written = Written::Restarting;
        render();
    }
    unit_return.start();
}

void StatusLine::setStopping(Stopping now)
{
    stopping = now;
    render();
}

void StatusLine::render()
{
    QString shown;
    if (stopping == Stopping::FinishingRun)
        shown = text(QStringLiteral("status_finishingRun"));
    else if (stopping == Stopping::Stopped)
        shown = text(QStringLiteral("status_stopped"));
    else if (unit_shown)
        shown = unit_text;
    else if (!start_problem.isEmpty())
        shown = start_problem;
    else if (!no_access_node.isEmpty())
        shown = text(QStringLiteral("status_devNoAccess")).arg(no_access_node);
    else if (written == Written::Restarting)
        shown = text(QStringLiteral("status_devRestarting"));
    else if (written == Written::NotBack)
        shown = text(QStringLiteral("status_devNotBack"));
    else if (written == Written::Broken)
        shown = text(QStringLiteral("status_writeBroken"));
    else if (read_failed)
        shown = text(QStringLiteral("status_devReadFailed"));
    else
        shown = text(QStringLiteral("status_noDev"));
    if (label->text() == shown)
        return;
    label->setText(shown);
    // What the user was told, in the log too: a saved log then tells the whole story.
    const QString said = plain(shown);
    qInfo().noquote() << "Status line:" << said;
    // A new accessible name is announced (NameChanged); the alert reaches platforms that speak it.
    label->setAccessibleName(said);
    QAccessibleEvent alert(label, QAccessible::Alert);
    QAccessible::updateAccessibility(&alert);
}
