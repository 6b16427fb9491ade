#pragma once

#include "base/Option.h"
#include "projects/LatheProjectSource.h"
#include "projects/Project.h"
#include "support/LogCapture.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// One line of a tool's recent-projects list: the path as the tool writes it (with its macros) and,
// when given, the "projectOpenTimestamp" text of its "additionalInfo" entry.
struct RecentEntry
{
    QString writtenPath;
    Option<QString> openTimestamp;
};

// A recent-projects file laid out the way the tools write it.
QByteArray recentProjectsXml(const QList<RecentEntry> &entries);

// Writes `content` to `path` through a temporary file renamed over it, as the tools save their files.
void replaceFile(const QString &path, const QByteArray &content);

// Creates a project folder with a ".quern" folder (optionally named), returns its path.
QString makeProject(const QString &path, const QString &name = QString());

// Runs a program to completion, returns its exit code (-1 when it could not start).
int run(const QString &program, const QStringList &arguments, const QString &workingDirectory = QString());

// The file name the tools give their recent-projects list.
extern const QString kRecentFile;

// A tool "<applicationId>" on channel "ch-<applicationId>" whose configuration folders match `pattern`.
LatheProjectSource::Tool tool(const QString &applicationId, const QString &pattern);

QStringList paths(const QList<Project> &projects);
