#include "ProjectsFixtures.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>

QByteArray recentProjectsXml(const QList<RecentEntry> &entries)
{
    QByteArray xml = "<application>\n  <component name=\"RecentProjectsManager\">\n"
                     "    <option name=\"additionalInfo\">\n      <map>\n";
    for (const RecentEntry &entry : entries) {
        if (!entry.openTimestamp)
            continue;
        xml += "        <entry key=\"" + entry.writtenPath.toHtmlEscaped().toUtf8()
            + "\">\n"
              "          <value>\n"
              "            <RecentProjectMetaInfo frameTitle=\"x\" opened=\"true\">\n"
              "              <option name=\"activationTimestamp\" value=\"1\" />\n"
              "              <option name=\"projectOpenTimestamp\" value=\""
            + entry.openTimestamp->toUtf8()
            + "\" />\n"
              "            </RecentProjectMetaInfo>\n"
              "          </value>\n"
              "        </entry>\n";
    }
    xml += "      </map>\n    </option>\n    <option name=\"recentPaths\">\n      <list>\n";
    for (const RecentEntry &entry : entries)
        xml += "        <option value=\"" + entry.writtenPath.toHtmlEscaped().toUtf8() + "\" />\n";
    xml += "      </list>\n    </option>\n  </component>\n</application>\n";
    return xml;
}

void replaceFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(content);
        file.commit();
    }
}

QString makeProject(const QString &path, const QString &name)
{
    QDir().mkpath(path + "/.quern");
    if (!name.isNull()) {
        QFile file(path + "/.quern/.name");
        if (file.open(QIODevice::WriteOnly))
            file.write(name.toUtf8());
    }
    return path;
}

int run(const QString &program, const QStringList &arguments, const QString &workingDirectory)
{
    QProcess process;
    if (!workingDirectory.isEmpty())
        process.setWorkingDirectory(workingDirectory);
    process.start(program, arguments);
    if (!process.waitForFinished(30000))
        return -1;
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

const QString kRecentFile = "recentProjects.xml";

LatheProjectSource::Tool tool(const QString &applicationId, const QString &pattern)
{
    LatheProjectSource::Tool t;
    t.openItem = ProjectOpenItem(applicationId, "ch-" + applicationId);
    t.build = "1";
    t.configurations << LatheProjectSource::ConfigSpec { pattern, kRecentFile };
    return t;
}

QStringList paths(const QList<Project> &projects)
{
    QStringList result;
    for (const Project &p : projects)
        result << p.getFullPath();
    return result;
}
