#pragma once

#include "tools/OSShellLauncherConflictsResolver.h"
#include "tools/VantrelProtocolHandler.h"

#include <QList>
#include <QObject>
#include <QString>
#include <memory>

class ApplicationEventsListener;
class ChannelSettingsManager;
class FeedletManager;
class LatheSettings;
class LatheSettingsModelSectionProvider;
class LocalApplications;
class OSIntegrationManager;
class OSShellLaunchers;
class OSShellLaunchersEvents;
class OSShellLaunchersScriptNameResolver;
class OSShellLaunchersSettingsModelSectionProvider;
class SettingsManager;
class SettingsModelSectionProvider;
class ToolDesktopEntries;

// What the desktop-integration objects need from the rest of the manager.
struct ToolsIntegrationServices
{
    SettingsManager *settings = nullptr;
    ChannelSettingsManager *channelSettings = nullptr;
    LocalApplications *localApplications = nullptr;
    FeedletManager *feedlets = nullptr;
    // The feed's builds, for links that name a tool.
    VantrelProtocolHandler::RemoteItemsProvider remoteItems;
    // The program that the manager's own desktop and autostart entries start.
    QString executable;
};

// Makes the tools' desktop integration in the order start-up needs it: shell
// launchers with their name and conflict resolvers, the VM-options settings,
// desktop entries, the settings-panel sections, the queued launcher refresh,
// the manager's own desktop and autostart entries and the link handler.
// Start-up hands listeners() to the application manager and
// sectionProviders() to the model builder.
//
// Which builds launchers compare names with comes from setLocalItems(): the
// current build of every installed channel, as the application model lists
// them. Until it is set, the registry's active builds are used.
class ToolsIntegration : public QObject
{
    Q_OBJECT
public:
    explicit ToolsIntegration(ToolsIntegrationServices services, QObject *parent = nullptr);
    ~ToolsIntegration() override;

    void setLocalItems(LocalItemsProvider items);

    QList<ApplicationEventsListener *> listeners() const;
    QList<SettingsModelSectionProvider *> sectionProviders() const;

    OSShellLaunchers *launchers() const { return m_launchers.get(); }
    OSShellLaunchersEvents *launcherEvents() const { return m_events; }
    LatheSettings *latheSettings() const { return m_lathe.get(); }
    LatheSettingsModelSectionProvider *latheSection() const { return m_latheSection.get(); }
    ToolDesktopEntries *desktopEntries() const { return m_entries.get(); }
    OSIntegrationManager *integration() const { return m_integration; }
    VantrelProtocolHandler *protocolHandler() const { return m_protocol; }

private:
    QList<LocalFeedItem> currentItems() const;

    ToolsIntegrationServices m_services;
    LocalItemsProvider m_items;
    std::unique_ptr<OSShellLaunchersScriptNameResolver> m_names;
    std::unique_ptr<OSShellLauncherConflictsResolver> m_conflicts;
    std::unique_ptr<OSShellLaunchers> m_launchers;
    std::unique_ptr<LatheSettings> m_lathe;
    std::unique_ptr<ToolDesktopEntries> m_entries;
    std::unique_ptr<OSShellLaunchersSettingsModelSectionProvider> m_launchersSection;
    std::unique_ptr<LatheSettingsModelSectionProvider> m_latheSection;
    OSShellLaunchersEvents *m_events;
    OSIntegrationManager *m_integration;
    VantrelProtocolHandler *m_protocol;
};
