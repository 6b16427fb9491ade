#pragma once

#include <QString>
#include <QStringList>

// Hides secrets in what the start-up banner logs: logs get attached to bug
// reports, and the environment and command line often carry credentials.
class LogRedaction
{
public:
    static constexpr const char *Mask = "***";

    // "NAME=value" entries with the value masked when the name contains TOKEN,
    // SECRET, PASSWORD, KEY or AUTH (any case), and URL credentials masked in the rest.
    static QStringList environment(const QStringList &entries);

    // The user:password part of every URL in `text` masked: "http://***@proxy:3128".
    static QString urlCredentials(const QString &text);
    static QStringList urlCredentials(const QStringList &texts);
};
