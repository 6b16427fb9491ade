#include "feed/records/PostInstallStep.h"

#include "feed/records/FeedJson.h"

#include <QDir>

PostInstallStep::Command::Command(const QJsonObject &json)
    : m_json(json)
{
}

QString PostInstallStep::Command::getExecutable() const
{
    return FeedJson::string(m_json, QLatin1String("executable"));
}

QStringList PostInstallStep::Command::getArguments(const QString &temporaryDirectory) const
{
    const QString home = QDir::homePath();
    QStringList arguments;
    const QJsonArray array = FeedJson::array(m_json, QLatin1String("arguments"));
    for (const QJsonValue &element : array) {
        QString argument = element.toString();
        argument.replace(QLatin1String("$HOME"), home);
        argument.replace(QLatin1String("$TEMP"), temporaryDirectory);
        arguments << argument;
    }
    return arguments;
}

QString PostInstallStep::Command::getAdditionalVmoptionsContent() const
{
    return FeedJson::string(
        FeedJson::object(m_json, QLatin1String("lathe")), QLatin1String("additional_vmoptions_content"));
}

PostInstallStep::PostInstallStep(const QJsonObject &json)
    : m_json(json)
{
}

QString PostInstallStep::getId() const
{
    return FeedJson::string(m_json, QLatin1String("id"));
}

bool PostInstallStep::getEnabled() const
{
    return FeedJson::boolean(m_json, QLatin1String("enabled"), true);
}

bool PostInstallStep::isRequired() const
{
    return FeedJson::boolean(m_json, QLatin1String("required"), true);
}

bool PostInstallStep::isProgressVisible() const
{
    return FeedJson::boolean(
        FeedJson::object(m_json, QLatin1String("progress")), QLatin1String("visible"), false);
}

QString PostInstallStep::getProgressMessage() const
{
    return FeedJson::string(FeedJson::object(m_json, QLatin1String("progress")), QLatin1String("message"));
}

QList<PostInstallStep::Command> PostInstallStep::getCommands() const
{
    QList<Command> commands;
    const QJsonArray array = FeedJson::array(m_json, QLatin1String("commands"));
    for (const QJsonValue &element : array)
        commands << Command(element.toObject());
    return commands;
}

static QStringList directoryNames(const QJsonArray &directories)
{
    QStringList names;
    for (const QJsonValue &element : directories) {
        const QString name = element.toObject().value(QLatin1String("name")).toString();
        if (!name.isEmpty())
            names << name;
    }
    return names;
}

Option<PostInstallStep::LatheOptions> PostInstallStep::getLatheOptions() const
{
    const QJsonObject lathe = FeedJson::object(m_json, QLatin1String("lathe"));
    if (lathe.isEmpty())
        return None;
    LatheOptions options;
    options.temporaryCopyDirectories
        = directoryNames(FeedJson::array(lathe, QLatin1String("temporary_copy_directories")));
    options.temporaryNewDirectories
        = directoryNames(FeedJson::array(lathe, QLatin1String("temporary_new_directories")));
    options.additionalVmoptionsContent
        = FeedJson::string(lathe, QLatin1String("additional_vmoptions_content"));
    return options;
}
