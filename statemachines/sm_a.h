// SM_A: the worker thread that scans for a unit, reads it, and downloads or verifies on command.
#pragma once

#include <QMutex>
#include <QObject>
#include <QString>
#include <QThread>
#include <QWaitCondition>

#include "dfu/deviceinfo.h"

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

    // Written only by the worker: before sig_DevConn and again only after the next
    // sig_NoDevConn, so the GUI thread may read it in between without a lock.
    DFU::DeviceInfo device_info;
    const QString desired_FW_dfu;
    const QString desired_FW_bin;
    const QString uploaded_FW_bin;
    QString current_serial;

private:
    Command command = None; // guarded by mutex

public:
    // Set before start(); read only by the worker afterwards.
    qint32 no_device_poll_ms = 200;
    qint32 connected_poll_ms = 200;

private:
    bool stop_requested = false; // guarded by mutex
    mutable QMutex mutex;
    QWaitCondition wait_condition;

public:
    Command get_command() const;
    bool is_stopping() const;
    void enable_debug_output();

public slots:
    // A later command replaces one the loop has not taken yet; the loop polls, so no wake-up.
    void set_command(SM_A::Command c);
    void do_stop();

signals:
    // The declaration order is the signal index order; keep it.
    void sig_NoDevConn();
    void sig_DevConn();
    void sig_scanning();
    void sig_readingInfo();
    void sig_DeviceError(QString message);
    void sig_FwDownloading();
    void sig_FwDownloaded();
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

protected:
    void run() override;
};

// The one worker of the program, read by SM_B's guards; null until start-up creates it.
extern SM_A* sm_A;
