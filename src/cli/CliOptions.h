#pragma once

#include "base/Result.h"

#include <QString>
#include <QStringList>

// One parsed hangarctl invocation. Options may stand anywhere after the command name.
struct CliOptions
{
    QString command; // "list", "install", ... ; empty with --help alone
    QStringList args; // positional arguments after the command
    bool json = false; // print the API's answer or the model entries as JSON
    bool help = false;
    bool available = false; // list --available
    bool all = false; // update --all
    bool check = false; // self-update --check
    QString channel; // --channel ID: the channel to install into or to act on

    // Reads argv without the program name. A usage error is a readable text (exit code 2).
    static Result<CliOptions> parse(const QStringList &arguments);
    // The general usage, or one command's when `command` names one.
    static QString helpText(const QString &command = QString());
};
