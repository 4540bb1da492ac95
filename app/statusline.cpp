#include "app/statusline.h"

#include <utility>

#include <QAccessible>
#include <QDebug>
#include <QLabel>

#include "simulator/toolsetup.h"
#include "support/files.h"

StatusLine::StatusLine(QLabel* label, Lookup text, Lookup log_text)
    : QObject(label), label(label), text(std::move(text)),
      log_text(log_text ? std::move(log_text) : this->text)
{
    unit_return.setSingleShot(true);
    unit_return.setInterval(unit_return_ms);
    connect(&unit_return, &QTimer::timeout, this, [this] {
        written = write_end == Upgrade::WriteEnd::NotWritten ? Written::Broken : Written::NotBack;
        qInfo() << "The unit has not come back" << unit_return_ms / 1000
                << "s after the download, which"
                << (written == Written::Broken ? "broke off" : "went out in full");
        render();
    });
}

void StatusLine::showUnit(const QString& unit, const QString& logged)
{
    unit_shown = true;
    unit_text = unit;
    unit_logged = logged.isEmpty() ? unit : logged;
    // A unit is back: whatever the last one left unsaid is settled by reading this one.
    unit_return.stop();
    written = Written::No;
    read_failed = false;
    render();
}

void StatusLine::showConnected(const DFU::DeviceInfo& unit)
{
    const QString product = unit.OTP_info.product_name();
    const QString id = QStringLiteral("status_devConn");
    showUnit(text(id).arg(product), log_text(id).arg(product));
}

void StatusLine::showRevision(const DFU::DeviceInfo& unit)
{
    const QString product = unit.OTP_info.product_name();
    // The unit's own bytes go into a rich-text label: markup in them must show as text.
    const QString revision = unit.FW_revision.toHtmlEscaped();
    const auto compose = [&](const Lookup& look) {
        return revision.isEmpty() ? look(QStringLiteral("status_devRevUnknown")).arg(product)
                                  : look(QStringLiteral("status_devRev")).arg(product, revision);
    };
    showUnit(compose(text), compose(log_text));
}

void StatusLine::showNoUnit()
{
    unit_shown = false;
    render();
}

void StatusLine::setStartProblem(const QString& id, const QString& folder, const QString& reason)
{
    start_id = id;
    start_folder = folder;
    start_reason = reason;
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
    folder_full = Tool::lacks_room();
    render();
}

void StatusLine::verifyFailed()
{
    folder_full = Tool::lacks_room();
    render();
}

void StatusLine::clearReadFailed()
{
    if (!read_failed && !folder_full)
        return;
    read_failed = false;
    folder_full = false;
    render();
}

void StatusLine::downloadEnded(Upgrade::WriteEnd end)
{
    write_end = end;
    // A write that went out in full is followed by the unit's restart: the plain no-unit hint
    // would read as if the cable were the problem.
    if (end != Upgrade::WriteEnd::NotWritten) {
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

QString StatusLine::compose(const Lookup& look, const QString& unit) const
{
    if (stopping == Stopping::FinishingRun)
        return look(QStringLiteral("status_finishingRun"));
    if (stopping == Stopping::Stopped)
        return look(QStringLiteral("status_stopped"));
    // Both above the unit's text: a unit is still shown after a failed read-back, and none can be
    // upgraded without the tool.
    if (folder_full)
        return look(QStringLiteral("status_folderFull"))
            .arg(Files::external_dir.path().toHtmlEscaped());
    if (!start_id.isEmpty())
        return look(start_id).arg(start_folder.toHtmlEscaped(), start_reason.toHtmlEscaped());
    if (unit_shown)
        return unit;
    if (!no_access_node.isEmpty())
        return look(QStringLiteral("status_devNoAccess")).arg(no_access_node);
    if (written == Written::Restarting)
        return look(QStringLiteral("status_devRestarting"));
    if (written == Written::NotBack)
        return look(QStringLiteral("status_devNotBack"));
    if (written == Written::Broken)
        return look(QStringLiteral("status_writeBroken"));
    if (read_failed)
        return look(QStringLiteral("status_devReadFailed"));
    return look(QStringLiteral("status_noDev"));
}

void StatusLine::render()
{
    const QString shown = compose(text, unit_text);
    if (label->text() == shown)
        return;
    label->setText(shown);
    // What the user was told, in the log too: a saved log then tells the whole story.
    qInfo().noquote() << "Status line:" << spoken_text(compose(log_text, unit_logged));
    announcement.request();
}

void StatusLine::announce()
{
    const QString name = spoken_text(label->text());
    if (label->accessibleName() == name)
        return;
    // A new accessible name is announced (NameChanged); the alert reaches platforms that speak it.
    label->setAccessibleName(name);
    QAccessibleEvent alert(label, QAccessible::Alert);
    QAccessible::updateAccessibility(&alert);
}
