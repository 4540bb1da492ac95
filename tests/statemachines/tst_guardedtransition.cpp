// Tests of GuardedTransition: base test first, guard second, first enabled transition wins.
#include <QSignalSpy>
#include <QStateMachine>
#include <QTest>
#include <QThread>

#include "statemachines/guardedtransition.h"

namespace {

class Sender final : public QObject
{
    Q_OBJECT
signals:
    void fire();
    void other();
};

// Guards are plain functions, so they report to file-level state.
QStringList guard_calls;
bool guard_results[3] = {false, false, false};
QThread* guard_thread = nullptr;

bool guard_a()
{
    guard_calls << QStringLiteral("a");
    guard_thread = QThread::currentThread();
    return guard_results[0];
}

bool guard_b()
{
    guard_calls << QStringLiteral("b");
    return guard_results[1];
}

bool guard_c()
{
    guard_calls << QStringLiteral("c");
    return guard_results[2];
}

// One source state S0 with guarded transitions a, b, c (added in that order) to T_a, T_b, T_c.
struct Machine
{
    QStateMachine machine;
    QState* s0 = new QState(&machine);
    QState* t_a = new QState(&machine);
    QState* t_b = new QState(&machine);
    QState* t_c = new QState(&machine);

    explicit Machine(Sender* sender)
    {
        s0->setObjectName(QStringLiteral("S0"));
        t_a->setObjectName(QStringLiteral("T_a"));
        t_b->setObjectName(QStringLiteral("T_b"));
        t_c->setObjectName(QStringLiteral("T_c"));
        (new GuardedTransition(sender, &Sender::fire, guard_a, s0))->setTargetState(t_a);
        (new GuardedTransition(sender, SIGNAL(fire()), guard_b, s0))->setTargetState(t_b);
        (new GuardedTransition(sender, &Sender::fire, guard_c, s0))->setTargetState(t_c);
        machine.setInitialState(s0);
    }

    bool start()
    {
        QSignalSpy started(&machine, &QStateMachine::started);
        machine.start();
        return started.wait();
    }

    QString current() const
    {
        const auto states = machine.configuration();
        return states.size() == 1 ? (*states.begin())->objectName() : QStringLiteral("?");
    }
};

} // namespace

class tst_GuardedTransition final : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        guard_calls.clear();
        guard_thread = nullptr;
    }

    void guards_in_order_data()
    {
        QTest::addColumn<bool>("a");
        QTest::addColumn<bool>("b");
        QTest::addColumn<bool>("c");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QString>("state");

        QTest::newRow("all agree: the first added wins, later guards are not asked")
            << true << true << true << QStringList{"a"} << "T_a";
        QTest::newRow("first refuses") << false << true << true << QStringList{"a", "b"} << "T_b";
        QTest::newRow("only the last agrees")
            << false << false << true << QStringList{"a", "b", "c"} << "T_c";
        QTest::newRow("none agrees: event dropped")
            << false << false << false << QStringList{"a", "b", "c"} << "S0";
    }

    void guards_in_order()
    {
        QFETCH(bool, a);
        QFETCH(bool, b);
        QFETCH(bool, c);
        guard_results[0] = a;
        guard_results[1] = b;
        guard_results[2] = c;
        Sender sender;
        Machine m(&sender);
        QVERIFY(m.start());

        emit sender.fire();

        QTEST(guard_calls, "calls");
        QTEST(m.current(), "state");
    }

    void guard_not_asked_for_other_events_data()
    {
        QTest::addColumn<bool>("same_sender");
        QTest::newRow("other signal of the awaited sender") << true;
        QTest::newRow("awaited signal of another sender") << false;
    }

    void guard_not_asked_for_other_events()
    {
        QFETCH(bool, same_sender);
        guard_results[0] = guard_results[1] = guard_results[2] = true;
        Sender sender;
        Sender stranger;
        Machine m(&sender);
        // Unguarded transitions after the guarded ones show that the event did reach the machine.
        (new GuardedTransition(&stranger, &Sender::fire, nullptr, m.s0))->setTargetState(m.t_c);
        (new GuardedTransition(&sender, &Sender::other, nullptr, m.s0))->setTargetState(m.t_c);
        QVERIFY(m.start());

        if (same_sender)
            emit sender.other();
        else
            emit stranger.fire();

        QCOMPARE(guard_calls, QStringList());
        QCOMPARE(m.current(), QStringLiteral("T_c"));
    }

    void null_guard_accepts()
    {
        Sender sender;
        QStateMachine machine;
        auto* s0 = new QState(&machine);
        auto* s1 = new QState(&machine);
        (new GuardedTransition(&sender, &Sender::fire, nullptr, s0))->setTargetState(s1);
        machine.setInitialState(s0);
        QSignalSpy started(&machine, &QStateMachine::started);
        machine.start();
        QVERIFY(started.wait());

        QSignalSpy entered(s1, &QState::entered);
        emit sender.fire();
        QCOMPARE(entered.count(), 1);
    }

    void signal_from_another_thread_is_tested_in_the_machine_thread()
    {
        guard_results[0] = false;
        guard_results[1] = true;
        Sender sender;
        Machine m(&sender);
        QVERIFY(m.start());
        QSignalSpy entered(m.t_b, &QState::entered);

        QScopedPointer<QThread> thread(QThread::create([&sender] { emit sender.fire(); }));
        thread->start();
        QVERIFY(entered.wait());
        QVERIFY(thread->wait(5000));

        QCOMPARE(guard_calls, (QStringList{"a", "b"}));
        QCOMPARE(guard_thread, QThread::currentThread());
        QCOMPARE(m.current(), QStringLiteral("T_b"));
    }
};

QTEST_GUILESS_MAIN(tst_GuardedTransition)
#include "tst_guardedtransition.moc"
