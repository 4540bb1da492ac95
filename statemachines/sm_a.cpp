#include "statemachines/sm_a.h"

#include <atomic>
#include <utility>

#include <QDeadlineTimer>
#include <QDebug>
#include <QMutexLocker>

#include "dfu/scan.h"
#include "dfu/usbaccess.h"

SM_A* sm_A = nullptr;

namespace {

// Loop positions with work of their own; A1 always follows A0, A3 has no place in the loop.
enum class Position { A0, A2, A4, A5, A6, A7 };

bool is_single_unit(const DFU::ScanResult& scan)
{
    return scan.status == 0 && scan.devices.size() == 1;
}

// Shared by every logging connection: an idle worker would otherwise log two lines per cycle.
std::atomic<bool> last_logged_signal_was_quiet{false};

void log_signal(const QString& name, bool quiet)
{
    const bool repeat_of_quiet =
        last_logged_signal_was_quiet.load() &&
        (name == QLatin1String("NoDevConn") || name == QLatin1String("scanning"));
    if (!repeat_of_quiet) {
        qDebug() << QStringLiteral("SM_A: /sig_") + name;
    }
    last_logged_signal_was_quiet.store(quiet);
}

} // namespace

SM_A::SM_A(QString desired_FW_dfu, QString desired_FW_bin, QString uploaded_FW_bin, QObject* parent)
    : QThread(parent), desired_FW_dfu(std::move(desired_FW_dfu)),
      desired_FW_bin(std::move(desired_FW_bin)), uploaded_FW_bin(std::move(uploaded_FW_bin))
{
    qDebug() << "SM_A created";
}

SM_A::~SM_A()
{
    {
        QMutexLocker lock(&mutex);
        stop_requested = true;
    }
    run_stop.request();
    wait_condition.wakeOne();
    qDebug() << "SM_A: Waiting in dtor";
    // Never terminate: a dfu-util run cut off mid-transfer could leave the unit half-written.
    wait();
}

void SM_A::set_poll_pauses(qint32 no_device_ms, qint32 connected_ms)
{
    no_device_poll_ms = no_device_ms;
    connected_poll_ms = connected_ms;
}

void SM_A::watch_device_access(bool on)
{
    access_watched = on;
}

SM_A::Command SM_A::get_command() const
{
    QMutexLocker lock(&mutex);
    return command;
}

void SM_A::set_command(SM_A::Command c)
{
    {
        QMutexLocker lock(&mutex);
        command = c;
    }
    wait_condition.wakeAll();
}

void SM_A::do_stop()
{
    {
        QMutexLocker lock(&mutex);
        stop_requested = true;
    }
    run_stop.request();
    // An idle worker leaves its pause at once rather than after it.
    wait_condition.wakeAll();
}

void SM_A::pause(qint32 ms, bool until_command)
{
    QMutexLocker lock(&mutex);
    QDeadlineTimer until(ms);
    while (!stop_requested && !(until_command && command != None) && !until.hasExpired())
        wait_condition.wait(&mutex, until);
}

bool SM_A::is_stopping() const
{
    QMutexLocker lock(&mutex);
    return stop_requested;
}

void SM_A::enable_debug_output()
{
    qDebug() << "SM_A: Adding connections to show debug output (state transitions)";
    // Direct, so each line is written on the worker thread in the order the signals were emitted.
    const auto add = [this](auto signal, const char* name, bool quiet) {
        connect(
            this, signal, this,
            [name = QString::fromLatin1(name), quiet] { log_signal(name, quiet); },
            Qt::DirectConnection);
    };
    add(&SM_A::sig_NoDevConn, "NoDevConn", true);
    add(&SM_A::sig_scanning, "scanning", true);
    add(&SM_A::sig_readingInfo, "readingInfo", false);
    add(&SM_A::sig_DevConn, "DevConn", false);
    add(&SM_A::sig_FwDownloading, "FwDownloading", false);
    add(&SM_A::sig_FwDownloaded, "FwDownloaded", false);
    add(&SM_A::sig_FwUploading, "FwUploading", false);
    add(&SM_A::sig_FwUploadedDiffers, "FwUploadedDiffers", false);
    add(&SM_A::sig_FwUploadedMatches, "FwUploadedMatches", false);
}

template <typename F> auto SM_A::transfer(F f)
{
    in_transfer.store(true);
    const auto result = f();
    in_transfer.store(false);
    return result;
}

DFU::ProgressHandler SM_A::progress_to(qint64 total)
{
    return [this, total](const DFU::ToolProgress& record) {
        emit sig_Progress(record.stage, Upgrade::fraction(record, total));
    };
}

void SM_A::check_device_access()
{
    if (!access_watched)
        return;
    const QString node =
        DFU::inaccessible_bootloader_node(QStringLiteral("/sys"), QStringLiteral("/dev"));
    if (node == inaccessible_node)
        return;
    inaccessible_node = node;
    if (!node.isEmpty())
        qWarning() << "Cannot open DFU device" << node << "(no permission)";
    emit sig_NoAccess(node);
}

void SM_A::run()
{
    const DFU::FollowStop follow(run_stop);
    bool first_cycle = true; // the very first scan starts without a pause
    Position position = Position::A0;
    for (;;) {
        switch (position) {
        case Position::A0: {
            emit sig_A0_entered();
            current_unit = {};

            emit sig_A1_entered();
            if (is_stopping()) {
                return;
            }
            device_info = DFU::DeviceInfo();
            emit sig_NoDevConn();
            if (!first_cycle) {
                pause(no_device_poll_ms);
            }
            first_cycle = false;
            position = Position::A2;
            break;
        }
        case Position::A2: {
            emit sig_A2_entered();
            emit sig_scanning();
            const DFU::ScanResult scan = DFU::make_scan();
            if (!is_single_unit(scan)) {
                if (scan.devices.isEmpty()) {
                    // Gone: a unit that failed while it was still enumerating starts afresh.
                    failed_unit = {};
                    check_device_access();
                }
                position = Position::A0;
                break;
            }
            const DFU::DeviceItem& item = scan.devices.first();
            // Path and serial: two units that report the same serial are still two units.
            if (item == current_unit) {
                position = Position::A4;
                break;
            }
            emit sig_readingInfo();
            emit sig_NoDevConn();
            current_unit = item;
            // Every unit starts from a fresh record: nothing of the last one may carry over.
            device_info = DFU::DeviceInfo();
            const DFU::CommandResult result =
                transfer([&] { return DFU::read_device_info(&item, &device_info); });
            if (result.exit_code == 0) {
                failed_unit = {};
                failed_reads = 0;
                emit sig_DevConn(device_info);
                position = Position::A4;
                break;
            }
            if (is_stopping()) {
                // Perhaps ended by the stop: it says nothing about the unit.
                position = Position::A0;
                break;
            }
            failed_reads = item == failed_unit ? failed_reads + 1 : 1;
            failed_unit = item;
            if (failed_reads < Upgrade::read_attempts) {
                // Start a new cycle: the unit is read again if the next scan still finds it.
                qInfo() << "Reading the unit failed, attempt" << failed_reads << "of"
                        << Upgrade::read_attempts;
                position = Position::A0;
                break;
            }
            failed_reads = 0;
            emit sig_DeviceError(result.output);
            position = Position::A7;
            break;
        }
        case Position::A7: {
            // A unit whose read-out failed is not read again until it has gone away. A stop
            // request also ends the wait, so a faulty unit left attached cannot hold up shutdown;
            // the stop itself takes effect at A1 as always.
            emit sig_A7_entered();
            emit sig_scanning();
            while (!is_stopping()) {
                pause(connected_poll_ms);
                const DFU::ScanResult scan = DFU::make_scan();
                if (!is_single_unit(scan) || scan.devices.first() != current_unit) {
                    break;
                }
            }
            failed_unit = {};
            position = Position::A0;
            break;
        }
        case Position::A4: {
            emit sig_A4_entered();
            if (is_stopping()) {
                return;
            }
            pause(connected_poll_ms, true);
            // Checked again after the pause: a write must not start after a stop was asked for.
            if (is_stopping()) {
                return;
            }
            Command taken = None;
            {
                // Read and clear in one hold, so a command set meanwhile is never wiped unseen.
                QMutexLocker lock(&mutex);
                if (command == Download || command == UploadVerify) {
                    taken = std::exchange(command, None);
                }
            }
            if (taken == UploadVerify) {
                position = Position::A6;
            } else if (taken == Download) {
                position = Position::A5;
            } else {
                position = Position::A2; // scan again: is the same unit still attached?
            }
            break;
        }
        case Position::A5: {
            emit sig_A5_entered();
            emit sig_FwDownloading();
            const Upgrade::WriteEnd end = transfer([this] {
                return DFU::write_FW(desired_FW_bin, true,
                                     progress_to(DFU::size_of_binary_file(desired_FW_bin)));
            });
            // Whatever its end: the verification that follows tells the truth.
            emit sig_FwDownloaded(end);
            // The unit leaves its bootloader; start afresh so it is read again when it is back.
            position = Position::A0;
            break;
        }
        case Position::A6: {
            emit sig_A6_entered();
            emit sig_FwUploading();
            if (!transfer([this] {
                    const int read_back = DFU::whole_blocks(DFU::size_of_binary_file(desired_FW_bin));
                    return DFU::read_back_FW(desired_FW_bin, uploaded_FW_bin,
                                             progress_to(read_back));
                }).matches) {
                qDebug() << "Uploaded FW does not match";
                emit sig_FwUploadedDiffers();
            } else {
                qDebug() << "Uploaded FW matches";
                emit sig_FwUploadedMatches();
            }
            position = Position::A2;
            break;
        }
        }
    }
}
