// dfu-util's progress lines, read while it runs: "\rDownload\t[=====    ]  20%       114688 bytes".
#pragma once

#include <optional>

#include <QByteArray>
#include <QList>
#include <QtGlobal>

namespace DFU {

struct ToolProgress
{
    enum Stage { Erase, Download, Upload };
    Stage stage = Erase;
    int percent = 0;  // of the stage, as dfu-util prints it
    qint64 bytes = 0; // the stage's count so far
    bool operator==(const ToolProgress& o) const
    {
        return stage == o.stage && percent == o.percent && bytes == o.bytes;
    }
};

// The last complete progress record in text, if any. dfu-util redraws one line with carriage
// returns, so only the newest record counts.
std::optional<ToolProgress> last_progress(const QByteArray& text);

// Feeds a run's standard output as it arrives, in pieces of any size, and hands out each new
// record once, in order: a piece may hold a stage's last records and the next stage's first.
class ProgressReader
{
public:
    QList<ToolProgress> feed(const QByteArray& chunk);

private:
    QByteArray pending; // text after the last record read, which may hold the next one's start
};

} // namespace DFU
