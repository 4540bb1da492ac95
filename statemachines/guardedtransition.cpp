#include "statemachines/guardedtransition.h"

GuardedTransition::GuardedTransition(const QObject* sender, const char* signal, Guard guard,
                                     QState* source)
    : QSignalTransition(sender, signal, source), guard(guard)
{}

GuardedTransition::~GuardedTransition() = default;

bool GuardedTransition::eventTest(QEvent* event)
{
    if (!QSignalTransition::eventTest(event))
        return false;
    return guard == nullptr || guard();
}
