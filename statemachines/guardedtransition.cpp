#include "statemachines/guardedtransition.h"

GuardedTransition::~GuardedTransition() = default;

bool GuardedTransition::eventTest(QEvent* event)
{
    if (!QSignalTransition::eventTest(event))
        return false;
    return guard == nullptr || guard();
}
