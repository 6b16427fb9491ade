#pragma once

#include "base/Result.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

// The text of an XDG desktop entry ("[Desktop Entry]" with its keys) and the
// quoting its values need.
class DesktopEntryFile
{
public:
    void set(const QString &key, const QString &value);
    QString value(const QString &key) const;
    QString toString() const;
    static DesktopEntryFile fromString(const QString &text);

    // One argument of "Exec": kept bare when it holds no reserved character,
    // else between double quotes with "\"", "`", "$" and "\\" escaped; "%"
    // doubled either way.
    static QString quoteExecArgument(const QString &argument);
    // A command line for "Exec" from its arguments, each quoted as above, and
    // an optional field code ("%u") that the desktop replaces.
    static QString execLine(const QStringList &arguments, const QString &fieldCode = QString());
    // A string value: "\\", newline, tab and carriage return escaped.
    static QString escapeValue(const QString &value);
    static QString unescapeValue(const QString &value);

    // Writes the entry when the file does not already hold this text; tells
    // whether it wrote. The folder is made when missing.
    Result<bool> save(const QString &path) const;
    // Runs update-desktop-database on the folder when the program exists; never
    // waits for it and never fails.
    static void refreshDatabase(const QString &folder);

private:
    QList<QPair<QString, QString>> m_entries;
};
