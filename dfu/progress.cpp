#include "dfu/progress.h"

#include <QRegularExpression>

namespace DFU {

namespace {

// As dfu-util 0.11 prints it: the stage padded to 8, a tab, 25 bar cells, "%3llu%% %12llu bytes".
const QRegularExpression& record()
{
    static const QRegularExpression pattern(
        QStringLiteral("(Erase   |Download|Upload)\\t\\[[= ]{25}\\] *(\\d{1,3})% *(\\d+) bytes"));
    return pattern;
}

// Every complete record in text, with where the last one ends. A record cut off at the end of
// what has arrived does not match until its closing word "bytes" is there.
QList<ToolProgress> records(const QString& text, qsizetype* end = nullptr)
{
    QList<ToolProgress> found;
    for (const QRegularExpressionMatch& m : record().globalMatch(text)) {
        ToolProgress p;
        const QString stage = m.captured(1);
        p.stage = stage == QLatin1String("Download") ? Phase::Writing
                  : stage == QLatin1String("Upload") ? Phase::Verifying
                                                     : Phase::Erasing;
        p.percent = qMin(100, m.captured(2).toInt());
        p.bytes = m.captured(3).toLongLong();
        found << p;
        if (end)
            *end = m.capturedEnd();
    }
    return found;
}

} // namespace

std::optional<ToolProgress> last_progress(const QByteArray& text)
{
    const QList<ToolProgress> found = records(QString::fromLatin1(text));
    if (found.isEmpty())
        return std::nullopt;
    return found.last();
}

QList<ToolProgress> ProgressReader::feed(const QByteArray& chunk)
{
    pending += chunk;
    qsizetype end = 0;
    const QList<ToolProgress> found = records(QString::fromLatin1(pending), &end);
    if (found.isEmpty()) {
        // No record yet: keep only what could still be the start of one.
        const qsizetype cut = pending.lastIndexOf('\r');
        if (cut > 0)
            pending.remove(0, cut);
        if (pending.size() > 4096)
            pending = pending.right(256);
        return {};
    }
    pending.remove(0, end);
    return found;
}

} // namespace DFU
