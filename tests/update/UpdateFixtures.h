#pragma once

#include "support/ApiClient.h"

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QJsonArray>
#include <QJsonObject>

// Manager installations for the self-update tests: this build installed with `cmake --install`
// (the older manager) and the newer manager's release package, unpacked.
namespace UpdateFixtures {

QString binaryDir();
QString newerPackage();
// `cmake --install` of this build's manager into `prefix`; empty on success, else the reason.
QString installOlderManager(const QString &prefix);
// The newer package unpacked into `root` as the installer would (its top folder stripped).
QString unpackNewerManager(const QString &root);
// "<version>" as `<root>/bin/hangar --version` prints it; empty when it does not start.
QString versionOf(const QString &root, const QString &home);

// Runs a program to its end; the exit code, or -1 when it could not start or timed out.
int run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr,
    int timeoutMs = 120000, const QProcessEnvironment &environment = QProcessEnvironment());

// A bind mount of `path` onto itself (read-only when asked), so that the folder cannot be
// renamed or written. False when this machine does not let us mount (no privilege).
bool bindMount(const QString &path, bool readOnly);
void unmount(const QString &path);

// The process ids found in the log lines of `logFile` ("<version> <pid> ..."), in order.
QList<qint64> pidsInLog(const QString &logFile);
void killAndReap(qint64 pid);

// The feed entry of a manager build whose package is `packagePath`, served at `url`.
QJsonObject selfEntry(const QString &version, const QString &url, const QString &packagePath, int quality = 1,
    const QString &branch = QString());

// Signs a feed of `entries` with this build's development CA and puts it where the manager of
// `home` looks for its root feed (HangarProcess).
bool writeSignedRootFeed(const QString &home, const QJsonArray &entries);

// Connects `client` to the headless manager announced in `runtimeFile` ("hangar-api.json"),
// waiting until the file names a process other than `notPid`; that process id, or 0.
qint64 connectToManager(ApiClient &client, const QString &runtimeFile, qint64 notPid = 0, int timeoutMs = 60000);
// The answer text of one request; empty, with `error` set, on failure.
QString query(ApiClient &client, const QJsonObject &request, QString *error = nullptr, int timeoutMs = 60000);

} // namespace UpdateFixtures
