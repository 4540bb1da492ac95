#include "cli/invocation.h"

#include <QCommandLineParser>
#include <QCoreApplication>

namespace Cli {

namespace {

struct CommandSpec
{
    const char* name;
    const char* description;
    bool serial, json, wait, repeat, force;
};

const CommandSpec specs[] = {
    {"list",
     "List every attached bootloader: serial, USB path, product, firmware revision, access.", false,
     true, false, false, false},
    {"info", "Show the unit's identity record and firmware information block.", true, true, false,
     false, false},
    {"upgrade",
     "Write the carried firmware into the unit, read it back and compare, then start it.", true,
     true, true, true, true},
    {"verify", "Read the unit's flash back and compare it with the carried firmware.", true, true,
     false, false, false},
};

const QString general_help = QStringLiteral(
    "Usage: lumaxis-upgrade-cli COMMAND [options]\n"
    "Upgrades Lumaxis units in bootloader mode from the command line.\n\n"
    "Commands:\n"
    "  list      every attached bootloader, one line each\n"
    "  info      the unit's identity and firmware information\n"
    "  upgrade   write the carried firmware and verify it\n"
    "  verify    read the flash back and compare only\n\n"
    "\"lumaxis-upgrade-cli COMMAND --help\" describes a command's options.\n"
    "Exit status: 0 done or already current, 1 start-up failed, 2 bad usage, 3 no unit,\n"
    "4 several units, 5 another product, 6 blank identity, 7 no permission, 8 write failed,\n"
    "9 verification failed, 10 identity could not be read.\n");

} // namespace

int parse_invocation(const QStringList& arguments, Invocation* invocation, QString* out,
                     QString* err)
{
    // The command is the first word that is not an option; every option belongs to it.
    QStringList rest = arguments;
    int at = 1;
    while (at < rest.size() && rest[at].startsWith(QLatin1Char('-')))
        ++at;
    if (at == rest.size()) {
        if (rest.contains(QStringLiteral("--version"))) {
            *out = QCoreApplication::applicationName() + QLatin1Char(' ') +
                   QCoreApplication::applicationVersion() + QLatin1Char('\n');
            return Done;
        }
        if (rest.contains(QStringLiteral("--help")) || rest.contains(QStringLiteral("-h"))) {
            *out = general_help;
            return Done;
        }
        *err = QStringLiteral("No command given.\n\n") + general_help;
        return Usage;
    }
    const QString word = rest.takeAt(at);
    const CommandSpec* spec = nullptr;
    for (const CommandSpec& candidate : specs)
        if (word == QLatin1String(candidate.name))
            spec = &candidate;
    if (!spec) {
        *err = QStringLiteral("Unknown command \"%1\".\n\n").arg(word) + general_help;
        return Usage;
    }

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(spec->description));
    parser.addPositionalArgument(word, QString::fromLatin1(spec->description));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Show this help."));
    const QCommandLineOption serial(QStringLiteral("serial"),
                                    QStringLiteral("The unit with this serial number."),
                                    QStringLiteral("SERIAL"));
    const QCommandLineOption path(
        QStringLiteral("path"),
        QStringLiteral("The unit at this USB path (as list shows it), where serials repeat."),
        QStringLiteral("PATH"));
    const QCommandLineOption json(QStringLiteral("json"),
                                  QStringLiteral("Print JSON (upgrade, verify: one object a unit, "
                                                 "one line each)."));
    const QCommandLineOption wait(QStringLiteral("wait"),
                                  QStringLiteral("Wait for a unit to be attached."));
    const QCommandLineOption repeat(
        QStringLiteral("repeat"),
        QStringLiteral("Go on with the next unit until interrupted; one line per unit."));
    const QCommandLineOption force(QStringLiteral("force"),
                                   QStringLiteral("Write even when the revision is the same."));
    const QCommandLineOption simulator(
        QStringLiteral("simulator"),
        QStringLiteral("Run every dfu-util call through the simulator script."));
    const QCommandLineOption verbose({QStringLiteral("v"), QStringLiteral("verbose")},
                                     QStringLiteral("Show the log lines of every dfu-util run."));
    parser.addOption(help);
    const std::pair<bool, const QCommandLineOption*> own[] = {
        {spec->serial, &serial}, {spec->serial, &path},   {spec->json, &json},
        {spec->wait, &wait},     {spec->repeat, &repeat}, {spec->force, &force}};
    for (const auto& [wanted, option] : own)
        if (wanted)
            parser.addOption(*option);
    parser.addOption(simulator);
    parser.addOption(verbose);

    if (!parser.parse(rest)) {
        *err = parser.errorText() + QLatin1Char('\n');
        return Usage;
    }
    if (parser.isSet(help)) {
        *out = parser.helpText().replace(QStringLiteral("[options] ") + word,
                                         word + QStringLiteral(" [options]"));
        return Done;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *err = QStringLiteral("Unexpected argument \"%1\".\n")
                   .arg(parser.positionalArguments().first());
        return Usage;
    }
    invocation->command = word;
    Options& options = invocation->options;
    for (const auto& [option, value] :
         {std::pair{&serial, &options.serial}, {&path, &options.path}}) {
        if (!spec->serial || !parser.isSet(*option))
            continue;
        *value = parser.value(*option);
        if (value->isEmpty()) {
            *err = QStringLiteral("--%1 needs a value.\n").arg(option->names().first());
            return Usage;
        }
    }
    options.json = spec->json && parser.isSet(json);
    options.repeat = spec->repeat && parser.isSet(repeat);
    options.wait = options.repeat || (spec->wait && parser.isSet(wait));
    options.force = spec->force && parser.isSet(force);
    invocation->simulator = parser.isSet(simulator);
    invocation->verbose = parser.isSet(verbose);
    return -1;
}

} // namespace Cli
