// The switch and set-up that send every dfu-util run to the simulator script instead.
#pragma once

#include <QString>

namespace simulator {

// True: every dfu-util command is sent to the simulator script.
extern bool use;

// Set-up choices; only bit 0 has a meaning.
enum Setup : unsigned {
    normal_progress = 0,
    fast_progress = 1, // every rewritten command also carries "--fast-progress"
};

// Points every command-table entry at the simulator script, its command word in front of the
// fixed arguments. Prefixes again when called twice, so call it once, before any command runs.
void setup_for_simulated_dfu_util(Setup setup);

// The simulator directory, "/" and name. The directory is the one the environment variable
// LUMAXIS_SIMULATOR_DIR names, else the simulator folder found from the program's own folder:
// share/lumaxis-upgrade/simulator of an installed prefix, or the build tree's simulator folder.
QString dfu_util_path(QString name);

// Asks the script to reset its state to the prepared scenario config; returns its exit code.
int sim_setup_prepared_config(QString config);

} // namespace simulator
