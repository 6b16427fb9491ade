#include "model/ApplicationManagerModelJSON.h"

#include <QHash>
#include <QJsonArray>
#include <QVarLengthArray>
#include <algorithm>

namespace {

const QString kFeedItem = QStringLiteral("feed_item");

// Every key the page document names, in document order. Keys shared by several
// object kinds appear once, at a position that respects each kind's order.
const char *const kKeyOrder[] = {
    "default_updates",
    "old_versions",
    "local",
    "manual",
    "remote",
    "remote_other",
    "projects",
    "feed_stale",
    "feed_generation_time",
    "count",
    "versions",
    "stable",
    "feed_item",
    "size",
    "use_patch",
    "patches_count",
    "version",
    "build",
    "key",
    "project",
    "isInstalled",
    "name",
    "progress",
    "working",
    "progress_id",
    "workitem",
    "cancelable",
    "is_removing",
    "application_type",
    "installed_builds",
    "display_path",
    "full_path",
    "open_items",
    "custom_open_items",
    "default_open_item",
    "default_open_item_key",
    "settings",
    "settings_model",
    "default_update",
    "skipped_update",
    "skipped_after_last_update",
    "instant_rollback",
    "downgrade",
    "isDetected",
    "isLegacy",
    "canBeUninstalled",
    "promoteUninstall",
    "quality",
    "levels",
    "item",
    "selected",
    "shouldDisambiguate",
    "major_version",
    "filter",
};

const QHash<QString, int> &keyRanks()
{
    static const QHash<QString, int> ranks = [] {
        QHash<QString, int> r;
        int i = 0;
        for (const char *key : kKeyOrder)
            r.insert(QString::fromLatin1(key), i++);
        return r;
    }();
    return ranks;
}

void appendString(const QString &text, QByteArray &out)
{
    out.append('"');
    const QByteArray utf8 = text.toUtf8();
    const char *p = utf8.constData();
    const char *end = p + utf8.size();
    const char *run = p;
    for (; p != end; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c >= 0x20 && c != '"' && c != '\\')
            continue;
        out.append(run, int(p - run));
        run = p + 1;
        switch (c) {
        case '"':
            out.append("\\\"");
            break;
        case '\\':
            out.append("\\\\");
            break;
        case '\n':
            out.append("\\n");
            break;
        case '\r':
            out.append("\\r");
            break;
        case '\t':
            out.append("\\t");
            break;
        case '\b':
            out.append("\\b");
            break;
        case '\f':
            out.append("\\f");
            break;
        default: {
            static const char hex[] = "0123456789abcdef";
            const char escape[] = { '\\', 'u', '0', '0', hex[c >> 4], hex[c & 15] };
            out.append(escape, 6);
        }
        }
    }
    out.append(run, int(p - run));
    out.append('"');
}

void appendNumber(double value, QByteArray &out)
{
    // Integral values print as integers, as QJsonDocument writes them.
    if (value == double(qint64(value)) && qAbs(value) < 9007199254740992.0)
        out.append(QByteArray::number(qint64(value)));
    else
        out.append(QByteArray::number(value, 'g', 17));
}

} // namespace

namespace ApplicationManagerModelJSON {

QJsonObject generateFeedItem(const RemoteFeedItem &item)
{
    // The icon reference only when there is an icon: storing one takes a lock.
    return QJsonObject { { kFeedItem, item.toJson(!item.getIconUrl().isEmpty()) } };
}

QJsonObject generateLocalItem(const LocalFeedItem &item)
{
    return generateFeedItem(item.getFeedItem());
}

QJsonObject generateInstallItem(const InstallItem &item)
{
    QJsonObject json = generateFeedItem(item.getItem());
    if (const Option<InstallPatchSequence> &patches = item.getPatchSequence()) {
        json.insert(QStringLiteral("size"), double(patches->getDownloadSize()));
        json.insert(QStringLiteral("use_patch"), true);
        json.insert(QStringLiteral("patches_count"), patches->getPatches().size());
    } else {
        json.insert(QStringLiteral("size"), item.getItem().getDownloadSize());
        json.insert(QStringLiteral("use_patch"), false);
    }
    return json;
}

void generateProgressInfo(const Option<PendingActionState> &state, QJsonObject *target)
{
    if (!state || !target)
        return;
    target->insert(QStringLiteral("progress"),
        QJsonObject { { QStringLiteral("working"), true }, { QStringLiteral("progress_id"), state->getProgressId() },
            { QStringLiteral("workitem"), state->getTaskName() },
            { QStringLiteral("cancelable"), state->isCancelable() } });
}

RemoteFeedItem readRemoteFeedItemJSON(const QJsonObject &json)
{
    const QJsonValue value = json.value(kFeedItem);
    if (!value.isObject())
        return RemoteFeedItem();
    const RemoteFeedItem item(value.toObject());
    return item.isValid() ? item : RemoteFeedItem();
}

void appendOrderedJson(const QJsonValue &value, QByteArray &out)
{
    switch (value.type()) {
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        out.append("null");
        return;
    case QJsonValue::Bool:
        out.append(value.toBool() ? "true" : "false");
        return;
    case QJsonValue::Double:
        appendNumber(value.toDouble(), out);
        return;
    case QJsonValue::String:
        appendString(value.toString(), out);
        return;
    case QJsonValue::Array: {
        out.append('[');
        bool first = true;
        for (const QJsonValue &element : value.toArray()) {
            if (!first)
                out.append(',');
            first = false;
            appendOrderedJson(element, out);
        }
        out.append(']');
        return;
    }
    case QJsonValue::Object: {
        const QJsonObject object = value.toObject();
        const QHash<QString, int> &ranks = keyRanks();
        // QJsonObject iterates alphabetically; a stable sort by rank keeps that for unnamed keys.
        QVarLengthArray<QPair<int, QJsonObject::const_iterator>, 32> keys;
        for (auto it = object.constBegin(); it != object.constEnd(); ++it)
            keys.append({ ranks.value(it.key(), INT_MAX), it });
        std::stable_sort(keys.begin(), keys.end(),
            [](const auto &a, const auto &b) { return a.first < b.first; });
        out.append('{');
        bool first = true;
        for (const auto &key : keys) {
            if (!first)
                out.append(',');
            first = false;
            appendString(key.second.key(), out);
            out.append(':');
            appendOrderedJson(key.second.value(), out);
        }
        out.append('}');
        return;
    }
    }
}

QByteArray toOrderedJson(const QJsonObject &object)
{
    QByteArray out;
    out.reserve(4096);
    appendOrderedJson(object, out);
    return out;
}

} // namespace ApplicationManagerModelJSON
