#include "feed/records/ApplicationIconHolder.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "support/TempHome.h"
#include "support/TestData.h"

#include <QtTest>
#include <algorithm>

static RemoteFeedItem item(
    const QString &id, const QString &build, int quality = 1, int major = 1, const QString &name = QString())
{
    QJsonObject object { { "id", id }, { "version", build }, { "build", build },
        { "quality", QJsonObject { { "order_value", quality } } },
        { "major_version", QJsonObject { { "order_value", major } } },
        { "package", QJsonObject { { "type", "tar.gz" }, { "os", "linux" } } } };
    if (!name.isNull())
        object.insert("name", name);
    return RemoteFeedItem(object);
}

static const char *const kPatch12 = "{'application_id': 't', 'from_build': '1', 'to_build': '2'}";

class FeedRecordsTest : public QObject
{
    Q_OBJECT
private slots:

    void namesAndBuildsFallBack_data()
    {
        QTest::addColumn<QString>("record");
        QTest::addColumn<QStringList>("nameDescriptionBuild");
        // The description falls back to the id, not the name.
        QTest::newRow("no name") << "{'id': 'tool', 'version': '2018.3'}"
                                 << QStringList { "tool", "tool", "2018.3" };
        QTest::newRow("empty build") << "{'id': 'tool', 'name': 'Tool', 'version': '2018.3', 'build': ''}"
                                     << QStringList { "Tool", "tool", "2018.3" };
        QTest::newRow("all") << "{'id': 't', 'version': '2018.3', 'build': '183.1', 'description': 'D'}"
                             << QStringList { "t", "D", "183.1" };
    }

    void namesAndBuildsFallBack()
    {
        QFETCH(QString, record);
        QFETCH(QStringList, nameDescriptionBuild);
        const RemoteFeedItem entry(json(qPrintable(record)));
        QCOMPARE(QStringList(
                     { entry.getPresentableFullName(), entry.getPresentableDescription(), entry.getBuild() }),
            nameDescriptionBuild);
        QCOMPARE(entry.getPresentableFullNameAndVersionAndBuild(),
            nameDescriptionBuild[0] + " 2018.3 build " + nameDescriptionBuild[2]);
    }

    void sizeIsASigned32BitInteger_data()
    {
        QTest::addColumn<QJsonValue>("size");
        QTest::addColumn<int>("expected");
        const auto row = [](const char *name, const QJsonValue &size, int expected) {
            QTest::newRow(name) << size << expected;
        };
        row("ordinary", 734003200, 734003200);
        row("largest", 2147483647.0, 2147483647);
        row("one past largest", 2147483648.0, 0);
        row("smallest", -2147483648.0, int(-2147483648LL));
        row("one below smallest", -2147483649.0, 0);
        row("fraction", 1.5, 0);
        row("huge", 1e300, 0);
        row("string", "100", 0);
        row("null", QJsonValue(), 0);
    }

    void sizeIsASigned32BitInteger()
    {
        QFETCH(QJsonValue, size);
        QFETCH(int, expected);
        const RemoteFeedItem entry(QJsonObject { { "package", QJsonObject { { "size", size } } },
            { "order_value", size }, { "quality", QJsonObject { { "order_value", size } } } });
        QVERIFY(entry.getDownloadSize() == expected && entry.orderValue() == expected
            && entry.qualityOrder() == expected);
        QCOMPARE(RemotePatchItem(QJsonObject { { "size", size } }).getDownloadSize(), expected);
    }

    void readsOptionalValuesSubRecordsAndWrongTypes()
    {
        QCOMPARE(RemoteFeedItem(json("{'branch': {'name': 'stable'}}")).branch(), Option<QString>("stable"));
        QCOMPARE(RemoteFeedItem(json("{'branch': {'name': ''}}")).branch(), Option<QString>(""));
        QVERIFY(!RemoteFeedItem(json("{'branch': {'name': 2}}")).branch()
            && !RemoteFeedItem(json("{'branch': 'stable'}")).branch());

        const auto expires = [](const char *text) {
            return RemoteFeedItem(QJsonObject { { "expires", text } }).getExpirationDate();
        };
        QCOMPARE(expires("2020-01-02T03:04:05.250Z").value(),
            QDateTime(QDate(2020, 1, 2), QTime(3, 4, 5, 250), Qt::UTC));
        QCOMPARE(
            expires("2020-01-02T03:04:05Z").value(), QDateTime(QDate(2020, 1, 2), QTime(3, 4, 5), Qt::UTC));
        QVERIFY(!expires("") && !expires("next tuesday") && !expires("2020-13-45T99:00:00Z"));

        const RemoteFeedItem listed(
            json("{'supersedes': [{'id': 'old'}, {'id': ''}, {}, 5, {'id': 3}, {'id': 'older'}], "
                 "'package': {'checksums': [{'alg': 'sha-256', 'value': 'ab'}, {'value': 'cd'}, 'x']}}"));
        QCOMPARE(listed.getSupersededTypes(), QStringList({ "old", "older" }));
        QCOMPARE(listed.getChecksumsField(),
            FeedChecksums({ FeedChecksum("sha-256", "ab"), FeedChecksum("", "cd"), FeedChecksum("", "") }));

        const RemoteFeedItem entry(
            json("{'lathe_platform': {'shell_script_name': 'tool.sh', 'vmoptions': 'bin/tool64.vmoptions', "
                 "'startup_wm_class': 'tool-ide', 'incompatible_vmoptions': ['-Xverify:none', 5, true, {}], "
                 "'config': [{'directory': 'Tool2018.3', 'recent_projects_filename': 'recent.xml'}, "
                 "{'show_single_project': false}, {'show_single_project': 'false'}, 7], "
                 "'data_location': '~/data'}}"));
        const LathePlatformData lathe = entry.getLathePlatformData().value();
        QCOMPARE(QStringList({ *lathe.getShellScriptName(), lathe.getVmOptionsFile(),
                     lathe.getStartupWMClass(), lathe.getDataLocation() }),
            QStringList({ "tool.sh", "bin/tool64.vmoptions", "tool-ide", "~/data" }));
        QCOMPARE(lathe.getIncompatibleOptions(), QStringList({ "-Xverify:none", "5", "true", "" }));
        const QList<LatheConfiguration> configs = lathe.getConfigurations();
        QVERIFY(configs.size() == 4 && configs.at(0).getConfigDirectoryPattern() == "Tool2018.3");
        QVERIFY(configs.at(0).getShowSingleProject() && !configs.at(1).getShowSingleProject()
            && configs.at(2).getShowSingleProject()); // a string is not a boolean
        QVERIFY(configs.at(3).toJson().isEmpty()
            && !LathePlatformData(json("{'shell_script_name': 1}")).getShellScriptName());

        const ApplicationPackageType run
            = RemoteFeedItem(json("{'package': {'type': 'run', 'command': 'install.sh', "
                                  "'arguments': ['--silent', 3, '--prefix']}}"))
                  .getPackageType();
        QCOMPARE(QStringList(run.getCommand()) + run.getArguments(),
            QStringList({ "install.sh", "--silent", "--prefix" }));

        const PlinthData plinth(
            json("{'first_install_arguments': ['/quiet', 1], "
                 "'subsequent_install_arguments': [], 'uninstall_arguments': '/uninstall'}"));
        QCOMPARE(plinth.getFirstInstallArguments().value(), QStringList({ "/quiet", "1" }));
        const QString compact = QJsonDocument(plinth.toJson()).toJson(QJsonDocument::Compact);
        QCOMPARE(plinth.getSubsequentInstallArguments().error(),
            "Property 'subsequent_install_arguments' value in plinth data should not be empty: " + compact);
        QCOMPARE(plinth.getUninstallArguments().error(),
            "Expected property 'uninstall_arguments' in plinth data " + compact);
        QCOMPARE(PlinthData().getFirstInstallArguments().error(),
            QString("Expected property 'first_install_arguments' in plinth data {}"));
        QVERIFY(RemoteFeedItem(json("{'plinth': {}}")).getPlinthData().has_value());

        const RemoteFeedItem odd(
            json("{'id': 17, 'name': ['x'], 'description': {}, 'version': true, 'build': 3, "
                 "'icon_url': null, 'order_value': '5', 'quality': 'release', 'major_version': [1], "
                 "'branch': {'name': 2019}, 'package': 'tar.gz', 'uninstall': {'feedback': 'no'}, "
                 "'expires': 1577836800, 'whats_new': 'text', 'supersedes': {'id': 'x'}, "
                 "'lathe_platform': 'yes', 'plinth': [], 'post_install': {'steps': {'id': 'x'}}}"));
        QCOMPARE(QStringList({ odd.getApplicationType(), odd.getPresentableFullName(),
                                 odd.getPresentableDescription(), odd.getPresentableVersion(), odd.getBuild(),
                                 odd.getIconUrl(), odd.getDownloadUrl() })
                     .join(""),
            QString()); // every one of them empty
        QVERIFY(odd.orderValue() == 0 && odd.qualityNode().isEmpty() && odd.majorVersionNode().isEmpty()
            && !odd.branch() && !odd.getPackageType().isValid() && !odd.getExpirationDate()
            && odd.getUninstallFeedback().isEmpty() && odd.getWhatsNewNode().isEmpty()
            && odd.getSupersededTypes().isEmpty() && odd.getPostInstallSteps().isEmpty()
            && !odd.getLathePlatformData() && !odd.getPlinthData() && !odd.isValid());

        const RemoteFeedItem pkg(
            json("{'package': {'type': 1, 'url': 2, 'strip_directories': '1', 'requirements': [], "
                 "'checksums': {'alg': 'sha-256'}, 'arguments': 'x', 'command': false}}"));
        QCOMPARE(QStringList({ pkg.getPackageType().getPackageType(), pkg.getPackageType().getCommand(),
                                 pkg.getDownloadUrl() })
                     .join(""),
            QString());
        QVERIFY(pkg.getPackageType().getArguments().isEmpty() && pkg.getRequirementsNode().isEmpty()
            && pkg.getDownloadSize() == 0 && pkg.getStripDirectories() == 0
            && pkg.getChecksumsField().isEmpty());
    }

    void validity_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("record");
        QTest::addColumn<bool>("valid");
        const auto row = [](const char *kind, const char *record, bool valid) {
            QTest::newRow(record) << QString(kind) << QString(record) << valid;
        };
        row("entry", "{'id': 't', 'version': '1', 'package': {'type': 'zip'}}", true);
        row("entry", "{'id': '', 'version': '1', 'package': {'type': 'zip'}}", false);
        row("entry", "{'id': 't', 'build': '1', 'package': {'type': 'zip'}}", false);
        row("entry", "{'id': 't', 'version': '1', 'package': {'type': ''}}", false);
        row("entry", "{'id': 't', 'version': '1'}", false);
        row("patch", kPatch12, true);
        row("patch", "{'application_id': 't', 'from_build': '1', 'to_build': 2}", false);
        row("patch", "{'application_id': 't', 'to_build': '2'}", false);
        row("patch", "{'from_build': '1', 'to_build': '2'}", false);
        row("quality", "{'order_value': 1}", true);
        row("quality", "{'order_value': 0, 'name': 'x'}", false);
        row("quality", "{'order_value': -1}", false);
        row("quality", "{'name': 'release'}", false);
        row("major", "{'order_value': 3}", true);
        row("major", "{'order_value': 0.5}", false);
        row("major", "{}", false);
    }

    void validity()
    {
        QFETCH(QString, kind);
        QFETCH(QString, record);
        QFETCH(bool, valid);
        const QJsonObject object = json(qPrintable(record));
        const bool isValid = kind == "entry" ? RemoteFeedItem(object).isValid()
            : kind == "patch"                ? RemotePatchItem(object).isValid()
            : kind == "quality"              ? ApplicationQuality(object).isValid()
                                             : ApplicationMajorVersion(object).isValid();
        QCOMPARE(isValid, valid);
    }

    void identitySortAndDebugForms()
    {
        // Names differing in case, equal builds written differently: the same order as a stable sort.
        QRandomGenerator random(42);
        const QStringList names { "Alpha", "alpha", "Beta", "gamma", "Gamma", "delta" };
        QList<RemoteFeedItem> items;
        for (int i = 0; i < 600; ++i) {
            const QString build = QString("%1%2%3")
                                      .arg(random.bounded(180, 184))
                                      .arg(random.bounded(2) ? "." : "_")
                                      .arg(random.bounded(50));
            items << item("id" + QString::number(i % 9), build, random.bounded(1, 3), random.bounded(1, 4),
                names.at(random.bounded(names.size())));
        }
        QList<RemoteFeedItem> expected = items;
        std::stable_sort(expected.begin(), expected.end(), RemoteFeedItem::compareByNameAndVersion);
        sortByNameAndVersion(items);
        QCOMPARE(items, expected);

        const RemoteFeedItem entry(json("{'id': 'tool', 'version': '2018.3', 'build': '183.1', "
                                        "'icon_url': 'data:image/png;base64,AAAA', 'kept': {'x': [1, 2]}}"));
        QCOMPARE(entry.toJson(false), entry.toJson());
        QJsonObject stored = entry.toJson(), debug = stored;
        stored["icon_url"] = ApplicationIconHolder::storeIcon("data:image/png;base64,AAAA");
        debug["icon_url"] = "...removed...";
        QCOMPARE(entry.toJson(true), stored);
        QCOMPARE(QJsonDocument::fromJson(entry.toDebugString().toUtf8()).object(), debug);
        QCOMPARE(entry.getIconUrl(), QString("data:image/png;base64,AAAA")); // the record itself is unchanged

        const QJsonObject base = item("tool", "183.1").toJson();
        QJsonObject withUnknown = base;
        withUnknown.insert("future_key", QJsonObject { { "a", 1 } });
        const RemoteFeedItem a(base), b(withUnknown), c(base);
        QVERIFY(a != b && a.isEqualByID(b) && a == c);
        QCOMPARE(qHash(a), qHash(c));

        // The version stands in for a missing build on both sides.
        QVERIFY(RemoteFeedItem(json("{'id': 'tool', 'version': '183.1'}")).isEqualByID(a)
            && !RemoteFeedItem(json("{'id': 'other', 'version': '183.1'}")).isEqualByID(a)
            && !item("tool", "183.2").isEqualByID(a));

        QSet<RemoteFeedItem> set { a, b, c, item("tool", "183.2"), RemoteFeedItem(base) };
        QVERIFY(set.size() == 3 && set.contains(RemoteFeedItem(withUnknown)));

        const RemotePatchItem p1(json(kPatch12)),
            p2(json("{'application_id': 't', 'from_build': '1', 'to_build': '2', 'x': 1}"));
        QVERIFY(p1 != p2 && QSet<RemotePatchItem>({ p1, p2, RemotePatchItem(p1.toJson()) }).size() == 2);

        // Qualities and major versions are equal by order value alone.
        QCOMPARE(QSet<ApplicationQuality>({ ApplicationQuality(json("{'order_value': 1, 'name': 'a'}")),
                                              ApplicationQuality(json("{'order_value': 1, 'name': 'b'}")) })
                     .size(),
            1);
        QVERIFY(ApplicationMajorVersion(json("{'order_value': 2, 'x': 1}"))
            == ApplicationMajorVersion(json("{'order_value': 2}")));

        const auto order = [](QList<RemoteFeedItem> items, auto less) {
            std::sort(items.begin(), items.end(), less);
            QStringList result;
            for (const RemoteFeedItem &i : items)
                result << i.getPresentableFullName() + " " + i.getBuild();
            return result;
        };
        // Quality 1 before 2; within a quality the higher major version, then the newer build.
        QCOMPARE(order({ item("t", "183.10", 2, 5), item("t", "183.9", 1, 1), item("t", "191.2", 1, 2),
                           item("t", "191.10", 1, 2), item("t", "200.1", 2, 6), item("t", "183.9.1", 1, 1) },
                     RemoteFeedItem::compareByQualityAndVersion),
            QStringList({ "t 191.10", "t 191.2", "t 183.9.1", "t 183.9", "t 200.1", "t 183.10" }));
        QVERIFY(!RemoteFeedItem::compareByVersion(item("t", "1.0"), item("t", "1_0"))
            && !RemoteFeedItem::compareByVersion(item("t", "1_0"), item("t", "1.0"))
            && RemoteFeedItem::compareByVersion(item("t", "1.0", 1, 2), item("t", "9.0", 1, 1)));

        QCOMPARE(
            order({ item("b", "9", 1, 1, "beta"), item("a", "10", 1, 1, "Alpha"),
                      item("a", "9", 1, 1, "alpha"), item("c", "1", 1, 1), item("b", "10", 1, 1, "Beta") },
                RemoteFeedItem::compareByNameAndVersion),
            QStringList({ "Alpha 10", "alpha 9", "Beta 10", "beta 9", "c 1" }));
        // The lexical variant compares "name version" as text: "10" before "9".
        QVERIFY(RemoteFeedItem::compareByNameAndVersionLexical(
                    item("x", "10", 1, 1, "X"), item("x", "9", 1, 1, "x"))
            && !RemoteFeedItem::compareByNameAndVersionLexical(
                item("x", "9", 1, 1, "X"), item("x", "10", 1, 1, "x")));

        const auto patch = [](const char *from, const char *to) {
            return RemotePatchItem(
                QJsonObject { { "application_id", "t" }, { "from_build", from }, { "to_build", to } });
        };
        QList<RemotePatchItem> patches { patch("183.10", "183.12"), patch("183.9", "183.12"),
            patch("183.9", "183.10"), patch("183.10", "183.11") };
        std::sort(patches.begin(), patches.end(), RemotePatchItem::compareByVersion);
        QStringList patchOrder;
        for (const RemotePatchItem &p : patches)
            patchOrder << p.getFromBuild() + ">" + p.getToBuild();
        QCOMPARE(patchOrder.join(' '), QString("183.9>183.10 183.9>183.12 183.10>183.11 183.10>183.12"));
    }

    void postInstallStepsAndTemplates()
    {
        const RemoteFeedItem entry(
            json("{'post_install': {'steps': [{'id': 'first', 'enabled': false, 'required': false, "
                 "'progress': {'visible': true, 'message': 'Indexing'}, 'commands': [{'executable': 'bin/x', "
                 "'arguments': ['a'], 'lathe': {'additional_vmoptions_content': '-Dx'}}], "
                 "'lathe': {'temporary_copy_directories': [{'name': 'config'}, {'name': ''}, 4], "
                 "'temporary_new_directories': [{'name': 'system'}], 'additional_vmoptions_content': "
                 "'-Xmx2g'}}, {'lathe': {}}, 'not an object', "
                 "{'enabled': 'no', 'lathe': 'yes', 'progress': {'visible': 'yes'}}]}}"));
        const QList<PostInstallStep> steps = entry.getPostInstallSteps();
        QCOMPARE(steps.size(), 4);
        const PostInstallStep &first = steps.at(0);
        QVERIFY(!first.getEnabled() && first.isProgressVisible());
        QCOMPARE(QStringList(
                     { first.getId(), first.getProgressMessage(), first.getCommands().first().getExecutable(),
                         first.getCommands().first().getAdditionalVmoptionsContent() }),
            QStringList({ "first", "Indexing", "bin/x", "-Dx" }));
        const PostInstallStep::LatheOptions options = first.getLatheOptions().value();
        QCOMPARE(options.temporaryCopyDirectories + options.temporaryNewDirectories
                << options.additionalVmoptionsContent,
            QStringList({ "config", "system", "-Xmx2g" }));
        QVERIFY(!steps.at(1).getLatheOptions()); // present but empty
        for (const PostInstallStep &step : steps.mid(2))
            QVERIFY(step.getEnabled() && step.isRequired() && !step.isProgressVisible()
                && !step.getLatheOptions() && step.getCommands().isEmpty());

        TempHome home;
        const PostInstallStep::Command command(json("{'arguments': ['$HOME/.tool', '--temp=$TEMP/x', "
                                                    "'$TEMP$HOME', '$home and $temp', 12, '$HOMEWARD', "
                                                    "'plain']}"));
        const QString temp = "/tmp/step-1";
        QCOMPARE(command.getArguments(temp),
            QStringList({ home.path() + "/.tool", "--temp=" + temp + "/x", temp + home.path(),
                "$home and $temp", "", home.path() + "WARD", "plain" }));
        QVERIFY(PostInstallStep::Command().getArguments(temp).isEmpty());

        const QByteArray savedAppData = qgetenv("APPDATA");
        const auto restore = qScopeGuard(
            [&] { savedAppData.isNull() ? qunsetenv("APPDATA") : qputenv("APPDATA", savedAppData); });
        qputenv("APPDATA", "/win/roaming");
        qunsetenv("LOCALAPPDATA");
        const LathePlatformData lathe(
            json("{'default_config_directories': {'quern.system.path': '$XDG_CACHE_HOME/Tool/system', "
                 "'quern.config.path': '$XDG_CONFIG_HOME/Tool', "
                 "'quern.plugins.path': '$XDG_DATA_HOME/Tool/plugins|$HOME/p', "
                 "'quern.log.path': '$APPDATA/a;$LOCALAPPDATA/b;$TEMP;$xdg_config_home'}}"));
        QCOMPARE(lathe.getDefaultSystemDirectory(), home.cacheHome() + "/Tool/system");
        QCOMPARE(lathe.getDefaultConfigDirectory(), home.configHome() + "/Tool");
        QCOMPARE(lathe.getDefaultPluginsDirectory(), home.dataHome() + "/Tool/plugins|" + home.path() + "/p");
        QCOMPARE(lathe.getDefaultLogsDirectory(), QString("/win/roaming/a;/b;$TEMP;$xdg_config_home"));
        QCOMPARE(LathePlatformData().getDefaultConfigDirectory(), QString());
    }
};

QTEST_GUILESS_MAIN(FeedRecordsTest)
#include "FeedRecordsTest.moc"
