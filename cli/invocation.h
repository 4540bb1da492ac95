// The companion's command line: a command word, its options, and the shared ones.
#pragma once

#include <QString>
#include <QStringList>

#include "cli/companion.h"

namespace Cli {

struct Invocation
{
    QString command; // list, info, upgrade or verify
    Options options;
    bool simulator = false;
    bool verbose = false;
};

// Parses arguments (the program's name first). On success returns -1 and fills *invocation;
// otherwise the exit status, with the text to print in *out (help, version: 0) or *err (Usage).
int parse_invocation(const QStringList& arguments, Invocation* invocation, QString* out,
                     QString* err);

} // namespace Cli
