#include "settings/SelfSettings.h"

#include "support/TempHome.h"

#include <QtTest>

class SelfSettingsTest : public QObject
{
    Q_OBJECT
private:
    static QJsonObject parse(const QByteArray &text) { return QJsonDocument::fromJson(text).object(); }
    static SelfSettings fromText(const QByteArray &text) { return SelfSettings(parse(text)); }

    static void verifyDefaults(const SelfSettings &s)
    {
        QCOMPARE(QVariantList({ s.getRunOnStartUp(), s.getChannelRollbackHistoryDepth(),
                     s.getAutoUpdateEnabled(), s.getHangarUpdatesFilter().qualityOrderValue,
                     s.getAllToolsAutoUpdateEnabled(), s.getNetworkDownloadTimeout(),
                     s.getAllowAnonymousStatistics(), s.getShellLinksEnabled(), s.getProxyEnabled(),
                     s.getProxyPort(), s.isInternalModeOn(), s.internalInspectInChromeAutomatically() }),
            QVariantList({ true, 2, true, 10000, false, 300000, false, false, false, -1, false, false }));
        QCOMPARE(
            QStringList({ s.getGlobalHotkey(), s.getApplicationInstallDirectorySetting(),
                            s.getShellLinksFolder(), s.getProxyHost(), s.getProxyUsername(),
                            s.internalUiUrl(), s.getPrivacyPolicyAcceptedVersion(), s.getActiveOrvacc() })
                .join(""),
            QString());
        QCOMPARE(s.getApplicationInstallDirectory(), SelfSettings::defaultApplicationInstallDirectory());
        QVERIFY(!s.getHangarUpdatesFilter().branchFilter && !s.findNetworkDownloadTimeout()
            && s.getOrdering(false).isEmpty() && s.getOrdering(true).isEmpty()
            && !s.getOrderingIndex("a", "ch-0") && s.getHiddenProjects().isEmpty()
            && s.getSpecialProjects().isEmpty() && !s.getDefaultOpenItem("/p"));
    }

private slots:
    void emptySettingsGiveEveryDefault()
    {
        TempHome home;
        verifyDefaults(SelfSettings());
        verifyDefaults(SelfSettings(SelfSettings::defaultContent()));
        QVERIFY(SelfSettings::defaultApplicationInstallDirectory() == home.dataHome() + "/Vantrel"
            && SelfSettings().findWrongTypedKeys().isEmpty());

        // Keys of the wrong type read as defaults, each one named.
        const SelfSettings s = fromText(R"({
            "autostart": "yes", "ui": {"hotkey": 5}, "install_location": ["x"],
            "channel_rollback_max_history": 2.5, "update": 7, "tools": {"update_all_automatically": "true"},
            "network": {"download_timeout": "300"}, "statistics": {"allow": 1},
            "shell_scripts": {"enabled": null, "location": false},
            "proxy": {"enabled": "no", "host": 1, "port": "3128", "auth": {"username": {}}},
            "ordering": {"local": {}, "manual": "x"},
            "projects": {"hidden": [], "special": 3, "default_open_item": "z"},
            "internal": {"enabled": 0, "auto_inspect_in_chrome": [], "ui": {"url": 2}},
            "privacy_policy": {"eua_accepted_version": 1}, "vantrel_account": {"active": true}
        })");
        verifyDefaults(s);
        const QStringList problems = s.findWrongTypedKeys();
        for (const char *problem : { "\"autostart\" is not a boolean", "\"update\" is not an object",
                 "\"channel_rollback_max_history\" is not an integer", "\"proxy -> port\" is not an integer",
                 "\"ordering -> local\" is not an array" })
            QVERIFY2(problems.contains(problem), problem);
        QCOMPARE(problems.size(), 24);

        // Numbers out of int range are not integers either.
        QCOMPARE(fromText(R"({"network": {"download_timeout": 1e12}})").getNetworkDownloadTimeout(), 300000);
        QCOMPARE(fromText(R"({"network": {"download_timeout": 1500}})").findNetworkDownloadTimeout(),
            Option<int>(1500));
    }

    void settersWriteTheDocumentedKeysAndOrderingKeepsOnePlacePerItem()
    {
        SelfSettings s;
        s.setRunOnStartUp(false);
        s.setGlobalHotkey("Ctrl+Alt+H");
        s.setApplicationInstallDirectory("/opt/tools");
        s.setChannelRollbackHistoryDepth(5);
        s.setAutoUpdateEnabled(false);
        s.setHangarUpdatesFilter({ 30, QJsonObject { { "name", "eap" } } });
        s.setAllToolsAutoUpdateEnabled(true);
        s.setNetworkDownloadTimeout(1000);
        s.setAllowAnonymousStatistics(true);
        s.setShellLinksEnabled(true);
        s.setShellLinksFolder("/home/u/bin");
        s.setInternalMode(true);
        s.setPrivacyPolicyAccepted(true, "1.2");
        s.setActiveOrvacc("acc-1");
        QCOMPARE(s.toJson(), parse(R"({
            "autostart": false, "ui": {"hotkey": "Ctrl+Alt+H"}, "install_location": "/opt/tools",
            "channel_rollback_max_history": 5,
            "update": {"install_automatically": false,
                       "filter": {"quality_filter": {"order_value": 30}, "branch_filter": {"name": "eap"}}},
            "tools": {"update_all_automatically": true}, "network": {"download_timeout": 1000},
            "statistics": {"allow": true}, "shell_scripts": {"enabled": true, "location": "/home/u/bin"},
            "internal": {"enabled": true}, "privacy_policy": {"eua_accepted_version": "1.2"},
            "vantrel_account": {"active": "acc-1"}
        })"));
        QVERIFY(s.findWrongTypedKeys().isEmpty());

        s.removeNetworkDownloadTimeout();
        s.setPrivacyPolicyAccepted(false, QString());
        s.removeActiveOrvacc();
        s.setGlobalHotkey(QString());
        s.setHangarUpdatesFilter({ 10000, None });
        const QJsonObject cleared = s.toJson();
        for (const char *key : { "network", "privacy_policy", "vantrel_account", "ui" })
            QVERIFY2(!cleared.contains(key) || cleared.value(key).toObject().isEmpty(), key);
        QVERIFY(
            s.getNetworkDownloadTimeout() == 300000 && !s.getHangarUpdatesFilter().branchFilter.has_value());

        SelfSettings o;
        for (const char *id : { "a", "b", "a" }) // the second "a" is already there
            o.addItemToOrdering(id, "ch-0", false);
        o.addItemToOrdering("c", "ch-1", true);
        QVERIFY(o.getOrdering(false).size() == 2 && !o.getOrderingIndex("c", "ch-1", false)
            && o.getOrderingIndex("b", "ch-0") == 1 && o.getOrderingIndex("c", "ch-1") == 0);

        o.setOrderingIndex("b", "ch-0", 0, false);
        QCOMPARE(o.getOrdering(false).first(), (SettingsItemKey { "b", "ch-0" }));
        o.setOrderingIndex("z", "ch-0", 99, false); // clamped to the end
        o.setOrderingIndex("y", "ch-0", -4, false); // clamped to the start
        QVERIFY(o.getOrderingIndex("z", "ch-0", false) == 3 && o.getOrderingIndex("y", "ch-0", false) == 0);

        // The manual list wins the lookup when an item is in both.
        o.addItemToOrdering("b", "ch-0", true);
        QCOMPARE(o.getOrderingIndex("b", "ch-0"), Option<int>(1));
        o.removeItemFromOrdering("b", "ch-0");
        QVERIFY(!o.getOrderingIndex("b", "ch-0"));
        QCOMPARE(o.toJson().value("ordering").toObject().value("local").toArray().first().toObject(),
            parse(R"({"application_id": "y", "channel_id": "ch-0"})"));

        o.removeOrdering(true);
        QVERIFY(o.getOrdering(true).isEmpty() && o.getOrdering(false).size() == 3);

        // Damaged entries are skipped, not fatal.
        const SelfSettings damaged = fromText(R"({"ordering": {"local": [1, {"application_id": "a"},
            {"application_id": "b", "channel_id": "ch-0"}]}})");
        QVERIFY(damaged.getOrdering(false) == (QList<SettingsItemKey> { { "b", "ch-0" } })
            && damaged.getOrderingIndex("b", "ch-0") == 2);
    }

    void resetAndRemoveOutdatedKeepWhatStillHolds()
    {
        QTemporaryDir dir;
        const QString alive = dir.path(), gone = dir.path() + "/gone";
        SelfSettings s;
        for (const QString &project : { alive, gone }) {
            s.setHiddenProject(project, QDateTime::currentDateTime());
            s.setSpecialProject(project, "favorite", true);
            s.setDefaultOpenItem(project, "a", "ch-0");
        }
        s.setNetworkDownloadTimeout(60000);
        s.removeOutdated();
        QVERIFY(s.getHiddenProjects().keys() == QStringList { alive }
            && s.getSpecialProjects().value("favorite") == QSet<QString> { alive });
        QVERIFY(s.getDefaultOpenItem(alive) && !s.getDefaultOpenItem(gone)
            && s.findNetworkDownloadTimeout() == 60000);

        for (const QByteArray bad : { "0", "-5", "\"x\"", "1.5" }) {
            SelfSettings t = fromText(R"({"network": {"download_timeout": )" + bad + "}}");
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Removing invalid download timeout"));
            t.removeOutdated();
            QVERIFY2(!t.findNetworkDownloadTimeout().has_value() && t.toJson().isEmpty(), bad.constData());
        }
        // A reset keeps projects, the account and a detected proxy.
        SelfSettings r = fromText(R"({
            "autostart": false, "ui": {"hotkey": "F1"}, "install_location": "/x",
            "ordering": {"local": [{"application_id": "a", "channel_id": "ch-0"}]},
            "update": {"install_automatically": false, "filter": {"quality_filter": {"order_value": 5}}},
            "network": {"download_timeout": 10}, "shell_scripts": {"enabled": true},
            "proxy": {"enabled": true, "host": "h", "port": 1, "auth": {"username": "u"}},
            "projects": {"hidden": {"/p": 1}}, "vantrel_account": {"active": "acc"},
            "privacy_policy": {"eua_accepted_version": "3"}
        })");
        r.resetToDefaults();
        QCOMPARE(r.toJson(), parse(R"({
            "autostart": true, "update": {"filter": {"quality_filter": {"order_value": 10000}}},
            "proxy": {"enabled": true, "host": "h", "port": 1},
            "projects": {"hidden": {"/p": 1}}, "vantrel_account": {"active": "acc"},
            "privacy_policy": {"eua_accepted_version": "3"}
        })"));

        SelfSettings copy = fromText(R"({"autostart": false})");
        copy.removeOutdated(); // nothing to drop: nothing changes
        QCOMPARE(copy, fromText(R"({"autostart": false})"));
    }
};

QTEST_GUILESS_MAIN(SelfSettingsTest)
#include "SelfSettingsTest.moc"
