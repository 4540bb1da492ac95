# Records the "-V" output of the dfu-util the program carries as a C++ source, so that the
# self-test knows the banner of the tool this build ships. Inputs: TOOL, OUTPUT.
execute_process(COMMAND "${TOOL}" -V OUTPUT_VARIABLE banner RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR banner STREQUAL "")
  message(FATAL_ERROR "${TOOL} -V failed (${rc}); cannot record its banner")
endif()
string(REPLACE "\\" "\\\\" banner "${banner}")
string(REPLACE "\"" "\\\"" banner "${banner}")
string(REPLACE "\n" "\\n\"\n    \"" banner "${banner}")
# Rewritten only when the text changes, so a rebuild of the tool alone recompiles nothing.
file(CONFIGURE OUTPUT "${OUTPUT}" @ONLY CONTENT [[
// Generated when the build embedded @TOOL@: its "-V" output.
#include "dfu/dfuutil.h"

QString DFU::dfu_util::carried_tool_banner()
{
    return QStringLiteral("@banner@");
}
]])
