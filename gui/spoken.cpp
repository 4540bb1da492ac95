#include "gui/spoken.h"

#include <utility>

#include <QObject>
#include <QTextDocument>

QString spoken_text(const QString& shown)
{
    if (!Qt::mightBeRichText(shown))
        return shown.simplified();
    QTextDocument document;
    document.setHtml(shown);
    return document.toPlainText().simplified();
}

SettledAnnouncement::SettledAnnouncement(QObject* owner, std::function<void()> announce)
    : owner(owner), announce(std::move(announce))
{}

void SettledAnnouncement::request()
{
    if (std::exchange(pending, true))
        return;
    // Queued behind what the loop already holds; dropped with the owner.
    QMetaObject::invokeMethod(
        owner,
        [this] {
            pending = false;
            announce();
        },
        Qt::QueuedConnection);
}
