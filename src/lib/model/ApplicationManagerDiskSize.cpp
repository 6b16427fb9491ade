#include "model/ApplicationManagerDiskSize.h"

#include "base/WorkerThread.h"
#include "local/LocalApplications.h"
#include "settings/SettingsManager.h"

#include <QDirIterator>
#include <QFileInfo>
#include <cmath>

ApplicationManagerDiskSize::ApplicationManagerDiskSize(
    LocalApplications *localApplications, SettingsManager *settings, QObject *parent)
    : QObject(parent)
    , m_localApplications(localApplications)
    , m_settings(settings)
{
}

QString ApplicationManagerDiskSize::formatSize(qint64 bytes)
{
    static const char *const units[] = { "B", "KB", "MB", "GB", "TB" };
    double value = double(qMax<qint64>(bytes, 0));
    int unit = 0;
    while (value >= 1024.0 && unit < 4) {
        value /= 1024.0;
        ++unit;
    }
    if (unit == 0)
        return QString::number(qint64(value)) + QStringLiteral(" B");
    QString number;
    if (value < 10.0) {
        const double rounded = std::round(value * 10.0) / 10.0;
        number = rounded == std::floor(rounded) ? QString::number(qint64(rounded)) : QString::number(rounded, 'f', 1);
    } else {
        number = QString::number(qint64(std::round(value)));
    }
    return number + QLatin1Char(' ') + QLatin1String(units[unit]);
}

qint64 ApplicationManagerDiskSize::folderSize(const QString &path)
{
    const QFileInfo root(path);
    if (root.isSymLink() || !root.exists())
        return 0;
    if (root.isFile())
        return root.size();
    qint64 total = 0;
    QDirIterator it(path, QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        if (!info.isSymLink())
            total += info.size();
    }
    return total;
}

QList<LocalFeedItem> ApplicationManagerDiskSize::oldVersions(LocalApplications *localApplications, int depth)
{
    QList<LocalFeedItem> old;
    if (!localApplications)
        return old;
    const int keep = 1 + qMax(depth, 0);
    for (const LocalChannel &channel : localApplications->getChannels()) {
        if (channel.isDetected())
            continue;
        // Active build first, then the builds a rollback returns to, then the rest.
        const QList<LocalFeedItem> sorted = localApplications->getSortedItems(channel);
        const Option<LocalFeedItem> active = localApplications->getActiveItem(channel);
        int kept = active ? 1 : 0;
        for (const LocalFeedItem &item : sorted) {
            if (active && item.isEqualByInstallDir(*active))
                continue;
            if (kept < keep) {
                ++kept;
                continue;
            }
            if (item.canBeUninstalled())
                old.append(item);
        }
    }
    return old;
}

qint64 ApplicationManagerDiskSize::sumOldVersions(LocalApplications *localApplications, int depth)
{
    qint64 total = 0;
    for (const LocalFeedItem &item : oldVersions(localApplications, depth))
        total += folderSize(item.getInstallDir());
    return total;
}

void ApplicationManagerDiskSize::store(qint64 total)
{
    if (m_size.fetchAndStoreOrdered(total) != total)
        emit diskSizeRecalculated();
}

qint64 ApplicationManagerDiskSize::recalculateNow()
{
    const int depth = m_settings ? m_settings->getSettings().getChannelRollbackHistoryDepth() : 0;
    const qint64 total = sumOldVersions(m_localApplications, depth);
    store(total);
    return total;
}

void ApplicationManagerDiskSize::recalculate()
{
    const int depth = m_settings ? m_settings->getSettings().getChannelRollbackHistoryDepth() : 0;
    LocalApplications *localApplications = m_localApplications;
    WorkerThread::runInThread(
        this, [localApplications, depth] { return sumOldVersions(localApplications, depth); },
        [this](qint64 total) { store(total); });
}
