#pragma once

#include <QList>
#include <QString>

// Processes of the user's tools found through /proc: a process belongs to a
// build when its executable or its working folder lies inside the build folder.
class ToolProcesses
{
public:
    struct Process
    {
        qint64 pid = 0;
        QString name; // the command name ("comm")
        QString executable;
    };

    static QList<Process> findInside(const QString &folder);
    // "quill (pid 1234)" for the first process, or empty when none runs.
    static QString describeRunning(const QString &folder);
};
