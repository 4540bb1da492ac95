// Where the extracted dfu-util lies, and the self-test that proves it runs and is the expected
// release.
#pragma once

#include <QString>

#include "support/support_misc.h"

namespace DFU::dfu_util {

// The exact "-V" output of the release this program was built against (0.9).
extern const QString expected_output_of_execution_test;
// The "-V" output of the dfu-util this build carries, recorded when it was embedded.
QString carried_tool_banner();

QString basename();
QString full_path();

// Whether a "-V" output equals the expected banner or the carried tool's, after the line-end
// clean-up that a build for the given platform applies.
bool is_expected_output(QString output, support_misc::Platform built_for);

// Runs the tool once and logs the outcome; start-up goes on whatever it returns. What the tool
// printed goes to *output when given: a tool that started prints its banner at least.
bool execution_test(QString* output = nullptr);

} // namespace DFU::dfu_util
