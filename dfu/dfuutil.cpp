#include "dfu/dfuutil.h"

#include <QDebug>

#include "dfu/commands.h"
#include "support/files.h"

namespace DFU::dfu_util {

// dfu-util 0.9, which the simulator prints; a tool of another release prints other copyright years.
const QString expected_output_of_execution_test =
    QStringLiteral("dfu-util 0.9\n"
                   "\n"
                   "Copyright 2005-2009 Weston Schmidt, Harald Welte and OpenMoko Inc.\n"
                   "Copyright 2010-2016 Tormod Volden and Stefan Schmidt\n"
                   "This program is Free Software and has ABSOLUTELY NO WARRANTY\n"
                   "Please report bugs to http://sourceforge.net/p/dfu-util/tickets/\n"
                   "\n");

QString basename()
{
    return Files::dfu_util_executable_fileName;
}

QString full_path()
{
    return Files::working_path(Files::dfu_util_executable_fileName);
}

bool is_expected_output(QString output, support_misc::Platform built_for)
{
    // The Windows console tool ends its lines with CR LF.
    if (built_for == support_misc::Platform::windows)
        output = support_misc::remove_carriage_returns(output, QChar(13));
    // The tool this build ships is as expected too: otherwise every start logs a working tool as a
    // broken one.
    return output == expected_output_of_execution_test || output == carried_tool_banner();
}

bool execution_test(QString* output)
{
    const CommandResult result = run_command(version, {});
    if (output)
        *output = result.output;
    const bool as_expected =
        is_expected_output(result.output, support_misc::compiled_for_platform());

    QDebug line = qInfo();
    line.noquote() << "Result of execution test: status was"
                   << (result.exit_code == 0 ? "ok" : "bad") << "and output:";
    line.quote() << (as_expected ? QStringLiteral("as expected") : result.output);

    return result.exit_code == 0 && as_expected;
}

} // namespace DFU::dfu_util
