// Finding recent projects for 20 installed tools with 50 projects each.
//
// Figures: a cold search (every file parsed, every project folder probed), a search that the
// per-tool cache answers, one whole manager update (search, merge, Git origins, filters), and the
// baseline: reading the same 20 recent-projects files with QFile alone. Log output is swallowed so
// that the terminal does not time itself.
#include "BenchSupport.h"
#include "projects/LatheProjectSource.h"
#include "projects/ProjectCache.h"
#include "projects/ProjectsManager.h"
#include "support/TempHome.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {

constexpr int kTools = 20;
constexpr int kProjectsPerTool = 50;
constexpr int kRounds = 15;
const QString kRecentFile = QStringLiteral("recentProjects.xml");

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(content);
        file.commit();
    }
}

QByteArray recentProjectsXml(int tool)
{
    QByteArray xml = "<application>\n  <component name=\"RecentProjectsManager\">\n"
                     "    <option name=\"additionalInfo\">\n      <map>\n";
    for (int p = 0; p < kProjectsPerTool; ++p) {
        const QByteArray key = "$USER_HOME$/work/t" + QByteArray::number(tool) + "/p" + QByteArray::number(p);
        if (p % 5 == 4)
            continue; // some projects have no timestamp: the workspace file's time is used
        xml += "        <entry key=\"" + key
            + "\">\n          <value>\n"
              "            <RecentProjectMetaInfo frameTitle=\"p\" opened=\"false\">\n"
              "              <option name=\"activationTimestamp\" value=\"1700000000000\" />\n"
              "              <option name=\"projectOpenTimestamp\" value=\""
            + QByteArray::number(1700000000000LL + tool * 1000 + p) + "\" />\n"
            + "            </RecentProjectMetaInfo>\n          </value>\n        </entry>\n";
    }
    xml += "      </map>\n    </option>\n    <option name=\"recentPaths\">\n      <list>\n";
    for (int p = 0; p < kProjectsPerTool; ++p)
        xml += "        <option value=\"$USER_HOME$/work/t" + QByteArray::number(tool) + "/p"
            + QByteArray::number(p) + "\" />\n";
    xml += "      </list>\n    </option>\n  </component>\n</application>\n";
    return xml;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    TempHome home;
    QList<LatheProjectSource::Tool> tools;
    QStringList files;
    for (int t = 0; t < kTools; ++t) {
        for (int p = 0; p < kProjectsPerTool; ++p) {
            const QString project = QStringLiteral("%1/work/t%2/p%3").arg(home.path()).arg(t).arg(p);
            QDir().mkpath(project + "/.quern");
            writeFile(project + "/.quern/workspace.xml", "<project/>");
            if (p % 2 == 0)
                writeFile(project + "/.quern/.name", "Project " + QByteArray::number(p));
            if (p % 10 == 0)
                writeFile(project + "/.git/config",
                    "[remote \"origin\"]\n\turl = git@github.com:o/p" + QByteArray::number(p) + "\n");
        }
        const QString folder = QStringLiteral("Tool%1Ide2024.1").arg(t, 2, 10, QLatin1Char('0'));
        const QString file = home.configHome() + "/Vantrel/" + folder + "/options/" + kRecentFile;
        writeFile(file, recentProjectsXml(t));
        files << file;
        LatheProjectSource::Tool tool;
        tool.openItem = ProjectOpenItem(QStringLiteral("tool%1").arg(t), QStringLiteral("stable"));
        tool.build = QStringLiteral("241.%1").arg(t);
        tool.configurations << LatheProjectSource::ConfigSpec {
            QStringLiteral("Tool%1Ide2024*").arg(t, 2, 10, QLatin1Char('0')), kRecentFile
        };
        tools << tool;
    }
    silenceLog();

    qint64 bytes = 0;
    const double baseline = medianOf(kRounds, [&] {
        bytes = 0;
        for (const QString &file : qAsConst(files)) {
            QFile f(file);
            if (f.open(QIODevice::ReadOnly))
                bytes += f.readAll().size();
        }
    });

    // The least any search must do: read the files and look at every project folder once.
    QStringList projectDirs;
    for (int t = 0; t < kTools; ++t) {
        for (int p = 0; p < kProjectsPerTool; ++p)
            projectDirs << QStringLiteral("%1/work/t%2/p%3").arg(home.path()).arg(t).arg(p);
    }
    int existing = 0;
    const double baselineWithStat = medianOf(kRounds, [&] {
        existing = 0;
        for (const QString &file : qAsConst(files)) {
            QFile f(file);
            if (f.open(QIODevice::ReadOnly))
                f.readAll();
        }
        for (const QString &dir : qAsConst(projectDirs))
            existing += QFileInfo(dir).canonicalFilePath().isEmpty() ? 0 : 1;
    });

    LatheProjectSource uncached(nullptr);
    uncached.setTools(tools);
    int found = 0;
    const double cold
        = medianOf(kRounds, [&] { found = uncached.findProjects(ProjectsUpdateReason::Forced).size(); });

    ProjectCache cache;
    LatheProjectSource cached(&cache);
    cached.setTools(tools);
    cached.findProjects(ProjectsUpdateReason::Startup);
    const double warm = medianOf(kRounds, [&] { cached.findProjects(ProjectsUpdateReason::ModelChanged); });

    ProjectsManager manager({ &cached }, nullptr, nullptr, nullptr);
    const double update
        = medianOf(kRounds, [&] { manager.updateProjectsNow(ProjectsUpdateReason::ModelChanged); });

    if (found != kTools * kProjectsPerTool || manager.getProjects().size() != kTools * kProjectsPerTool) {
        std::fprintf(stderr, "expected %d projects, found %d (manager %d)\n", kTools * kProjectsPerTool,
            found, int(manager.getProjects().size()));
        return 1;
    }
    std::printf("# %d tools x %d projects, %lld bytes of recent-projects files, median of %d rounds\n",
        kTools, kProjectsPerTool, static_cast<long long>(bytes), kRounds);
    report("projects_find_baseline_qfile_read", baseline, "ms");
    report("projects_find_baseline_qfile_read_and_canonical_paths", baselineWithStat, "ms");
    report("projects_find_cold", cold, "ms");
    report("projects_find_cached", warm, "ms");
    report("projects_manager_update_cached", update, "ms");
    report("projects_find_cold_vs_qfile_read", cold / baseline, "x");
    report("projects_find_cached_vs_qfile_read", warm / baseline, "x");
    report("projects_find_cold_vs_read_and_canonical_paths", cold / baselineWithStat, "x");
    report("projects_find_cold_per_project", cold * 1000.0 / found, "us");
    return 0;
}
