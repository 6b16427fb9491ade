#pragma once

#include "base/Result.h"
#include "settings/OSShellLaunchersPathResolver.h"
#include "settings/SelfSettings.h"
#include "settings/SelfSettingsAccess.h"

#include <QFileSystemWatcher>
#include <QJsonObject>
#include <QObject>
#include <QRecursiveMutex>
#include <QString>
#include <functional>
#include <memory>

class QNetworkProxy;

// Where the proxy password is kept.
enum class ProxyPasswordStore
{
    // The desktop keychain when a session bus is there (DBUS_SESSION_BUS_ADDRESS
    // set); otherwise, and whenever the keychain fails, in memory only.
    Automatic,
    // In memory only, never the keychain (tests, headless runs).
    MemoryOnly,
};

struct SettingsManagerOptions
{
    ProxyPasswordStore passwordStore = ProxyPasswordStore::Automatic;
    // Supplies the platform's launcher folder; built from the home folder when null.
    std::shared_ptr<const OSShellLaunchersPathResolver> launchersPathResolver;
};

// Owns the manager's settings file. The in-memory copy is the truth; every change
// goes through updateSettings(): copy, edit, compare, save when different, then
// signal old and new values. A change that changes nothing writes nothing and
// signals nothing. The proxy password never reaches the file: it goes to the
// desktop keychain under "system-proxy", or stays in memory when there is none.
//
// getSettings(), updateSettings(), getProxyPassword() and resetProxyPassword() may
// be called from any thread; settingsChanged is emitted on the calling thread.
class SettingsManager : public QObject, public SelfSettingsAccess
{
    Q_OBJECT
public:
    explicit SettingsManager(const QString &path, QObject *parent = nullptr,
        SettingsManagerOptions options = SettingsManagerOptions());
    ~SettingsManager() override;

    QString path() const { return m_path; }

    SelfSettings getSettings() const override;

    // Applies `edit` to the settings; when they changed, saves and emits
    // settingsChanged(old, new). Returns the save's result (success when nothing
    // changed). A failed save keeps the change in memory and still signals it.
    // `edit` must not call back into this manager's update functions.
    Result<void> updateSettings(const std::function<void(SelfSettings &)> &edit);
    Result<void> resetSettings();
    // Drops outdated project records (run a while after start, possibly from a worker).
    Result<void> removeOutdated();

    // Writes the current settings (without the proxy password) to the file.
    Result<void> saveSettings();
    // Re-reads the file; on failure the current settings stay as they are.
    Result<QJsonObject> loadSettings();

    // The settings for the web page, with the "defaults" it shows for unset keys
    // and the account list under "accounts".
    QJsonObject getSettingsJson() const;

    // Records the system proxy chosen for the download server.
    Result<void> setProxyConfig(const QNetworkProxy &proxy);

    // The proxy password for the configured user, empty when unknown.
    QString getProxyPassword() const;
    // Reads the keychain entry once (main thread); the result arrives asynchronously.
    void fetchProxyPassword();
    void resetProxyPassword();
    // Whether the password is kept in the desktop keychain (false: memory only).
    bool isKeychainEnabled() const { return m_keychainEnabled; }
    // Asks whoever shows the proxy dialog for credentials (emits proxyCredentialsRequired).
    void requestProxyCredentials(const QString &proxyHostAndPort);

    // The configured launcher folder, or the platform's when none is set (may be empty).
    QString getShellLinksFolderOrDefault() const;
    Option<QString> platformShellLinksFolder() const;

    // Watching the file for outside edits is switched off in this build.
    bool isFileWatcherAllowed() const { return false; }
    void watchSettingsFileForChanges();

public slots:
    void onSettingsFileChange(const QString &path);

signals:
    void settingsChanged(const SelfSettings &oldSettings, const SelfSettings &newSettings);
    void proxyCredentialsRequired(const QString &proxyHostAndPort);
    // The keychain finished storing (ok) or failed to store the password.
    void proxyPasswordStored(bool inKeychain);

private:
    bool migrateSettings(QJsonObject &json) const;
    Result<void> applyChange(const SelfSettings &oldSettings);
    Result<void> writeFile(const QJsonObject &json);
    Result<void> keepUnreadableFile() const;
    void storePassword(const QString &password);
    void writePasswordToKeychain(const QString &password);

    const QString m_path;
    std::shared_ptr<const OSShellLaunchersPathResolver> m_resolver;
    bool m_keychainEnabled = false;

    mutable QRecursiveMutex m_mutex; // guards m_settings, m_password, m_loadFailed
    SelfSettings m_settings;
    QString m_password;
    // The file on disk could not be read: it is copied to "<file>.broken" before the
    // first write, and not replaced at all while that copy cannot be made.
    bool m_loadFailed = false;

    QFileSystemWatcher m_watcher;
};
