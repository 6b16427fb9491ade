#include "tools/OSShellLaunchersEvents.h"

#include "base/WorkerThread.h"
#include "local/ChannelSettingsManager.h"
#include "settings/SettingsManager.h"
#include "tools/OSShellLaunchers.h"

#include <QDebug>

OSShellLaunchersEvents::OSShellLaunchersEvents(LocalItemsProvider items, OSShellLaunchers *launchers,
    ChannelSettingsManager *channelSettings, QObject *parent)
    : QObject(parent)
    , m_items(std::move(items))
    , m_launchers(launchers)
    , m_jobs(std::make_unique<WorkerThread>(QStringLiteral("ShellLinks")))
{
    if (channelSettings)
        connect(channelSettings, &ChannelSettingsManager::channelSettingsUpdated, this,
            &OSShellLaunchersEvents::channelUpdateLinks);
}

OSShellLaunchersEvents::~OSShellLaunchersEvents() = default;

void OSShellLaunchersEvents::watchSettings(SettingsManager *settings)
{
    connect(settings, &SettingsManager::settingsChanged, this, &OSShellLaunchersEvents::onSettingsChanged);
}

void OSShellLaunchersEvents::onSettingsChanged(
    const SelfSettings &oldSettings, const SelfSettings &newSettings)
{
    if (oldSettings.getShellLinksFolder() != newSettings.getShellLinksFolder()
        || oldSettings.getShellLinksEnabled() != newSettings.getShellLinksEnabled())
        fullUpdateLinks();
}

void OSShellLaunchersEvents::channelUpdateLinks(const LocalChannel &channel)
{
    m_jobs->post([this, channel]() {
        qInfo().noquote() << "Updating shell links for" << channel.toDebugString();
        updateLinksNow(channel);
        emit linksUpdated();
    });
}

void OSShellLaunchersEvents::fullUpdateLinks()
{
    m_jobs->post([this]() {
        qInfo().noquote() << "Updating ALL shell links to reflect recent change";
        updateLinksNow();
        emit linksUpdated();
    });
}

int OSShellLaunchersEvents::updateLinksNow(const Option<LocalChannel> &channel)
{
    if (!m_items)
        return 0;
    const ShellScriptUsages usages = m_launchers->conflicts()->listUsages();
    int failed = 0;
    const QList<LocalFeedItem> items = m_items();
    for (const LocalFeedItem &item : items) {
        if (item.isDetected() || (channel && item.getChannel() != *channel))
            continue;
        if (!item.getFeedItem().getLathePlatformData())
            continue;
        const Result<void> updated = m_launchers->createShellScript(item, usages);
        if (updated.isError()) {
            ++failed;
            qWarning().noquote() << "Unable to refresh shell script for"
                                 << item.getFeedItem().getPresentableFullNameAndVersionAndBuild() + ":"
                                 << updated.error();
        }
    }
    return failed;
}
