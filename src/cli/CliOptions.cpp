#include "CliOptions.h"

#include <QMap>

namespace {

struct CommandSpec
{
    const char *synopsis;
    const char *summary;
    int minArgs;
    int maxArgs; // -1: any number
    QStringList flags; // command-specific flags besides --json, --help and --channel
};

const QList<QPair<QString, CommandSpec>> &commands()
{
    static const QList<QPair<QString, CommandSpec>> table{
        {"list", {"list [--available]", "Installed tools with channel, version and the update offered; "
                                        "--available lists the tools and builds the feed offers.",
                  0, 0, {"--available"}}},
        {"install", {"install TOOL[@BUILD] [--channel ID]",
                     "Installs the tool's most stable build, or BUILD; into channel ID when given, else a new channel.",
                     1, 1, {}}},
        {"update", {"update TOOL...|--all", "Updates the named tools, or every tool with an update offered.", 0, -1,
                    {"--all"}}},
        {"rollback", {"rollback TOOL", "Goes back to the previous installed build.", 1, 1, {}}},
        {"downgrade", {"downgrade TOOL", "Installs the older build the feed offers.", 1, 1, {}}},
        {"reinstall", {"reinstall TOOL", "Installs the current build again.", 1, 1, {}}},
        {"skip", {"skip TOOL", "Skips the update offered for the tool.", 1, 1, {}}},
        {"uninstall", {"uninstall TOOL", "Removes the tool's channel: its builds, history and settings.", 1, 1, {}}},
        {"purge", {"purge", "Removes old builds beyond the rollback depth.", 0, 0, {}}},
        {"open", {"open TOOL [PROJECT_PATH]", "Starts the tool, with the project when one is given.", 1, 2, {}}},
        {"projects", {"projects", "Recent projects with the tools that open them.", 0, 0, {}}},
        {"refresh", {"refresh", "Downloads the feed again and shows what changed.", 0, 0, {}}},
        {"self-update", {"self-update [--check]", "Updates the manager itself; --check only reports the status.", 0,
                         0, {"--check"}}},
        {"settings", {"settings get KEY | settings set KEY VALUE",
                      "Reads or changes a setting. KEY is one of install-location, auto-update, "
                      "auto-update-tools, rollback-depth, shell-scripts-folder, update-channel, or a "
                      "dotted path in the settings document.",
                      2, 3, {}}},
    };
    return table;
}

} // namespace

static const CommandSpec *findCommand(const QString &name)
{
    for (const auto &command : commands()) {
        if (command.first == name)
            return &command.second;
    }
    return nullptr;
}

QString CliOptions::helpText(const QString &command)
{
    if (const CommandSpec *it = findCommand(command)) {
        return QStringLiteral("Usage: hangarctl %1 [--json]\n\n%2\n\nTOOL is the tool's id or the name shown in "
                              "the list, in any case; --channel ID picks one channel when several match.\n")
            .arg(QLatin1String(it->synopsis), QLatin1String(it->summary));
    }
    QString text = QStringLiteral("Usage: hangarctl [--json] COMMAND [ARGS]\n\n"
                                  "Drives the running Hangar manager (or starts one for the command).\n\nCommands:\n");
    for (const auto &entry : commands())
        text += QStringLiteral("  %1\n").arg(QLatin1String(entry.second.synopsis));
    text += QStringLiteral("\nOptions:\n  --json     print the manager's answer as JSON\n"
                           "  --help     this text, or a command's with `hangarctl COMMAND --help`\n\n"
                           "Exit codes: 0 done, 1 the action failed, 2 usage error, 3 the manager could not be "
                           "reached or started, 130 interrupted.\n");
    return text;
}

Result<CliOptions> CliOptions::parse(const QStringList &arguments)
{
    CliOptions options;
    QStringList positional;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &arg = arguments.at(i);
        if (arg == QLatin1String("--json")) {
            options.json = true;
        } else if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            options.help = true;
        } else if (arg == QLatin1String("--channel") || arg.startsWith(QLatin1String("--channel="))) {
            if (arg.contains(QLatin1Char('='))) {
                options.channel = arg.section(QLatin1Char('='), 1);
            } else if (i + 1 < arguments.size()) {
                options.channel = arguments.at(++i);
            }
            if (options.channel.isEmpty())
                return Error(QStringLiteral("--channel needs a channel id"));
        } else if (arg == QLatin1String("--available")) {
            options.available = true;
        } else if (arg == QLatin1String("--all")) {
            options.all = true;
        } else if (arg == QLatin1String("--check")) {
            options.check = true;
        } else if (arg.startsWith(QLatin1String("--")) && arg != QLatin1String("--")) {
            return Error(QStringLiteral("Unknown option: %1").arg(arg));
        } else if (arg != QLatin1String("--")) {
            positional << arg;
        }
    }
    if (positional.isEmpty()) {
        if (options.help)
            return options;
        return Error(QStringLiteral("No command given"));
    }
    options.command = positional.takeFirst();
    options.args = positional;
    const CommandSpec *known = findCommand(options.command);
    if (!known)
        return Error(QStringLiteral("Unknown command: %1").arg(options.command));
    if (options.help)
        return options;

    const QList<QPair<bool, QString>> flags{{options.available, QStringLiteral("--available")},
                                            {options.all, QStringLiteral("--all")},
                                            {options.check, QStringLiteral("--check")}};
    for (const auto &flag : flags) {
        if (flag.first && !known->flags.contains(flag.second))
            return Error(QStringLiteral("%1 does not apply to %2").arg(flag.second, options.command));
    }
    const int count = options.args.size();
    if (options.command == QLatin1String("update")) {
        if (options.all == (count > 0))
            return Error(QStringLiteral("update takes tool names or --all"));
    } else if (count < known->minArgs || (known->maxArgs >= 0 && count > known->maxArgs)) {
        return Error(QStringLiteral("Wrong number of arguments for %1").arg(options.command));
    }
    if (options.command == QLatin1String("settings")) {
        const QString verb = options.args.at(0);
        if (!((verb == QLatin1String("get") && count == 2) || (verb == QLatin1String("set") && count == 3)))
            return Error(QStringLiteral("settings takes `get KEY` or `set KEY VALUE`"));
    }
    return options;
}
