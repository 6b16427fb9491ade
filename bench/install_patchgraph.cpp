// The patch graph at feed scale: 50 tools x 100 builds with 5,000 patches (99 consecutive
// patches and one long jump per tool), one installed build per tool. Prints the
// construction time and the time of `select` for every build.

#include "BenchSupport.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "install/ApplicationPackagePatchesGraph.h"
#include "local/LocalFeedItem.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

namespace {

QString build(int i)
{
    return QString("2024.%1").arg(i);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    qputenv("QT_LOGGING_RULES", "*.debug=false;*.info=false");
    constexpr int tools = 50, builds = 100;
    QTemporaryDir tmp;

    QList<LocalFeedItem> local;
    QList<RemotePatchItem> patches;
    QList<RemoteFeedItem> targets;
    for (int t = 0; t < tools; ++t) {
        const QString id = QString("tool-%1").arg(t);
        for (int b = 1; b <= builds; ++b) {
            const QJsonObject entry { { "id", id }, { "version", build(b) }, { "build", build(b) },
                { "package",
                    QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "size", 800000000 },
                        { "url", "http://127.0.0.1/p" } } } };
            targets << RemoteFeedItem(entry);
            if (b == 1) {
                const QString dir = tmp.filePath(id + "/release/" + build(b));
                QDir().mkpath(dir);
                QFile marker(dir + "/.feed");
                marker.open(QIODevice::WriteOnly);
                marker.write(QJsonDocument(entry).toJson());
                local << LocalFeedItem::localApplication(entry, dir, dir, "release");
            }
        }
        auto patch = [&](int from, int to, int size) {
            patches << RemotePatchItem(QJsonObject { { "application_id", id }, { "from_build", build(from) },
                { "to_build", build(to) }, { "size", size }, { "os", "linux" }, { "type", "lathe_patch" },
                { "url", QString("http://127.0.0.1/%1-%2-%3").arg(id).arg(from).arg(to) },
                { "command", QJsonArray { "%JAVA_PATH%", "-jar", "p.jar", "%PATCH_FILE%" } } });
        };
        for (int b = 1; b < builds; ++b)
            patch(b, b + 1, 20000000 + (b * 7919) % 5000000);
        patch(1, builds / 2, 300000000);
    }

    // Several runs: the first pays for warming caches. CPU time of this thread too: on a loaded
    // machine wall time mostly measures the neighbours.
    Samples construction, constructionCpu;
    ApplicationPackagePatchesGraph graph;
    for (int run = 0; run < 9; ++run) {
        QElapsedTimer t;
        t.start();
        const double cpu = threadCpuMs();
        graph = ApplicationPackagePatchesGraph(local, patches);
        constructionCpu.add(threadCpuMs() - cpu);
        construction.add(double(t.nsecsElapsed()) / 1e6);
    }

    int withPatches = 0;
    QElapsedTimer t;
    t.start();
    const double selectCpu = threadCpuMs();
    for (const RemoteFeedItem &target : qAsConst(targets))
        withPatches += graph.select(target).hasPatches() ? 1 : 0;
    const double selectMs = double(t.nsecsElapsed()) / 1e6;
    const double selectCpuMs = threadCpuMs() - selectCpu;

    report("patchgraph_patches", patches.size(), "patches");
    report("patchgraph_construction_median", construction.median(), "ms");
    report("patchgraph_construction_min", construction.best(), "ms");
    report("patchgraph_construction_cpu_median", constructionCpu.median(), "ms");
    report("patchgraph_select_all_builds", selectMs, "ms");
    report("patchgraph_select_all_builds_cpu", selectCpuMs, "ms");
    report("patchgraph_select_per_build", selectMs * 1000.0 / targets.size(), "us");
    report("patchgraph_builds_with_chain", withPatches, "builds");
    return 0;
}
