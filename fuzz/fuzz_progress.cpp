// Fuzz target: dfu-util's output, split into pieces, through the progress reader.
#include <cstddef>
#include <cstdint>

#include <QByteArray>

#include "dfu/progress.h"
#include "fuzz/fuzzcheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using fuzz::require;
    if (size == 0)
        return 0;
    // The first byte chooses where the output is cut into pieces, as the pipe would cut it.
    const std::size_t step = 1 + data[0] % 64;
    const QByteArray output(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1));

    DFU::ProgressReader reader;
    QList<DFU::ToolProgress> pieces;
    for (qsizetype at = 0; at < output.size(); at += qsizetype(step))
        pieces += reader.feed(output.mid(at, qsizetype(step)));
    for (const DFU::ToolProgress& p : pieces) {
        require(p.stage != DFU::Phase::Restarting, "a record names one of dfu-util's stages");
        require(p.percent >= 0 && p.percent <= 100, "a percentage stays within 0 to 100");
        require(p.bytes >= 0, "a byte count is never negative");
    }
    // However the output was cut, the newest record is the one the whole text ends on.
    const auto whole = DFU::last_progress(output);
    require(whole.has_value() == !pieces.isEmpty(), "records in pieces exactly when in the whole");
    if (whole)
        require(pieces.last() == *whole, "the last record read in pieces is the whole text's");
    return 0;
}
