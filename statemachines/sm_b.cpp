#include "statemachines/sm_b.h"

#include <cstdio>
#include <functional>
#include <utility>

#include <QDebug>
#include <QHash>
#include <QMetaMethod>

#include "statemachines/guardedtransition.h"
#include "statemachines/sm_a.h"
#include "dfu/upgraderules.h"

// One worker signal, re-emitted in the GUI thread.
class RelayedSignal final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(RelayedSignal)

public:
    using QObject::QObject;

signals:
    void relayed();
};

// A QState connects its signal transitions only when the state is first entered, and
// QStateMachine ignores that a QThread object's signals come from another thread: a worker signal
// emitted before its state had ever been entered was lost (a unit pulled right after its first
// read-out left the flow offering an install for a missing unit). The relay is connected to the
// worker for the machine's whole life and re-emits in the GUI thread, so the machine sees every
// worker signal as if it had been emitted directly, in the state current at delivery.
// Transitions reach a worker signal only through carry(), which connects it on first use: a
// transition cannot wait on a worker signal the relay does not carry.
class WorkerSignalRelay final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(WorkerSignalRelay)

public:
    // on_unit takes the record that comes with sig_DevConn, before the transitions see it.
    WorkerSignalRelay(SM_A* worker, std::function<void(const DFU::DeviceInfo&)> on_unit,
                      QObject* parent)
        : QObject(parent), worker(worker), on_unit(std::move(on_unit))
    {}

    const RelayedSignal* carry(void (SM_A::*signal)())
    {
        const auto [out, fresh] = channel(QMetaMethod::fromSignal(signal));
        if (fresh && worker)
            connect(worker, signal, out, &RelayedSignal::relayed);
        return out;
    }

    const RelayedSignal* carry(void (SM_A::*signal)(DFU::DeviceInfo))
    {
        const auto [out, fresh] = channel(QMetaMethod::fromSignal(signal));
        if (fresh && worker) {
            // The record comes with the signal; the guards decide on exactly this copy.
            connect(worker, signal, out, [this, out = out](const DFU::DeviceInfo& info) {
                on_unit(info);
                emit out->relayed();
            });
        }
        return out;
    }

private:
    SM_A* worker;                        // not owned
    std::function<void(const DFU::DeviceInfo&)> on_unit;
    QHash<int, RelayedSignal*> channels; // by the worker signal's method index

    // The channel of a worker signal, and whether it was made just now.
    std::pair<RelayedSignal*, bool> channel(const QMetaMethod& signal)
    {
        if (RelayedSignal* out = channels.value(signal.methodIndex()))
            return {out, false};
        auto* out = new RelayedSignal(this);
        channels.insert(signal.methodIndex(), out);
        return {out, true};
    }
};

Device::Type SM_B::desired_ID = Device::Invalid;
QString SM_B::desired_revision;
DFU::DeviceInfo SM_B::device_info;

namespace {

// The guards decide on SM_B::device_info, the record that came with the sig_DevConn being decided
// on (the worker has moved on to its own next record by then), by the upgrade's rules.

Upgrade::Verdict verdict()
{
    return Upgrade::verdict(SM_B::device_info, {SM_B::desired_ID, SM_B::desired_revision});
}

// The type check's line: printed by the type guards, before or after their test as each has it.
Upgrade::Verdict printed_verdict()
{
    const DFU::DeviceInfo& info = SM_B::device_info;
    std::printf("device_has_valid_type(%i): valid %i, device_type: %i\n",
                static_cast<int>(SM_B::desired_ID), info.valid ? 1 : 0,
                static_cast<int>(info.type));
    std::fflush(stdout);
    return verdict();
}

// A blank unit is told apart even though nothing else valid could be read from it.
bool device_OTP_is_empty()
{
    return verdict() == Upgrade::Verdict::Blank;
}

bool device_has_wrong_type()
{
    return verdict() != Upgrade::Verdict::Unreadable &&
           printed_verdict() == Upgrade::Verdict::OtherProduct;
}

bool device_has_other_revision()
{
    return printed_verdict() == Upgrade::Verdict::OtherRevision;
}

bool device_has_same_revision()
{
    return printed_verdict() == Upgrade::Verdict::SameRevision;
}

QState* make_state(QStateMachine* machine, const char* name)
{
    auto* state = new QState;
    state->setObjectName(QString::fromUtf8(name));
    machine->addState(state);
    return state;
}

} // namespace

SM_B::SM_B(SM_A* worker, Device::Type desired_ID, QString desired_revision)
    : QStateMachine(nullptr), B1(make_state(this, "B1: No (DFU-SE) dev. conn.")),
      B2(make_state(this, "B2: Conn. to (DFU-SE) dev. with diff. FW rev.")),
      B3(make_state(this, "B3: Upgrading FW")),
      B4(make_state(this, "B4: Uploading and verifying FW")),
      B6(make_state(this, "B6: FW in dev. matches")),
      B7(make_state(this, "B7: FW in dev. differs")),
      B8(make_state(this, "B8: Invalid (DFU-SE) dev. conn.")),
      B9(make_state(this, "B9: Conn. to (DFU-SE) dev. with Empty OTP.")), worker(worker),
      relay(new WorkerSignalRelay(
          worker,
          [this](const DFU::DeviceInfo& unit) {
              // Only B1 awaits a unit; elsewhere the flow keeps the one it is working on.
              if (configuration().contains(B1))
                  device_info = unit;
          },
          this))
{
    SM_B::desired_ID = desired_ID;
    SM_B::desired_revision = std::move(desired_revision);

    // The one way a transition names a worker signal: through the relay.
    const auto on_worker = [this](QState* from, auto signal, QState* to,
                                  GuardedTransition::Guard guard = nullptr) {
        auto* transition =
            new GuardedTransition(relay->carry(signal), &RelayedSignal::relayed, guard);
        transition->setTargetState(to);
        from->addTransition(transition);
    };
    // When several transitions of one state accept the same signal, the one added first wins,
    // so the guards are consulted in this order.
    on_worker(B1, &SM_A::sig_DevConn, B9, device_OTP_is_empty);
    on_worker(B1, &SM_A::sig_DevConn, B8, device_has_wrong_type);
    on_worker(B1, &SM_A::sig_DevConn, B2, device_has_other_revision);
    on_worker(B1, &SM_A::sig_DevConn, B4, device_has_same_revision);

    B2->addTransition(this, &SM_B::sig_DoDownload, B3);
    on_worker(B2, &SM_A::sig_NoDevConn, B1);
    // B3 leaves only when the worker starts its next cycle after the download.
    on_worker(B3, &SM_A::sig_NoDevConn, B1);
    // No exit from B4 on disconnect: a unit pulled while verifying fails the upload, which the
    // worker reports as a difference.
    on_worker(B4, &SM_A::sig_FwUploadedMatches, B6);
    on_worker(B4, &SM_A::sig_FwUploadedDiffers, B7);
    on_worker(B6, &SM_A::sig_NoDevConn, B1);
    B7->addTransition(this, &SM_B::sig_DoDownload, B3);
    on_worker(B7, &SM_A::sig_NoDevConn, B1);
    on_worker(B8, &SM_A::sig_NoDevConn, B1);
    // Kept although a normal build announces a blank unit as not upgradable.
    B9->addTransition(this, &SM_B::sig_DoDownload, B3);
    on_worker(B9, &SM_A::sig_NoDevConn, B1);

    setInitialState(B1);
    add_connections();
}

SM_B::~SM_B() = default;

void SM_B::do_download()
{
    emit sig_DoDownload();
}

void SM_B::add_connections()
{
    connect(B1, &QState::entered, this, [this] {
        emit sig_UpgradeImpossible();
        device_info = DFU::DeviceInfo();
    });
    // B1 is left only on sig_DevConn, and its exit runs before the target's entry, so the unit's
    // identity is known before any other announcement.
    connect(B1, &QState::exited, this, [this] {
        qInfo() << "Device connected with:\n" << device_info;
        emit sig_DeviceConnected();
    });
    connect(B2, &QState::entered, this, [this] {
        emit sig_UpgradePossible();
        emit sig_DifferingRevision();
    });
    connect(B9, &QState::entered, this, [this] {
        if (Upgrade::may_write(Upgrade::Verdict::Blank, false))
            emit sig_UpgradePossible();
        else
            emit sig_UpgradeImpossible();
        emit sig_DifferingRevision();
    });
    connect(B3, &QState::entered, this, [this] {
        if (worker)
            worker->set_command(SM_A::Download);
    });
    connect(B4, &QState::entered, this, [this] {
        emit sig_UploadingVerifying();
        if (worker)
            worker->set_command(SM_A::UploadVerify);
    });
    connect(B6, &QState::entered, this, [this] { emit sig_FwMatches(); });
    connect(B7, &QState::entered, this, [this] {
        // The unit's revision is the carried one but its check did not match: a repair.
        if (Upgrade::may_write(Upgrade::Verdict::SameRevision, false, true))
            emit sig_UpgradePossible();
        emit sig_FwDiffers();
    });
    connect(B8, &QState::entered, this, [this] { emit sig_InvalidProduct(); });
}

void SM_B::enable_debug_output()
{
    qDebug() << "SM_B: Add connections to show emitted signals";

    const struct
    {
        void (SM_B::*signal)();
        const char* name;
    } emitted[] = {
        {&SM_B::sig_UpgradeImpossible, "UpgradeImpossible"},
        {&SM_B::sig_UpgradePossible, "UpgradePossible"},
        {&SM_B::sig_DifferingRevision, "DifferingRevision"},
        {&SM_B::sig_DoDownload, "DoDownload"},
        {&SM_B::sig_UploadingVerifying, "UploadingVerifying"},
        {&SM_B::sig_FwMatches, "FwMatches"},
        {&SM_B::sig_FwDiffers, "FwDiffers"},
        {&SM_B::sig_DeviceConnected, "DeviceConnected"},
        {&SM_B::sig_InvalidProduct, "InvalidProduct"},
    };
    for (const auto& s : emitted) {
        const QString line = QStringLiteral("SM_B: /sig_%1").arg(QString::fromUtf8(s.name));
        connect(this, s.signal, this, [line] { qDebug() << line; });
    }

    // B9 is left out on purpose: its entry is announced by its signals only.
    for (QState* state : {B1, B2, B3, B4, B6, B7, B8}) {
        const QString line = QStringLiteral("SM_B: entered %1").arg(state->objectName());
        connect(state, &QState::entered, this, [line] { qDebug() << line; });
    }
}

#include "sm_b.moc"
