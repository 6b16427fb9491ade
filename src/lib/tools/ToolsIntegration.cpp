#include "tools/ToolsIntegration.h"

#include "local/ChannelSettingsManager.h"
#include "local/LocalApplications.h"
#include "tools/LatheSettings.h"
#include "tools/LatheSettingsModelSectionProvider.h"
#include "tools/OSIntegrationManager.h"
#include "tools/OSShellLaunchers.h"
#include "tools/OSShellLaunchersEvents.h"
#include "tools/OSShellLaunchersScriptNameResolver.h"
#include "tools/OSShellLaunchersSettingsModelSectionProvider.h"
#include "tools/ToolDesktopEntries.h"

ToolsIntegration::ToolsIntegration(ToolsIntegrationServices services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    const LocalItemsProvider items = [this] { return currentItems(); };
    m_names = std::make_unique<OSShellLaunchersScriptNameResolver>(m_services.channelSettings);
    m_conflicts = std::make_unique<OSShellLauncherConflictsResolver>(items, m_names.get());
    m_launchers = std::make_unique<OSShellLaunchers>(m_services.settings, m_names.get(), m_conflicts.get());
    m_lathe = std::make_unique<LatheSettings>(m_services.channelSettings, m_services.localApplications);
    m_entries = std::make_unique<ToolDesktopEntries>(m_services.channelSettings, m_services.settings);
    m_launchersSection
        = std::make_unique<OSShellLaunchersSettingsModelSectionProvider>(m_launchers.get(), m_names.get());
    m_latheSection = std::make_unique<LatheSettingsModelSectionProvider>(m_lathe.get());
    m_events = new OSShellLaunchersEvents(items, m_launchers.get(), m_services.channelSettings, this);
    if (m_services.settings)
        m_events->watchSettings(m_services.settings);
    m_integration = new OSIntegrationManager(m_services.settings, m_services.executable, this);
    m_protocol = new VantrelProtocolHandler(m_services.remoteItems, m_services.feedlets, this);
}

ToolsIntegration::~ToolsIntegration()
{
    // The queued refresh jobs use the launchers: they finish first.
    delete m_events;
}

void ToolsIntegration::setLocalItems(LocalItemsProvider items)
{
    m_items = std::move(items);
}

QList<LocalFeedItem> ToolsIntegration::currentItems() const
{
    if (m_items)
        return m_items();
    if (!m_services.localApplications)
        return {};
    return m_services.localApplications->getActiveItems().values();
}

QList<ApplicationEventsListener *> ToolsIntegration::listeners() const
{
    // Options first: the desktop entry of a platform tool points at its options file.
    return { m_lathe.get(), m_launchers.get(), m_entries.get() };
}

QList<SettingsModelSectionProvider *> ToolsIntegration::sectionProviders() const
{
    return { m_launchersSection.get(), m_latheSection.get() };
}
