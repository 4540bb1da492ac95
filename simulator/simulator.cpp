#include "simulator/simulator.h"

namespace simulator {

#ifdef LUMAXIS_SIMULATOR_DEFAULT
bool use = true;
#else
bool use = false;
#endif

} // namespace simulator
