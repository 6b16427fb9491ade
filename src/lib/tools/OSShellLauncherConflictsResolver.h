#pragma once

#include "base/Option.h"
#include "local/LocalFeedItem.h"

#include <QList>
#include <QString>
#include <functional>

class OSShellLaunchersScriptNameResolver;

// The installed builds of the current application model, as launchers see them.
using LocalItemsProvider = std::function<QList<LocalFeedItem>()>;

// One build and the script name it wants.
struct ShellScriptUsage
{
    LocalFeedItem item;
    QString name;
    LocalChannel channel; // the item's, kept: records read their fields on every call
    QString installDir;
};
using ShellScriptUsages = QList<ShellScriptUsage>;

// Decides which of two tools that want one script name gets it.
//
// A channel owns one name: the other builds of the item's own channel (older
// builds kept for rollback) never conflict with it. Between channels the build
// that already holds the script (its marker names the script file) keeps it, so
// a full refresh never moves a script from one tool to another; when neither
// holds it, the first to be written wins and the second gets no script.
class OSShellLauncherConflictsResolver
{
public:
    OSShellLauncherConflictsResolver(
        LocalItemsProvider items, const OSShellLaunchersScriptNameResolver *names);

    bool isConflict(const LocalFeedItem &item) const;
    // The same against usages computed once for many items (a full refresh).
    bool isConflict(const LocalFeedItem &item, const ShellScriptUsages &usages) const;
    // The names used by the builds of every other channel.
    ShellScriptUsages listOtherUsagesBut(const LocalFeedItem &item) const;
    // The names every build of the model wants.
    ShellScriptUsages listUsages() const;
    // The item's name as `usages` hold it when they list this very build,
    // else resolved afresh.
    Option<QString> nameOf(const LocalFeedItem &item, const ShellScriptUsages &usages) const;

    // The script file the build's marker names, empty when there is none.
    static QString readMarker(const LocalFeedItem &item);
    static QString markerFile(const LocalFeedItem &item);

private:
    LocalItemsProvider m_items;
    const OSShellLaunchersScriptNameResolver *m_names;
};
