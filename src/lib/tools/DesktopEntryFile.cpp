#include "tools/DesktopEntryFile.h"

#include "tools/ToolFiles.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

void DesktopEntryFile::set(const QString &key, const QString &value)
{
    for (auto &entry : m_entries)
        if (entry.first == key) {
            entry.second = value;
            return;
        }
    m_entries.append({ key, value });
}

QString DesktopEntryFile::value(const QString &key) const
{
    for (const auto &entry : m_entries)
        if (entry.first == key)
            return entry.second;
    return QString();
}

QString DesktopEntryFile::toString() const
{
    QString text = QStringLiteral("[Desktop Entry]\n");
    for (const auto &entry : m_entries)
        text += entry.first + QLatin1Char('=') + escapeValue(entry.second) + QLatin1Char('\n');
    return text;
}

DesktopEntryFile DesktopEntryFile::fromString(const QString &text)
{
    DesktopEntryFile file;
    bool inMain = false;
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        if (line.startsWith(QLatin1Char('['))) {
            inMain = line.trimmed() == QLatin1String("[Desktop Entry]");
            continue;
        }
        const int equals = line.indexOf(QLatin1Char('='));
        if (!inMain || equals <= 0 || line.startsWith(QLatin1Char('#')))
            continue;
        file.m_entries.append({ line.left(equals).trimmed(), unescapeValue(line.mid(equals + 1)) });
    }
    return file;
}

QString DesktopEntryFile::quoteExecArgument(const QString &argument)
{
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    bool needsQuotes = argument.isEmpty();
    for (const QChar c : argument)
        if (reserved.contains(c))
            needsQuotes = true;
    QString quoted;
    if (needsQuotes)
        quoted += QLatin1Char('"');
    for (const QChar c : argument) {
        if (needsQuotes
            && (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$')
                || c == QLatin1Char('\\')))
            quoted += QLatin1Char('\\');
        if (c == QLatin1Char('%'))
            quoted += QLatin1Char('%');
        quoted += c;
    }
    if (needsQuotes)
        quoted += QLatin1Char('"');
    return quoted;
}

QString DesktopEntryFile::execLine(const QStringList &arguments, const QString &fieldCode)
{
    QStringList quoted;
    for (const QString &argument : arguments)
        quoted << quoteExecArgument(argument);
    if (!fieldCode.isEmpty())
        quoted << fieldCode;
    return quoted.join(QLatin1Char(' '));
}

QString DesktopEntryFile::escapeValue(const QString &value)
{
    QString escaped;
    for (const QChar c : value) {
        if (c == QLatin1Char('\\'))
            escaped += QLatin1String("\\\\");
        else if (c == QLatin1Char('\n'))
            escaped += QLatin1String("\\n");
        else if (c == QLatin1Char('\t'))
            escaped += QLatin1String("\\t");
        else if (c == QLatin1Char('\r'))
            escaped += QLatin1String("\\r");
        else
            escaped += c;
    }
    return escaped;
}

QString DesktopEntryFile::unescapeValue(const QString &value)
{
    QString plain;
    for (int i = 0; i < value.size(); ++i) {
        const QChar c = value[i];
        if (c != QLatin1Char('\\') || i + 1 == value.size()) {
            plain += c;
            continue;
        }
        const QChar next = value[++i];
        if (next == QLatin1Char('n'))
            plain += QLatin1Char('\n');
        else if (next == QLatin1Char('t'))
            plain += QLatin1Char('\t');
        else if (next == QLatin1Char('r'))
            plain += QLatin1Char('\r');
        else if (next == QLatin1Char('s'))
            plain += QLatin1Char(' ');
        else
            plain += next;
    }
    return plain;
}

Result<bool> DesktopEntryFile::save(const QString &path) const
{
    const QString text = toString();
    const Result<QByteArray> current = ToolFiles::readIfExists(path);
    if (current && QFileInfo::exists(path) && QString::fromUtf8(*current) == text)
        return false;
    const QString folder = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(folder))
        return Error("Unable to create folder " + folder);
    const Result<void> written = ToolFiles::writeAtomically(path, text.toUtf8());
    if (!written)
        return written.toError();
    return true;
}

void DesktopEntryFile::refreshDatabase(const QString &folder)
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("update-desktop-database"));
    if (program.isEmpty())
        return;
    if (!QProcess::startDetached(program, { folder }))
        qInfo().noquote() << "Unable to start" << program;
}
