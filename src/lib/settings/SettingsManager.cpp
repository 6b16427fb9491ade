#include "settings/SettingsManager.h"

#include "base/JsonEditor.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QMetaObject>
#include <QMutexLocker>
#include <QNetworkProxy>
#include <QThread>
#include <QTimer>
#include <qt5keychain/keychain.h>

namespace {

const QString kKeychainService = QStringLiteral("Vantrel Hangar");
const QString kKeychainEntry = QStringLiteral("system-proxy");
// A keychain that does not answer in this time is treated as absent; the password
// is already in memory, so nothing waits for it.
constexpr int kKeychainTimeoutMs = 5000;

QString compact(const QJsonObject &json)
{
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

QJsonObject withoutPassword(QJsonObject json)
{
    JsonEditor editor(json);
    if (editor.value({ "proxy", "auth", "password" }).isString())
        (void)editor.remove({ "proxy", "auth", "password" });
    return json;
}

QString withTildeHome(const QString &path)
{
    const QString home = QDir::homePath();
    if (path == home)
        return QStringLiteral("~");
    if (path.startsWith(home + "/"))
        return "~" + path.mid(home.size());
    return path;
}

bool onMainThread()
{
    const QCoreApplication *app = QCoreApplication::instance();
    return !app || QThread::currentThread() == app->thread();
}

} // namespace

SettingsManager::SettingsManager(const QString &path, QObject *parent, SettingsManagerOptions options)
    : QObject(parent)
    , m_path(QDir::cleanPath(path))
    , m_resolver(options.launchersPathResolver)
{
    qRegisterMetaType<SelfSettings>("SelfSettings");
    if (!m_resolver)
        m_resolver = std::make_shared<OSShellLaunchersPathResolver>();

    if (options.passwordStore == ProxyPasswordStore::MemoryOnly) {
        m_keychainEnabled = false;
    } else if (qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS").isEmpty()) {
        // Without a session bus the keychain client would try to start one (or wait
        // for one); there is no keychain to talk to in such a session anyway.
        qInfo().noquote() << "No session bus: the proxy password is kept in memory only";
        m_keychainEnabled = false;
    } else {
        m_keychainEnabled = true;
    }

    if (!QFileInfo::exists(m_path)) {
        SelfSettings old;
        {
            QMutexLocker lock(&m_mutex);
            old = m_settings;
            m_settings.setSettings(SelfSettings::defaultContent());
        }
        const Result<void> saved = applyChange(old);
        if (saved.isError())
            qWarning().noquote() << "Failed to create settings file:" << saved.error();
        else
            qInfo().noquote() << "Created settings file at" << m_path;
    } else {
        (void)loadSettings();
    }
}

SettingsManager::~SettingsManager() = default;

SelfSettings SettingsManager::getSettings() const
{
    QMutexLocker lock(&m_mutex);
    return m_settings;
}

Result<QJsonObject> SettingsManager::loadSettings()
{
    Result<QJsonObject> loaded = JsonEditor::loadJsonFile(m_path);
    if (loaded.isError()) {
        qWarning().noquote() << "Failed to load Hangar settings:" << loaded.error();
        QMutexLocker lock(&m_mutex);
        // Whatever is in the file stays there until the user changes a setting; the
        // first write then keeps a copy of it aside.
        m_loadFailed = QFileInfo::exists(m_path);
        return loaded;
    }

    QJsonObject json = loaded.value();
    const bool migrated = migrateSettings(json);
    SelfSettings newSettings(json);
    for (const QString &problem : newSettings.findWrongTypedKeys())
        qWarning().noquote() << "Failed to load Hangar settings:" << problem + ", using the default";

    // A password left in the file (edited by hand, or written by an old version) is
    // moved out of it at once.
    const Option<QString> password = newSettings.takeProxyPassword();

    SelfSettings old;
    Result<void> saved;
    {
        QMutexLocker lock(&m_mutex);
        old = m_settings;
        m_settings = newSettings;
        m_loadFailed = false;
        if (password)
            storePassword(*password);
        if (migrated || password) {
            qInfo().noquote() << "Migrated settings file" << m_path;
            saved = saveSettings();
        }
    }
    if (saved.isError())
        qWarning().noquote() << "Failed to save migrated settings:" << saved.error();
    emit settingsChanged(old, newSettings);
    return json;
}

bool SettingsManager::migrateSettings(QJsonObject &json) const
{
    bool changed = false;
    if (json.contains("orvacc")) {
        json.remove("orvacc");
        changed = true;
    }
    if (!json.contains("shell_scripts")) {
        const bool hadLocation = json.contains("shell_scripts_location");
        const bool enabled = m_resolver->resolveShellLinksTargetFolder().has_value() || hadLocation;
        QJsonObject shellScripts { { "enabled", enabled } };
        if (hadLocation)
            shellScripts.insert("location", json.value("shell_scripts_location"));
        json.insert("shell_scripts", shellScripts);
        json.remove("shell_scripts_location");
        changed = true;
    }
    return changed;
}

Result<void> SettingsManager::updateSettings(const std::function<void(SelfSettings &)> &edit)
{
    SelfSettings old;
    {
        QMutexLocker lock(&m_mutex);
        old = m_settings;
        edit(m_settings);
    }
    return applyChange(old);
}

Result<void> SettingsManager::applyChange(const SelfSettings &old)
{
    SelfSettings current;
    Result<void> saved;
    {
        QMutexLocker lock(&m_mutex);
        // The password is never part of the settings value that is kept, compared,
        // signalled or written: it goes to the keychain (or memory) right here.
        if (const Option<QString> password = m_settings.takeProxyPassword())
            storePassword(*password);
        if (m_settings == old)
            return {};
        current = m_settings;
        qDebug().noquote() << "Settings before:" << compact(old.toJson());
        qDebug().noquote() << "Settings after:" << compact(current.toJson());
        saved = saveSettings();
    }
    emit settingsChanged(old, current);
    return saved;
}

Result<void> SettingsManager::resetSettings()
{
    return updateSettings([](SelfSettings &settings) { settings.resetToDefaults(); });
}

Result<void> SettingsManager::removeOutdated()
{
    return updateSettings([](SelfSettings &settings) { settings.removeOutdated(); });
}

Result<void> SettingsManager::saveSettings()
{
    QMutexLocker lock(&m_mutex);
    QJsonObject json = m_settings.toJson();
    JsonEditor editor(json);
    const QJsonValue password = editor.value({ "proxy", "auth", "password" });
    if (!password.isUndefined()) {
        storePassword(password.toString());
        (void)editor.remove({ "proxy", "auth", "password" });
    }
    json.remove("defaults");
    return writeFile(json);
}

Result<void> SettingsManager::writeFile(const QJsonObject &json)
{
    if (m_loadFailed && QFileInfo::exists(m_path)) {
        // The unreadable file is replaced now: its bytes go aside first, through a
        // temporary file and a rename, and only once they are on disk does the
        // original go. Without a copy the original stays and the change lives in
        // memory only.
        const Result<void> kept = keepUnreadableFile();
        if (kept.isError()) {
            qWarning().noquote() << "Settings are kept in memory only: the unreadable settings file" << m_path
                                 << "is left as it is," << kept.error();
            return kept;
        }
        qWarning().noquote() << "Keeping unreadable settings file as" << m_path + ".broken";
    }
    const Result<void> saved = JsonEditor::saveJsonFile(m_path, json);
    if (saved.isSuccessful())
        m_loadFailed = false;
    return saved;
}

Result<void> SettingsManager::keepUnreadableFile() const
{
    const QString kept = m_path + ".broken";
    const Result<QByteArray> content = JsonEditor::readStateFile(m_path);
    if (content.isError())
        return Error("unable to copy it to " + kept + ": " + content.error());
    const Result<void> copied = JsonEditor::writeFileAtomically(kept, content.value());
    if (copied.isError())
        return Error("unable to copy it to " + kept + ": " + copied.error());
    return {};
}

QJsonObject SettingsManager::getSettingsJson() const
{
    const SelfSettings settings = getSettings();
    QJsonObject json = withoutPassword(settings.toJson());
    const QJsonObject defaults {
        { "install_location", withTildeHome(SelfSettings::defaultApplicationInstallDirectory()) },
        { "shell_scripts_default_location", platformShellLinksFolder().value_or(QString()) },
        { "install_hangar_automatically", true },
        { "autostart", true },
    };
    json.insert("defaults", defaults);
    // Sign-in keeps one account at a time; the page lists it and marks it active.
    const QString active = settings.getActiveOrvacc();
    QJsonArray list;
    if (!active.isEmpty())
        list.append(QJsonObject { { "id", active } });
    json.insert("accounts", QJsonObject { { "list", list }, { "active", active } });
    return json;
}

Result<void> SettingsManager::setProxyConfig(const QNetworkProxy &proxy)
{
    return updateSettings([&](SelfSettings &settings) { settings.setProxyConfig(proxy); });
}

QString SettingsManager::getProxyPassword() const
{
    QMutexLocker lock(&m_mutex);
    return m_password;
}

void SettingsManager::resetProxyPassword()
{
    QMutexLocker lock(&m_mutex);
    m_password.clear();
}

void SettingsManager::requestProxyCredentials(const QString &proxyHostAndPort)
{
    emit proxyCredentialsRequired(proxyHostAndPort);
}

void SettingsManager::storePassword(const QString &password)
{
    {
        QMutexLocker lock(&m_mutex);
        m_password = password;
    }
    if (!m_keychainEnabled) {
        qInfo().noquote() << "No keychain service: keeping the proxy password in memory only";
        QMetaObject::invokeMethod(
            this, [this] { emit proxyPasswordStored(false); }, Qt::QueuedConnection);
        return;
    }
    qInfo().noquote() << "Storing proxy password in keychain";
    // Keychain jobs belong to this object's thread; a save from a worker hands it over.
    QMetaObject::invokeMethod(
        this, [this, password] { writePasswordToKeychain(password); }, Qt::QueuedConnection);
}

void SettingsManager::writePasswordToKeychain(const QString &password)
{
    auto *job = new QKeychain::WritePasswordJob(kKeychainService, this);
    job->setAutoDelete(true);
    job->setKey(kKeychainEntry);
    job->setTextData(password);
    connect(job, &QKeychain::Job::finished, this, [this](QKeychain::Job *finished) {
        if (finished->error() != QKeychain::NoError) {
            qWarning().noquote() << "Unable to store proxy password in keychain:" << finished->errorString()
                                 << "- it is kept in memory only";
            emit proxyPasswordStored(false);
            return;
        }
        emit proxyPasswordStored(true);
    });
    QTimer::singleShot(kKeychainTimeoutMs, job, [this, job] {
        qWarning().noquote() << "Keychain did not answer: the proxy password is kept in memory only";
        job->disconnect(this);
        job->deleteLater();
        emit proxyPasswordStored(false);
    });
    job->start();
}

void SettingsManager::fetchProxyPassword()
{
    if (!onMainThread())
        qCritical().noquote() << "Assertion: called from non-main thread";
    if (!m_keychainEnabled) {
        qInfo().noquote() << "No keychain service: no stored proxy password to read";
        return;
    }
    auto *job = new QKeychain::ReadPasswordJob(kKeychainService, this);
    job->setAutoDelete(true);
    job->setKey(kKeychainEntry);
    connect(job, &QKeychain::Job::finished, this, [this](QKeychain::Job *finished) {
        const auto *read = static_cast<QKeychain::ReadPasswordJob *>(finished);
        if (read->error() == QKeychain::EntryNotFound)
            return;
        if (read->error() != QKeychain::NoError) {
            qWarning().noquote() << "Unable to read proxy password from keychain:" << read->errorString();
            return;
        }
        QMutexLocker lock(&m_mutex);
        // A password given by the user while the keychain was answering is newer.
        if (m_password.isEmpty())
            m_password = read->textData();
    });
    QTimer::singleShot(kKeychainTimeoutMs, job, [this, job] {
        qWarning().noquote() << "Keychain did not answer: no stored proxy password";
        job->disconnect(this);
        job->deleteLater();
    });
    job->start();
}

QString SettingsManager::getShellLinksFolderOrDefault() const
{
    const QString configured = getSettings().getShellLinksFolder();
    if (!configured.isEmpty())
        return configured;
    return platformShellLinksFolder().value_or(QString());
}

Option<QString> SettingsManager::platformShellLinksFolder() const
{
    return m_resolver->resolveShellLinksTargetFolder();
}

void SettingsManager::watchSettingsFileForChanges()
{
    if (!isFileWatcherAllowed())
        return;
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, &SettingsManager::onSettingsFileChange,
        Qt::UniqueConnection);
    m_watcher.addPath(m_path);
}

void SettingsManager::onSettingsFileChange(const QString &path)
{
    // Saves replace the file by renaming, which ends the watch on the old inode.
    if (isFileWatcherAllowed())
        m_watcher.addPath(path);
    qInfo().noquote() << "Settings file changed" << path;
    (void)loadSettings();
}
