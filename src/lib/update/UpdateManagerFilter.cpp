#include "update/UpdateManagerFilter.h"

#include "settings/SelfSettings.h"

UpdateManagerFilter UpdateManagerFilter::fromSettings(const SelfSettings &settings)
{
    const HangarUpdatesFilter stored = settings.getHangarUpdatesFilter();
    Option<QString> branch;
    if (stored.branchFilter) {
        const QJsonValue name = stored.branchFilter->value(QStringLiteral("name"));
        // A branch filter without a usable name would match no build at all; it reads as
        // "no branch" so that a damaged setting never cuts the manager off its updates.
        if (name.isString() && !name.toString().isEmpty())
            branch = name.toString();
    }
    return UpdateManagerFilter(stored.qualityOrderValue, branch);
}
