// The stop that ends a run which cannot harm the unit, a while after the user quits.
#pragma once

#include <atomic>

#include <QtGlobal>

#include "dfu/commands.h"

namespace DFU {

// Once requested, a run that cannot harm the unit (can_be_ended) that is still going 3 s later
// is ended: a device that hangs on the bus must not keep the program alive without a window. A
// write, or the read-back that proves one, is never ended. Only the runs of a thread that follows
// the stop (FollowStop) heed it.
class RunStop final
{
public:
    RunStop() = default;
    Q_DISABLE_COPY_MOVE(RunStop)

    // From any thread; the first request starts the count-down.
    void request();
    bool expired() const;

private:
    static constexpr qint64 grace_ms = 3000;
    std::atomic<qint64> requested_at_ms{-1}; // on the steady clock
};

// The version test, the listing and the identity read-outs; never a transfer of the image.
bool can_be_ended(CmdID id);

// While it lives, the calling thread's runs follow the stop.
class FollowStop final
{
public:
    explicit FollowStop(const RunStop& stop);
    ~FollowStop();
    Q_DISABLE_COPY_MOVE(FollowStop)
};

// The stop the calling thread's runs follow, or null.
const RunStop* followed_stop();

} // namespace DFU
