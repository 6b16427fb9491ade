#include "CliRunner.h"

#include "ManagerLink.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <unistd.h>

namespace {

constexpr int kModelPushWaitMs = 1500;
constexpr int kFeedWaitMs = 180000;

QJsonObject feedItem(const QJsonObject &entry)
{
    return entry.value(QLatin1String("feed_item")).toObject();
}

QString text(const QJsonObject &object, const char *key)
{
    return object.value(QLatin1String(key)).toString();
}

QString displayName(const QJsonObject &entry)
{
    const QString custom = entry.value(QLatin1String("settings")).toObject().value(QLatin1String("custom_name")).toString();
    if (!custom.isEmpty())
        return custom;
    const QJsonObject item = feedItem(entry);
    const QString name = text(item, "name");
    return name.isEmpty() ? text(item, "id") : name;
}

// The channel id is what follows "local-<type>-" in a local entry's key.
QString channelOf(const QJsonObject &entry)
{
    const QString prefix = QStringLiteral("local-") + text(feedItem(entry), "id") + QLatin1Char('-');
    const QString key = text(entry, "key");
    return key.startsWith(prefix) ? key.mid(prefix.size()) : QString();
}

QString qualityOf(const QJsonObject &item)
{
    return item.value(QLatin1String("quality")).toObject().value(QLatin1String("name")).toString();
}

QString versionText(const QJsonObject &item)
{
    const QString quality = qualityOf(item);
    QString version = text(item, "version");
    const QString build = text(item, "build");
    if (!build.isEmpty() && build != version)
        version += QStringLiteral(" (") + build + QLatin1Char(')');
    // "1.2 EAP" already says its quality.
    return quality.isEmpty() || version.contains(quality) ? version : version + QLatin1Char(' ') + quality;
}

QJsonArray entries(const QJsonObject &model, std::initializer_list<const char *> keys)
{
    QJsonArray all;
    for (const char *key : keys) {
        for (const QJsonValue &value : model.value(QLatin1String(key)).toArray())
            all.append(value);
    }
    return all;
}

void printTable(QTextStream &out, const QList<QStringList> &rows)
{
    QVector<int> widths;
    for (const QStringList &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (int i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], int(row.at(i).size()));
    }
    for (const QStringList &row : rows) {
        QString line;
        for (int i = 0; i < row.size(); ++i)
            line += i + 1 < row.size() ? row.at(i).leftJustified(widths[i] + 2) : row.at(i);
        out << line.trimmed() << '\n';
    }
}

QString compact(const QJsonValue &value)
{
    if (value.isObject())
        return QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
    if (value.isArray())
        return QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
    if (value.isString())
        return value.toString();
    return QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact)).mid(1).chopped(1);
}

// Friendly names for the settings a user edits from a terminal, with the value the manager
// uses while the file has none; other keys are dotted paths into the settings document.
struct SettingAlias
{
    const char *path;
    QJsonValue fallback; // a string starting with "defaults." names a value the manager reports
};

const QHash<QString, SettingAlias> &settingAliases()
{
    static const QHash<QString, SettingAlias> aliases{
        {QStringLiteral("install-location"), {"install_location", QStringLiteral("defaults.install_location")}},
        {QStringLiteral("auto-update"), {"update.install_automatically", true}},
        {QStringLiteral("auto-update-tools"), {"tools.update_all_automatically", false}},
        {QStringLiteral("rollback-depth"), {"channel_rollback_max_history", 2}},
        {QStringLiteral("shell-scripts-folder"),
         {"shell_scripts.location", QStringLiteral("defaults.shell_scripts_default_location")}},
        {QStringLiteral("update-channel"), {"update.filter", QJsonValue()}},
    };
    return aliases;
}

QStringList settingsPath(const QString &key)
{
    const auto alias = settingAliases().constFind(key);
    return (alias == settingAliases().constEnd() ? key : QLatin1String(alias->path)).split(QLatin1Char('.'));
}

QJsonValue valueAt(const QJsonObject &root, const QStringList &path)
{
    QJsonValue value = root;
    for (const QString &part : path)
        value = value.toObject().value(part);
    return value;
}

QJsonObject withValue(QJsonObject root, const QStringList &path, const QJsonValue &value)
{
    if (path.size() == 1) {
        root.insert(path.first(), value);
        return root;
    }
    root.insert(path.first(), withValue(root.value(path.first()).toObject(), path.mid(1), value));
    return root;
}

} // namespace

CliRunner::CliRunner(const CliOptions &options, ManagerLink *link, QTextStream &out, QTextStream &err)
    : m_options(options), m_link(link), m_out(out), m_err(err), m_progress(err, ::isatty(STDERR_FILENO) == 1)
{
    connect(m_link, &ManagerLink::event, this, &CliRunner::onEvent);
}

int CliRunner::fail(const QString &message, int code)
{
    m_progress.finish();
    m_err << "hangarctl: " << message << '\n';
    m_err.flush();
    return code;
}

void CliRunner::onEvent(const QString &name, const QJsonObject &payload)
{
    if (name == QLatin1String("refreshApplicationsList")) {
        m_model = payload;
        ++m_modelGeneration;
        if (m_cancelWhenKnown && m_actionRunning)
            cancelOwnAction();
    } else if (name == QLatin1String("totalProgress") && m_actionRunning) {
        m_progress.show(payload);
    }
}

Result<QJsonObject> CliRunner::model()
{
    if (m_link->startedManager() && !m_feedRefreshed) {
        // A manager started for this command knows only its cached feed: have it download the
        // feed first ("updateFeed" answers once the refresh has ended and the model is rebuilt).
        m_feedRefreshed = true;
        const auto refreshed = m_link->query(QJsonObject{{QStringLiteral("method"), QStringLiteral("updateFeed")}});
        if (!refreshed && !m_link->isConnected())
            return refreshed.toError();
        m_model.reset();
    }
    if (m_model)
        return *m_model;
    // The manager replays its latest document to every client that says it is listening; a
    // manager that has none yet builds one when asked for a refresh of the list.
    (void)m_link->query(QJsonObject{{QStringLiteral("method"), QStringLiteral("apiReady")}});
    if (!m_link->waitUntil([this] { return m_model.has_value(); }, kModelPushWaitMs)) {
        const auto asked = m_link->query(QJsonObject{{QStringLiteral("method"), QStringLiteral("updateFeed")}});
        if (!asked)
            return asked.toError();
        m_link->waitUntil([this] { return m_model.has_value(); }, kFeedWaitMs);
    }
    if (!m_model)
        return Error(m_link->isConnected() ? QStringLiteral("The manager sent no list of tools")
                                           : m_link->lostReason());
    return *m_model;
}

Result<CliRunner::Target> CliRunner::findTool(const QString &tool, bool installed)
{
    m_lookupCode = Failed;
    const auto doc = model();
    if (!doc) {
        m_lookupCode = Unreachable;
        return doc.toError();
    }
    const QJsonArray list = installed ? entries(*doc, {"local", "manual"}) : entries(*doc, {"remote", "remote_other"});
    QList<Target> matches;
    for (const QJsonValue &value : list) {
        const QJsonObject entry = value.toObject();
        const QString name = installed ? displayName(entry) : text(entry, "name");
        const QString type = text(feedItem(entry), "id");
        if (type.compare(tool, Qt::CaseInsensitive) != 0 && name.compare(tool, Qt::CaseInsensitive) != 0)
            continue;
        Target target{entry, name.isEmpty() ? type : name, installed ? channelOf(entry) : QString()};
        if (installed && !m_options.channel.isEmpty() && target.channel != m_options.channel)
            continue;
        matches << target;
    }
    if (matches.isEmpty()) {
        if (installed && !m_options.channel.isEmpty())
            return Error(QStringLiteral("No installed tool %1 in channel %2").arg(tool, m_options.channel));
        return Error(installed ? QStringLiteral("No installed tool matches %1").arg(tool)
                               : QStringLiteral("The feed offers no tool %1").arg(tool));
    }
    if (matches.size() > 1) {
        QStringList candidates;
        for (const Target &t : matches)
            candidates << QStringLiteral("  %1 (%2, channel %3)").arg(t.name, text(feedItem(t.entry), "id"), t.channel);
        m_lookupCode = Usage;
        return Error(QStringLiteral("%1 matches several tools; pick one with --channel:\n%2")
                         .arg(tool, candidates.join(QLatin1Char('\n'))));
    }
    return matches.first();
}

int CliRunner::run()
{
    const QString &c = m_options.command;
    if (c == QLatin1String("list"))
        return m_options.available ? listAvailable() : list();
    if (c == QLatin1String("projects"))
        return projects();
    if (c == QLatin1String("install"))
        return install();
    if (c == QLatin1String("update"))
        return update();
    if (c == QLatin1String("open"))
        return open();
    if (c == QLatin1String("refresh"))
        return refresh();
    if (c == QLatin1String("self-update"))
        return selfUpdate();
    if (c == QLatin1String("settings"))
        return settings();
    if (c == QLatin1String("purge"))
        return runAction(QJsonObject{{QStringLiteral("method"), QStringLiteral("purgeOldVersions")}},
                         QStringLiteral("Old versions removed"));
    static const QHash<QString, QString> methods{
        {QStringLiteral("rollback"), QStringLiteral("rollbackApplication")},
        {QStringLiteral("downgrade"), QStringLiteral("downgradeApplication")},
        {QStringLiteral("reinstall"), QStringLiteral("updateLocalApplication")},
        {QStringLiteral("skip"), QStringLiteral("skipUpdate")},
        {QStringLiteral("uninstall"), QStringLiteral("uninstallApplication")},
    };
    return toolAction(methods.value(c));
}

int CliRunner::list()
{
    const auto doc = model();
    if (!doc)
        return fail(doc.error(), Unreachable);
    const QJsonArray installed = entries(*doc, {"local", "manual"});
    if (m_options.json) {
        m_out << QJsonDocument(installed).toJson(QJsonDocument::Indented);
        return Done;
    }
    if (installed.isEmpty()) {
        m_out << "No tools installed. `hangarctl list --available` shows what the feed offers.\n";
        return Done;
    }
    QList<QStringList> rows{{"NAME", "ID", "CHANNEL", "VERSION", "UPDATE"}};
    for (const QJsonValue &value : installed) {
        const QJsonObject entry = value.toObject();
        QString update = QStringLiteral("-");
        const QJsonObject next = entry.value(QLatin1String("default_update")).toObject();
        if (!next.isEmpty()) {
            update = versionText(feedItem(next)) + QStringLiteral(", ")
                     + ProgressLine::formatSize(next.value(QLatin1String("size")).toDouble())
                     + (next.value(QLatin1String("use_patch")).toBool() ? QStringLiteral(" patch") : QString());
        } else if (entry.contains(QLatin1String("skipped_update"))) {
            update = QStringLiteral("skipped");
        }
        if (entry.value(QLatin1String("isDetected")).toBool())
            update += QStringLiteral(" (found on this machine)");
        rows << QStringList{displayName(entry), text(feedItem(entry), "id"), channelOf(entry),
                            versionText(feedItem(entry)), update};
    }
    printTable(m_out, rows);
    return Done;
}

int CliRunner::listAvailable()
{
    const auto doc = model();
    if (!doc)
        return fail(doc.error(), Unreachable);
    const QJsonArray offered = entries(*doc, {"remote", "remote_other"});
    if (m_options.json) {
        m_out << QJsonDocument(offered).toJson(QJsonDocument::Indented);
        return Done;
    }
    QList<QStringList> rows{{"NAME", "ID", "BUILD", "VERSION", "QUALITY"}};
    for (const QJsonValue &value : offered) {
        const QJsonObject entry = value.toObject();
        for (const QJsonValue &version : entry.value(QLatin1String("versions")).toArray()) {
            const QJsonObject item = feedItem(version.toObject());
            rows << QStringList{text(entry, "name"), text(item, "id"), text(item, "build"), text(item, "version"),
                                qualityOf(item)};
        }
    }
    printTable(m_out, rows);
    return Done;
}

int CliRunner::projects()
{
    const auto doc = model();
    if (!doc)
        return fail(doc.error(), Unreachable);
    const QJsonArray list = doc->value(QLatin1String("projects")).toArray();
    if (m_options.json) {
        m_out << QJsonDocument(list).toJson(QJsonDocument::Indented);
        return Done;
    }
    QList<QStringList> rows{{"NAME", "PATH", "OPENS WITH"}};
    for (const QJsonValue &value : list) {
        const QJsonObject entry = value.toObject();
        const QJsonObject project = entry.value(QLatin1String("project")).toObject();
        QString tool;
        const QString defaultKey = text(entry, "default_open_item_key");
        for (const QJsonValue &item : entry.value(QLatin1String("open_items")).toArray()) {
            const QJsonObject open = item.toObject();
            if (tool.isEmpty() || text(open, "key") == defaultKey)
                tool = text(feedItem(open), "name");
        }
        rows << QStringList{(project.value(QLatin1String("favorite")).toBool() ? QStringLiteral("* ") : QString())
                                + text(project, "name"),
                            text(project, "path"), tool};
    }
    printTable(m_out, rows);
    return Done;
}

int CliRunner::install()
{
    const QString wanted = m_options.args.first();
    const QString tool = wanted.section(QLatin1Char('@'), 0, 0);
    const QString build = wanted.contains(QLatin1Char('@')) ? wanted.section(QLatin1Char('@'), 1) : QString();
    const QString channel = std::exchange(m_options.channel, QString()); // a channel to install into
    const auto target = findTool(tool, false);
    if (!target)
        return fail(target.error(), m_lookupCode);
    // "stable" holds the most stable build as the versions do ({"feed_item": ...}) or bare.
    const QJsonObject stable = target->entry.value(QLatin1String("stable")).toObject();
    QJsonObject item = stable.contains(QLatin1String("feed_item")) ? stable
                                                                   : QJsonObject{{QStringLiteral("feed_item"), stable}};
    if (!build.isEmpty()) {
        item = {};
        for (const QJsonValue &version : target->entry.value(QLatin1String("versions")).toArray()) {
            const QJsonObject candidate = feedItem(version.toObject());
            if (text(candidate, "build") == build || text(candidate, "version") == build)
                item = QJsonObject{{QStringLiteral("feed_item"), candidate}};
        }
        if (item.isEmpty())
            return fail(QStringLiteral("The feed offers no build %1 of %2").arg(build, target->name));
    }
    QJsonObject request{{QStringLiteral("method"), QStringLiteral("installApplication")},
                        {QStringLiteral("tool"), target->entry},
                        {QStringLiteral("item"), item}};
    if (!channel.isEmpty()) {
        bool known = false;
        for (const QJsonValue &value : entries(*m_model, {"local"}))
            known |= channelOf(value.toObject()) == channel && text(feedItem(value.toObject()), "id") == text(feedItem(item), "id");
        if (!known)
            return fail(QStringLiteral("%1 has no channel %2").arg(target->name, channel));
        request.insert(QStringLiteral("options"), QJsonObject{{QStringLiteral("channel_id"), channel}});
    }
    return runAction(request, QStringLiteral("Installed %1 %2").arg(target->name, versionText(feedItem(item))),
                     text(target->entry, "key"));
}

int CliRunner::toolAction(const QString &method)
{
    const auto target = findTool(m_options.args.first(), true);
    if (!target)
        return fail(target.error(), m_lookupCode);
    const QJsonObject request{{QStringLiteral("method"), method}, {QStringLiteral("tool"), target->entry}};
    return runAction(request, QStringLiteral("%1: done").arg(target->name), text(target->entry, "key"));
}

int CliRunner::update()
{
    if (m_options.all)
        return runAction(QJsonObject{{QStringLiteral("method"), QStringLiteral("updateAllInstalledApplications")}},
                         QStringLiteral("All tools are up to date"));
    int worst = Done;
    for (const QString &tool : m_options.args) {
        const auto target = findTool(tool, true);
        if (!target)
            return fail(target.error(), m_lookupCode);
        if (!target->entry.contains(QLatin1String("default_update"))) {
            m_out << target->name << " is up to date\n";
            continue;
        }
        const QJsonObject request{{QStringLiteral("method"), QStringLiteral("updateApplication")},
                                  {QStringLiteral("tool"), target->entry}};
        const int code = runAction(request, QStringLiteral("Updated %1").arg(target->name), text(target->entry, "key"));
        if (code == Interrupted)
            return code;
        worst = std::max(worst, code);
    }
    return worst;
}

int CliRunner::open()
{
    const auto target = findTool(m_options.args.first(), true);
    if (!target)
        return fail(target.error(), m_lookupCode);
    QJsonObject request{{QStringLiteral("method"), QStringLiteral("activateApplication")},
                        {QStringLiteral("tool"), target->entry}};
    if (m_options.args.size() > 1) {
        const QFileInfo path(m_options.args.at(1));
        if (!path.exists())
            return fail(QStringLiteral("No such project: %1").arg(m_options.args.at(1)));
        request.insert(QStringLiteral("project_path"), path.absoluteFilePath());
    }
    const auto answer = m_link->query(request);
    if (!answer)
        return fail(answer.error(), m_link->isConnected() ? Failed : Unreachable);
    if (m_options.json)
        m_out << answer.value() << '\n';
    return Done;
}

int CliRunner::refresh()
{
    const auto before = model();
    if (!before)
        return fail(before.error(), Unreachable);
    const int generation = m_modelGeneration;
    const auto asked = m_link->query(QJsonObject{{QStringLiteral("method"), QStringLiteral("updateFeed")}});
    if (!asked)
        return fail(asked.error(), m_link->isConnected() ? Failed : Unreachable);
    if (!m_link->waitUntil([&] { return m_modelGeneration > generation; }, kFeedWaitMs))
        return fail(m_link->isConnected() ? QStringLiteral("The feed refresh did not finish") : m_link->lostReason(),
                    m_link->isConnected() ? Failed : Unreachable);
    m_options.available = false;
    return list();
}

int CliRunner::selfUpdate()
{
    const auto status = m_link->query(QJsonObject{{QStringLiteral("method"), QStringLiteral("getSelfUpdateStatus")}});
    if (!status)
        return fail(status.error(), m_link->isConnected() ? Failed : Unreachable);
    const QJsonObject json = QJsonDocument::fromJson(status->toUtf8()).object();
    if (m_options.check) {
        if (m_options.json) {
            m_out << status.value() << '\n';
        } else if (json.value(QLatin1String("updateAvailable")).toBool()) {
            m_out << "Update available: " << json.value(QLatin1String("latestVersion")).toString() << '\n';
        } else {
            m_out << "The manager is up to date\n";
        }
        return Done;
    }
    if (!json.value(QLatin1String("updateAvailable")).toBool()) {
        m_out << "The manager is up to date\n";
        return Done;
    }
    return runAction(QJsonObject{{QStringLiteral("method"), QStringLiteral("updateSelf")}},
                     QStringLiteral("The manager is updating itself"));
}

int CliRunner::settings()
{
    const auto current = m_link->query(QJsonObject{{QStringLiteral("method"), QStringLiteral("getSettings")}});
    if (!current)
        return fail(current.error(), m_link->isConnected() ? Failed : Unreachable);
    const QJsonObject doc = QJsonDocument::fromJson(current->toUtf8()).object();
    const QStringList path = settingsPath(m_options.args.at(1));
    if (m_options.args.first() == QLatin1String("get")) {
        QJsonValue value = valueAt(doc, path);
        const auto alias = settingAliases().constFind(m_options.args.at(1));
        if (value.isUndefined() && alias != settingAliases().constEnd()) {
            const QString fallback = alias->fallback.toString();
            value = fallback.startsWith(QLatin1String("defaults.")) ? valueAt(doc, fallback.split(QLatin1Char('.')))
                                                                    : alias->fallback;
        }
        if (value.isUndefined())
            return fail(QStringLiteral("No setting %1").arg(m_options.args.at(1)));
        m_out << (m_options.json ? QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact))
                                       .mid(1)
                                       .chopped(1)
                                 : compact(value))
              << '\n';
        return Done;
    }
    // A value that reads as JSON (true, 3, {"a":1}) is taken as such; anything else is text.
    const QString raw = m_options.args.at(2);
    QJsonValue value(raw);
    const QJsonDocument parsed = QJsonDocument::fromJson(QStringLiteral("[%1]").arg(raw).toUtf8());
    if (parsed.isArray() && parsed.array().size() == 1)
        value = parsed.array().first();
    QJsonValue old = valueAt(doc, path);
    if (old.isUndefined() && settingAliases().contains(m_options.args.at(1)))
        old = settingAliases().value(m_options.args.at(1)).fallback;
    if (old.isString() && old.toString().startsWith(QLatin1String("defaults.")))
        old = QJsonValue(QString());
    if (!old.isUndefined() && !old.isNull() && old.type() != value.type())
        return fail(QStringLiteral("%1 takes a %2 value").arg(m_options.args.at(1),
                                                             old.isBool() ? QStringLiteral("true/false")
                                                             : old.isDouble() ? QStringLiteral("number")
                                                             : old.isString() ? QStringLiteral("text")
                                                                              : QStringLiteral("JSON")),
                    Usage);
    const auto saved = m_link->query(QJsonObject{{QStringLiteral("method"), QStringLiteral("saveSettings")},
                                                 {QStringLiteral("settings"), withValue(doc, path, value)}});
    if (!saved)
        return fail(saved.error(), m_link->isConnected() ? Failed : Unreachable);
    return Done;
}

int CliRunner::runAction(const QJsonObject &request, const QString &label, const QString &entryKey)
{
    // The manager answers an action's request when the action has ended; meanwhile its
    // progress documents arrive as events and draw the progress line.
    m_actionKey = entryKey;
    m_actionRunning = true;
    const auto answer = m_link->query(request);
    m_actionRunning = false;
    m_progress.finish();
    if (m_interrupted)
        return Interrupted;
    if (!answer) {
        if (!m_link->isConnected())
            return fail(QStringLiteral("The manager stopped while the command was running (%1)").arg(m_link->lostReason()),
                        Unreachable);
        return fail(answer.error());
    }
    if (m_options.json)
        m_out << (answer->isEmpty() ? QStringLiteral("{}") : answer.value()) << '\n';
    else
        m_out << label << '\n';
    return Done;
}

QString CliRunner::entryProgressId() const
{
    if (m_actionKey.isEmpty() || !m_model)
        return QString();
    for (const QJsonValue &value : entries(*m_model, {"local", "manual", "remote", "remote_other"})) {
        const QJsonObject entry = value.toObject();
        if (text(entry, "key") == m_actionKey)
            return text(entry.value(QLatin1String("progress")).toObject(), "progress_id");
    }
    return QString();
}

void CliRunner::interrupt()
{
    m_progress.finish();
    if (m_interrupted || !m_actionRunning || !m_link->isConnected()) {
        // Nothing of ours runs in the manager (or the user insists): stop waiting now.
        m_interrupted = true;
        m_link->abortWaits();
        return;
    }
    m_interrupted = true;
    m_err << "hangarctl: cancelling\n";
    m_err.flush();
    cancelOwnAction();
}

void CliRunner::cancelOwnAction()
{
    // Only our own action: other clients' work in the same manager goes on. Its id shows in
    // the model once the manager has started it; until then the cancel waits for it.
    const QString id = entryProgressId();
    m_cancelWhenKnown = id.isEmpty();
    if (id.isEmpty())
        return;
    m_link->queryAsync(QJsonObject{{QStringLiteral("method"), QStringLiteral("stopAction")}, {QStringLiteral("id"), id}},
                       [](Result<QString>) {});
}
