#include "feed/records/PathComponent.h"

#include "feed/records/RemoteFeedItem.h"

namespace {

const int MaxNameBytes = 255;

QString quoted(const QString &value)
{
    QString shown;
    for (const QChar c : value)
        shown += c.unicode() < 0x20 || c.unicode() == 0x7f
            ? QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'))
            : QString(c);
    return '"' + shown + '"';
}

} // namespace

Result<void> PathComponent::check(const QString &what, const QString &value)
{
    const auto refuse = [&](const QString &why) {
        return Error(what + ' ' + quoted(value) + " cannot name a folder: " + why);
    };
    if (value.isEmpty())
        return refuse(QStringLiteral("it is empty"));
    if (value == QLatin1String(".") || value == QLatin1String(".."))
        return refuse(QStringLiteral("it names a folder itself"));
    if (value.contains(QLatin1Char('/')) || value.contains(QLatin1Char('\\')))
        return refuse(QStringLiteral("it holds a path separator"));
    for (const QChar c : value) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return refuse(QStringLiteral("it holds a control character"));
    }
    if (value.startsWith(QLatin1Char('-')))
        return refuse(QStringLiteral("it starts with \"-\""));
    if (value.startsWith(QLatin1Char('.')))
        return refuse(QStringLiteral("it starts with \".\""));
    if (value.toUtf8().size() > MaxNameBytes)
        return refuse(QStringLiteral("it is longer than 255 bytes"));
    return {};
}

Result<void> PathComponent::checkItem(const RemoteFeedItem &item)
{
    const QString id = item.getApplicationType();
    const QString build = item.getBuild();
    const QString entry = "Feed entry " + quoted(id) + " build " + quoted(build) + " is invalid: ";
    if (auto r = check(QStringLiteral("id"), id); !r)
        return Error(entry + r.error());
    if (auto r = check(QStringLiteral("build"), build); !r)
        return Error(entry + r.error());
    if (build == QLatin1String("latest"))
        return Error(entry + "build \"latest\" is the name the channel folder reserves");
    if (build.endsWith(QLatin1String(".plugins")))
        return Error(entry + "a build ending in \".plugins\" would share the plugins folder of another");
    return {};
}
