// Refreshes the launcher scripts of 200 installed builds (200 tools, one
// channel each, every one with its own channel settings file), as a change of
// the script folder or of a tool's name does, and checks that a refresh that
// changes nothing rewrites no script.
//
// BENCH launchers_first_write_ms         one refresh that writes all 200 scripts and markers
// BENCH launchers_full_update_ms         median of refreshes with nothing to change (target < 100)
// BENCH launchers_full_update_cpu_ms     CPU time of the same refreshes (steadier on a busy machine)
// BENCH launchers_baseline_read_ms       median of reading the 200 scripts and markers alone
// BENCH launchers_ratio_to_read          refresh / bare read
// BENCH launchers_rewritten_unchanged    scripts whose modification time moved in those refreshes (0)

#include "BenchSupport.h"
#include "local/ChannelSettingsManager.h"
#include "settings/SettingsManager.h"
#include "support/TempHome.h"
#include "tools/OSShellLaunchers.h"
#include "tools/OSShellLaunchersEvents.h"
#include "tools/OSShellLaunchersScriptNameResolver.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

namespace {

constexpr int Builds = 200;
constexpr int Rounds = 15;

LocalFeedItem makeBuild(const QString &apps, int index, ChannelSettingsManager &channelSettings)
{
    const QString id = QStringLiteral("tool-%1").arg(index, 3, 10, QChar('0'));
    const QString dir = apps + "/" + id + "/ch-0/" + id + "-1";
    QDir().mkpath(dir + "/bin");
    const QJsonObject json {
        { "id", id },
        { "version", "1" },
        { "package", QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "command", "bin/run.sh" } } },
        { "lathe_platform", QJsonObject { { "shell_script_name", id } } },
    };
    const LocalFeedItem item = LocalFeedItem::localApplication(json, dir, dir, "ch-0");
    (void)channelSettings.createChannelSettings(item, None, false);
    return item;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    logOnlyProblems();
    TempHome home;
    QDir(home.path()).mkpath("bin");
    SettingsManagerOptions options;
    options.passwordStore = ProxyPasswordStore::MemoryOnly;
    options.launchersPathResolver
        = std::make_shared<OSShellLaunchersPathResolver>(QStringList { home.path() + "/bin" });
    SettingsManager settings(home.appDataDir() + "/.settings.json", nullptr, options);
    (void)settings.updateSettings([](SelfSettings &s) { s.setShellLinksEnabled(true); });
    ChannelSettingsManager channelSettings;

    QList<LocalFeedItem> items;
    for (int i = 0; i < Builds; ++i)
        items << makeBuild(home.path() + "/apps", i, channelSettings);
    OSShellLaunchersScriptNameResolver names(&channelSettings);
    OSShellLauncherConflictsResolver conflicts([&items] { return items; }, &names);
    OSShellLaunchers launchers(&settings, &names, &conflicts, "bench");
    OSShellLaunchersEvents events([&items] { return items; }, &launchers, &channelSettings);

    int failed = 0;
    report("launchers_first_write_ms", elapsedMs([&] { failed += events.updateLinksNow(); }), "ms");
    QMap<QString, QDateTime> written;
    for (const QFileInfo &script : QDir(home.path() + "/bin").entryInfoList(QDir::Files))
        written.insert(script.filePath(), script.lastModified());
    QThread::msleep(20); // a rewrite would show in the modification times

    Samples update, updateCpu, read;
    for (int round = 0; round < Rounds; ++round) {
        const double cpuStart = threadCpuMs();
        update.add(elapsedMs([&] { failed += events.updateLinksNow(); }));
        updateCpu.add(threadCpuMs() - cpuStart);
        read.add(elapsedMs([&] {
            qint64 bytes = 0;
            for (const LocalFeedItem &item : items) {
                QFile marker(item.getInstallDir() + "/.shellLink");
                marker.open(QIODevice::ReadOnly);
                QFile script(QString::fromUtf8(marker.readAll()));
                script.open(QIODevice::ReadOnly);
                bytes += script.readAll().size();
            }
            Q_UNUSED(bytes)
        }));
    }
    int rewritten = 0;
    for (auto it = written.cbegin(); it != written.cend(); ++it)
        if (QFileInfo(it.key()).lastModified() != it.value())
            ++rewritten;
    report("launchers_full_update_ms", update.median(), "ms");
    report("launchers_full_update_cpu_ms", updateCpu.median(), "ms");
    report("launchers_baseline_read_ms", read.median(), "ms");
    report("launchers_ratio_to_read", update.median() / std::max(read.median(), 0.001), "x");
    report("launchers_rewritten_unchanged", rewritten, "files");
    if (written.size() != Builds || failed != 0) {
        std::fprintf(stderr, "expected %d scripts, found %d; %d refreshes failed\n", Builds,
            int(written.size()), failed);
        return 1;
    }
    return 0;
}
