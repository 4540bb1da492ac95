// SM_B: the upgrade flow the user sees, driven by the worker's signals in the GUI thread.
#pragma once

#include <QState>
#include <QStateMachine>
#include <QString>

#include "device/products.h"
#include "dfu/deviceinfo.h"

class SM_A;
class WorkerSignalRelay;

class SM_B final : public QStateMachine
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SM_B)

public:
    // Does not start the machine; start-up calls start() once the wiring is in place.
    SM_B(SM_A* worker, Device::Type desired_ID, QString desired_revision);
    ~SM_B() override;

    // Logs every emitted signal and the entry of every state except B9.
    void enable_debug_output();

    // Shared with the guards, which are plain functions: what the carried firmware is for.
    static Device::Type desired_ID;
    static QString desired_revision;
    // The connected unit: the record handed over with the worker's sig_DevConn that left B1, which
    // the guards decide on and the window shows; default while in B1. Its one home in the flow.
    static DFU::DeviceInfo device_info;

private:
    QState* B1;
    QState* B2;
    QState* B3;
    QState* B4;
    QState* B6;
    QState* B7;
    QState* B8;
    QState* B9;

    SM_A* worker; // not owned; in the program, the same object as sm_A
    WorkerSignalRelay* relay;

    void add_connections();

signals:
    // The declaration order is the signal index order; keep it.
    void sig_UpgradeImpossible();
    void sig_UpgradePossible();
    void sig_DifferingRevision();
    void sig_DoDownload();
    void sig_UploadingVerifying();
    void sig_FwMatches();
    void sig_FwDiffers();
    void sig_DeviceConnected();
    void sig_InvalidProduct();

public slots:
    void do_download();
};
