#pragma once

#include "local/ChannelSettingsManager.h"
#include "local/LocalFeedItem.h"
#include "settings/SettingsManager.h"
#include "support/TempHome.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <memory>

// Installed builds on disk without the install pipeline: a channel folder with
// a build folder holding an executable that writes each of its arguments, then
// the VM-options variable, to the numbered files of "<home>/argv".
struct ToolsTestKit
{
    TempHome home;
    std::unique_ptr<SettingsManager> settings;
    ChannelSettingsManager channelSettings;

    ToolsTestKit()
    {
        SettingsManagerOptions options;
        options.passwordStore = ProxyPasswordStore::MemoryOnly;
        QDir(home.path()).mkpath("bin");
        options.launchersPathResolver
            = std::make_shared<OSShellLaunchersPathResolver>(QStringList { home.path() + "/bin" });
        settings = std::make_unique<SettingsManager>(home.appDataDir() + "/.settings.json", nullptr, options);
        (void)settings->updateSettings([](SelfSettings &s) { s.setShellLinksEnabled(true); });
    }

    QString scripts() const { return home.path() + "/bin"; }
    QString argvDir() const { return home.path() + "/argv"; }

    static QJsonObject entry(const QString &id, const QString &build, const QString &scriptName,
        const QString &vmoptions = QStringLiteral("-Xmx750m\n-XX:+UseG1GC"))
    {
        return QJsonObject {
            { "id", id },
            { "name", id + " IDE" },
            { "version", build },
            { "build", build },
            { "icon_url",
                "data:image/svg+xml;base64," + QString::fromLatin1(QByteArray("<svg/>").toBase64()) },
            { "package",
                QJsonObject { { "os", "linux" }, { "type", "tar.gz" }, { "command", "bin/run.sh" } } },
            { "lathe_platform",
                QJsonObject { { "shell_script_name", scriptName }, { "vmoptions_64bit_content", vmoptions },
                    { "startup_wm_class", "quern-ide" } } },
        };
    }

    // Makes "<apps>/<id>/<channel>/<folder>" with its executable.
    LocalFeedItem install(const QJsonObject &json, const QString &channel, const QString &folder,
        const QString &apps = QString())
    {
        const QString channelDir = (apps.isEmpty() ? home.path() + "/apps" : apps) + "/"
            + json.value("id").toString() + "/" + channel;
        const QString dir = channelDir + "/" + folder;
        QDir().mkpath(dir + "/bin");
        QFile exe(dir + "/bin/run.sh");
        exe.open(QIODevice::WriteOnly);
        exe.write("#!/bin/sh\nout=\"$HOME/argv\"\nrm -rf \"$out\"; mkdir \"$out\"; n=0\nfor a in \"$@\"; do "
                  "n=$((n+1)); "
                  "printf '%s' \"$a\" > \"$out/$n\"; done\nprintf 'ENV=%s' \"$QUERN_VM_OPTIONS\" > "
                  "\"$out/$((n+1))\"\n");
        exe.close();
        exe.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const LocalFeedItem item = LocalFeedItem::localApplication(json, dir, dir, channel);
        (void)channelSettings.createChannelSettings(item, None, false);
        return item;
    }

    // Runs a program with `args` in an empty folder; the recorded arguments.
    QStringList run(const QString &program, const QStringList &args, const QString &cwd)
    {
        QDir(argvDir()).removeRecursively();
        QProcess process;
        process.setWorkingDirectory(cwd);
        process.start(program, args);
        process.waitForFinished(10000);
        if (!QFile::exists(argvDir()))
            return { "<not run>" };
        QStringList recorded;
        for (int n = 1; QFile::exists(argvDir() + "/" + QString::number(n)); ++n)
            recorded << read(argvDir() + "/" + QString::number(n));
        return recorded;
    }

    static QString read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
};
