// GuardedTransition: a signal transition that is taken only when its guard function agrees.
#pragma once

#include <QSignalTransition>

class GuardedTransition final : public QSignalTransition
{
public:
    using Guard = bool (*)();

    // A null guard accepts every awaited signal, like a plain QSignalTransition.
    template <typename Func>
    GuardedTransition(const typename QtPrivate::FunctionPointer<Func>::Object* sender, Func signal,
                      Guard guard, QState* source = nullptr)
        : QSignalTransition(sender, signal, source), guard(guard)
    {}

    ~GuardedTransition() override;

protected:
    // The guard runs only for the awaited signal of the awaited sender, never for other events.
    bool eventTest(QEvent* event) override;

private:
    Q_DISABLE_COPY_MOVE(GuardedTransition)

    Guard guard;
};
