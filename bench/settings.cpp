// Cost of a settings change: an effective change (copy, compare, atomic save with
// flush to disk, signal) against an edit that changes nothing (copy and compare
// only), and against a bare QSaveFile write of the same document as the baseline.
#include "BenchSupport.h"
#include "settings/SettingsManager.h"
#include "support/TempHome.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QSaveFile>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    silenceLog();
    TempHome home;
    SettingsManagerOptions options;
    options.passwordStore = ProxyPasswordStore::MemoryOnly;
    options.launchersPathResolver = std::make_shared<OSShellLaunchersPathResolver>(QStringList());
    SettingsManager manager(home.appDataDir() + "/.settings.json", nullptr, options);
    // A realistic file: a few hundred project marks.
    (void)manager.updateSettings([](SelfSettings &s) {
        for (int i = 0; i < 300; ++i)
            s.setSpecialProject("/home/user/projects/p" + QString::number(i), "favorite", true);
    });

    constexpr int kChanges = 100;
    int depth = 0;
    const double effective = bestOf(3, [&] {
        for (int i = 0; i < kChanges; ++i)
            (void)manager.updateSettings([&](SelfSettings &s) { s.setChannelRollbackHistoryDepth(++depth); });
    });
    const double noop = bestOf(3, [&] {
        for (int i = 0; i < kChanges; ++i)
            (void)manager.updateSettings([&](SelfSettings &s) { s.setChannelRollbackHistoryDepth(depth); });
    });
    const QByteArray document = QJsonDocument(manager.getSettings().toJson()).toJson(QJsonDocument::Indented);
    const double baseline = bestOf(3, [&] {
        for (int i = 0; i < kChanges; ++i) {
            QSaveFile file(home.path() + "/baseline.json");
            if (file.open(QIODevice::WriteOnly)) {
                file.write(document);
                file.commit();
            }
        }
    });
    report("settings_change_effective", effective / kChanges, "ms");
    report("settings_change_noop", noop * 1000.0 / kChanges, "us");
    report("settings_change_ratio_vs_savefile", effective / baseline, "x");
    return 0;
}
