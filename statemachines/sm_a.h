// SM_A: the worker thread that scans for a unit, reads it, and downloads or verifies on command.
#pragma once

#include <atomic>

#include <QMutex>
#include <QObject>
#include <QString>
#include <QThread>
#include <QWaitCondition>

#include "dfu/deviceinfo.h"
#include "dfu/runstop.h"
#include "dfu/scan.h"

class SM_A final : public QThread
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SM_A)

public:
    enum Command : qint32 {
        None = 0,
        Download = 1,    // write desired_FW_bin into the connected unit
        UploadVerify = 2 // read the unit back into uploaded_FW_bin and compare
    };
    Q_ENUM(Command)

    SM_A(QString desired_FW_dfu, QString desired_FW_bin, QString uploaded_FW_bin,
         QObject* parent = nullptr);
    ~SM_A() override;

    // Both only before start(): the pause before each new scanning cycle, and the pause between
    // checks while a unit is connected or a faulty one is awaited to go.
    void set_poll_pauses(qint32 no_device_ms, qint32 connected_ms);
    // Only before start(): while no unit is found, look for a bootloader this user may not open
    // and report it by sig_NoAccess. Off for the simulator, which has no device node.
    void watch_device_access(bool on);

    Command get_command() const;
    // True while the worker reads from or writes to a unit: such a run is never cut short, so a
    // stop waits for it.
    bool transfer_running() const { return in_transfer.load(); }
    void enable_debug_output();

public slots:
    // A later command replaces one the loop has not taken yet. The worker waiting to take one
    // wakes at once: its pause is an upper bound, not a delay the click has to sit out.
    void set_command(SM_A::Command c);
    void do_stop();

signals:
    // The declaration order is the signal index order; keep it.
    void sig_NoDevConn();
    // The unit's record travels with the signal: the worker's own record changes with the next
    // unit while the flow may still be deciding on this one.
    void sig_DevConn(DFU::DeviceInfo info);
    void sig_scanning();
    void sig_readingInfo();
    void sig_DeviceError(QString message);
    void sig_FwDownloading();
    // What the write's end means (Upgrade::write_end), whatever dfu-util printed.
    void sig_FwDownloaded(Upgrade::WriteEnd end);
    void sig_FwUploading();
    void sig_FwUploadedDiffers();
    void sig_FwUploadedMatches();
    void sig_A0_entered();
    void sig_A1_entered();
    void sig_A2_entered();
    void sig_A3_entered(); // declared for the index order; position A3 is not part of the loop
    void sig_A4_entered();
    void sig_A5_entered();
    void sig_A6_entered();
    void sig_A7_entered();
    // The device node of an attached bootloader this user may not open, or empty once there is
    // none; emitted when that changes.
    void sig_NoAccess(QString node);
    // How far the running download or verification has come: the phase and its done fraction
    // (0 to 1), from dfu-util's own progress output.
    void sig_Progress(DFU::Phase phase, double fraction);

protected:
    void run() override;

private:
    // Sleeps ms, or less when a stop is asked for meanwhile or, with until_command, a command is
    // handed over; elsewhere a command wakes it only to sleep on, so the scan cadence stays.
    void pause(qint32 ms, bool until_command = false);
    // Runs f with transfer_running() true.
    template <typename F> auto transfer(F f);
    // Turns dfu-util's records of a run over total bytes into sig_Progress.
    DFU::ProgressHandler progress_to(qint64 total);
    void check_device_access();
    bool is_stopping() const;

    const QString desired_FW_dfu;
    const QString desired_FW_bin;
    const QString uploaded_FW_bin;

    // The worker's own: read and written on its thread only.
    DFU::DeviceInfo device_info;
    DFU::DeviceItem current_unit;
    DFU::DeviceItem failed_unit; // the unit whose read-outs failed lately, and how often
    int failed_reads = 0;
    QString inaccessible_node;
    qint32 no_device_poll_ms = 200;
    qint32 connected_poll_ms = 200;
    bool access_watched = false;

    std::atomic<bool> in_transfer{false};
    // Requested with the stop: a listing or read-out that hangs is ended 3 s later.
    DFU::RunStop run_stop;
    Command command = None;      // guarded by mutex
    bool stop_requested = false; // guarded by mutex
    mutable QMutex mutex;
    QWaitCondition wait_condition;
};

// The one worker of the program; null until start-up creates it.
extern SM_A* sm_A;
