#pragma once

#include "base/Option.h"
#include "projects/LatheProjectSource.h"
#include "projects/Project.h"
#include "support/LogCapture.h"

#include <QtCore>

// The file name the tools give their recent-projects list.
const QString kRecentFile = "recentProjects.xml";

// One line of a tool's recent-projects list: the path as the tool writes it (with its macros) and,
// when given, the "projectOpenTimestamp" text of its "additionalInfo" entry.
struct RecentEntry
{
    QString writtenPath;
    Option<QString> openTimestamp;
};

// A recent-projects file laid out the way the tools write it.
inline QByteArray recentProjectsXml(const QList<RecentEntry> &entries)
{
    QByteArray info, list;
    for (const RecentEntry &entry : entries) {
        const QByteArray path = entry.writtenPath.toHtmlEscaped().toUtf8();
        list += "        <option value=\"" + path + "\" />\n";
        if (entry.openTimestamp)
            info += "<entry key=\"" + path
                + "\"><value><RecentProjectMetaInfo frameTitle=\"x\" opened=\"true\">\n"
                + "  <option name=\"activationTimestamp\" value=\"1\" />\n  <option "
                  "name=\"projectOpenTimestamp\" value=\""
                + entry.openTimestamp->toUtf8() + "\" />\n</RecentProjectMetaInfo></value></entry>\n";
    }
    return "<application>\n  <component name=\"RecentProjectsManager\">\n    <option "
           "name=\"additionalInfo\">\n<map>\n"
        + info + "</map>\n    </option>\n    <option name=\"recentPaths\">\n      <list>\n" + list
        + "      </list>\n    </option>\n  </component>\n</application>\n";
}

// Creates a project folder with a ".quern" folder (optionally named), returns its path.
inline QString makeProject(const QString &path, const QString &name = QString())
{
    QDir().mkpath(path + "/.quern");
    QFile file(path + "/.quern/.name");
    if (!name.isNull() && file.open(QIODevice::WriteOnly))
        file.write(name.toUtf8());
    return path;
}

// The list naming "$USER_HOME$/<name>" for each "<name>" or "<name>@<open timestamp>" given, with
// a project folder "<base>/<name>" made for each one that does not exist yet.
inline QByteArray recent(const QString &base, const QStringList &projects)
{
    QList<RecentEntry> entries;
    for (const QString &project : projects) {
        const QString name = project.section('@', 0, 0);
        if (!QFileInfo::exists(base + "/" + name))
            makeProject(base + "/" + name);
        entries << RecentEntry { "$USER_HOME$/" + name,
            project.contains('@') ? Option<QString>(project.section('@', 1)) : None };
    }
    return recentProjectsXml(entries);
}

// Writes `content` to `path` through a temporary file renamed over it, as the tools save their files.
inline void replaceFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(content) == content.size())
        file.commit();
}

// Runs a program to completion, returns its exit code (-1 when it could not start).
inline int run(
    const QString &program, const QStringList &arguments, const QString &workingDirectory = QString())
{
    QProcess process;
    process.setWorkingDirectory(workingDirectory);
    process.start(program, arguments);
    return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit ? process.exitCode()
                                                                                          : -1;
}

// A tool "<applicationId>" on channel "ch-<applicationId>" whose configuration folders match `pattern`.
inline LatheProjectSource::Tool tool(const QString &applicationId, const QString &pattern)
{
    LatheProjectSource::Tool t;
    t.openItem = ProjectOpenItem(applicationId, "ch-" + applicationId);
    t.build = "1";
    t.configurations << LatheProjectSource::ConfigSpec { pattern, kRecentFile };
    return t;
}

inline QStringList paths(const QList<Project> &projects)
{
    QStringList result;
    for (const Project &p : projects)
        result << p.getFullPath();
    return result;
}
