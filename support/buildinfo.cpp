#include "support/buildinfo.h"

bool have_service_build()
{
    return false;
}
