// The switch and set-up that send every dfu-util run to the simulator script instead.
#pragma once

namespace simulator {

// True: every dfu-util command is sent to the simulator script.
extern bool use;

} // namespace simulator
