#pragma once

#include "local/LocalFeedItem.h"

#include <QAtomicInteger>
#include <QList>
#include <QObject>
#include <QString>

class LocalApplications;
class SettingsManager;

// The disk space taken by old versions: every installed build that a purge
// would remove. A purge keeps, per channel, the active build and the
// "channel_rollback_max_history" builds that came before it (in the order of
// the channel's history); everything else in a managed channel is an old
// version. Detected tools are never counted. The sum is computed on a worker.
class ApplicationManagerDiskSize : public QObject
{
    Q_OBJECT
public:
    ApplicationManagerDiskSize(
        LocalApplications *localApplications, SettingsManager *settings, QObject *parent = nullptr);

    // Sums the old versions again on a worker; diskSizeRecalculated follows when the sum changed.
    void recalculate();
    // The same, blocking, on the calling thread; returns the new sum.
    qint64 recalculateNow();

    qint64 getSize() const { return m_size.loadAcquire(); }
    // getSize() as a person reads it: "0 B", "912 KB", "1.2 GB".
    QString getFormattedSize() const { return formatSize(getSize()); }

    // Powers of 1024 with the short units B, KB, MB, GB, TB; one decimal below
    // 10 of a unit (dropped when it is 0), none above.
    static QString formatSize(qint64 bytes);
    // Bytes of all regular files under `path`, links not followed.
    static qint64 folderSize(const QString &path);
    // The builds a purge with this history depth removes, channel by channel.
    static QList<LocalFeedItem> oldVersions(LocalApplications *localApplications, int depth);

signals:
    void diskSizeRecalculated();

private:
    static qint64 sumOldVersions(LocalApplications *localApplications, int depth);
    void store(qint64 total);

    LocalApplications *m_localApplications;
    SettingsManager *m_settings;
    QAtomicInteger<qint64> m_size { 0 };
};
