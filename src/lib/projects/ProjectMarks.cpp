#include "projects/ProjectMarks.h"

#include "settings/SelfSettings.h"

#include <QJsonObject>

ProjectMarks ProjectMarks::fromSettings(const SelfSettings &settings)
{
    ProjectMarks marks;
    const QMap<QString, QDateTime> hidden = settings.getHiddenProjects();
    for (auto it = hidden.constBegin(); it != hidden.constEnd(); ++it)
        marks.hidden.insert(it.key(), it.value());
    marks.favorites = settings.getSpecialProjects().value(QStringLiteral("favorite"));
    const QJsonObject defaults = settings.getProjects().value(QStringLiteral("default_open_item")).toObject();
    for (auto it = defaults.constBegin(); it != defaults.constEnd(); ++it) {
        if (const Option<SettingsItemKey> item = settings.getDefaultOpenItem(it.key()))
            marks.defaultOpenItems.insert(it.key(), ProjectOpenItem(item->applicationId, item->channelId));
    }
    return marks;
}
