// dfu-util's progress lines, read while it runs: "\rDownload\t[=====    ]  20%       114688 bytes".
#pragma once

#include <functional>
#include <optional>

#include <QByteArray>
#include <QList>
#include <QMetaType>
#include <QtGlobal>

namespace DFU {

// The phases of an upgrade, one type from dfu-util's output to the bar: the tool's stages
// ("Erase", "Download", "Upload") are Erasing, Writing and Verifying; Restarting is the unit's
// restart between the write and the read-back, which no tool reports.
enum class Phase { Erasing, Writing, Restarting, Verifying };

struct ToolProgress
{
    Phase stage = Phase::Erasing;
    int percent = 0;  // of the stage, as dfu-util prints it
    qint64 bytes = 0; // the stage's count so far
    bool operator==(const ToolProgress& o) const
    {
        return stage == o.stage && percent == o.percent && bytes == o.bytes;
    }
};

// Handed each progress record of a run while it runs.
using ProgressHandler = std::function<void(const ToolProgress&)>;

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

Q_DECLARE_METATYPE(DFU::Phase)
