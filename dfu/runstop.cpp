#include "dfu/runstop.h"

#include <chrono>

namespace DFU {

namespace {

qint64 now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Per thread: the worker's runs follow its stop, the companion's and the tests' none.
thread_local const RunStop* followed = nullptr;

} // namespace

void RunStop::request()
{
    qint64 unset = -1;
    requested_at_ms.compare_exchange_strong(unset, now_ms());
}

bool RunStop::expired() const
{
    const qint64 at = requested_at_ms.load();
    return at >= 0 && now_ms() - at >= grace_ms;
}

bool can_be_ended(CmdID id)
{
    return id == version || id == list || id == upload_OTP || id == upload_FW_info;
}

FollowStop::FollowStop(const RunStop& stop)
{
    followed = &stop;
}

FollowStop::~FollowStop()
{
    followed = nullptr;
}

const RunStop* followed_stop()
{
    return followed;
}

} // namespace DFU
