#include "api/SelfApi.h"

#include "api/UIApiConnector.h"

#include <QDebug>
#include <QJsonDocument>
#include <QSysInfo>
#include <memory>

namespace {

constexpr int CustomNameMaxLength = 90;
constexpr int ShellLinkNameMaxLength = 140;

} // namespace

const QStringList &SelfApi::eventNames()
{
    static const QStringList names { "refreshApplicationsList", "settingsChanged", "onSelfUpdateStatusChange",
        "onWindowShown", "onWindowHidden", "showSettings", "totalProgress", "modalActionProgress",
        "modalActionFinished", "showProxyCredentialsDialog", "showUninstallFeedbackPrompt",
        "proposeInstallItem", "orvAccountLoggedIn", "askCloseRunning", "firstLaunchFailed" };
    return names;
}

const QStringList &SelfApi::stateEventNames()
{
    static const QStringList names { "refreshApplicationsList", "settingsChanged", "onSelfUpdateStatusChange",
        "totalProgress" };
    return names;
}

SelfApi::SelfApi(UIApiConnector *connector, QObject *parent)
    : QObject(parent)
    , m_connector(connector)
{
    addImmediateMethod(QStringLiteral("apiReady"), [this](const QJsonObject &) -> Result<QString> {
        apiReady();
        return QString();
    });
    addImmediateMethod(QStringLiteral("config"), [this](const QJsonObject &) -> Result<QString> {
        return QString::fromUtf8(QJsonDocument(config()).toJson(QJsonDocument::Compact));
    });
}

SelfApi::~SelfApi() = default;

void SelfApi::addMethod(const QString &name, Handler handler)
{
    if (m_methods.contains(name))
        qCritical().noquote() << "API method registered twice:" << name;
    m_methods.insert(name, std::move(handler));
}

void SelfApi::addImmediateMethod(const QString &name, ImmediateHandler handler)
{
    addMethod(name, [handler = std::move(handler)](const QJsonObject &request, const Reply &reply) {
        reply(handler(request));
    });
}

QStringList SelfApi::methodNames() const
{
    QStringList names = m_methods.keys();
    names.sort();
    return names;
}

void SelfApi::handleQuery(const QString &text, const Reply &reply)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        qCritical().noquote() << "Parse error for cefQuery" << parseError.errorString();
        reply(Error("Parse error for cefQuery: " + parseError.errorString()));
        return;
    }
    if (!document.isObject()) {
        qCritical().noquote() << "Parse error for cefQuery: should be an object";
        reply(Error(QStringLiteral("Parse error for cefQuery: should be an object")));
        return;
    }
    apiCall(document.object(), reply);
}

void SelfApi::apiCall(const QJsonObject &request, const Reply &reply)
{
    const QJsonValue method = request.value(QStringLiteral("method"));
    QString refusal;
    if (!method.isString())
        refusal = QStringLiteral("Request needs a \"method\" text");
    else if (!m_methods.contains(method.toString()))
        refusal = QStringLiteral("API method '%1' not found").arg(method.toString());
    if (!refusal.isEmpty()) {
        qCritical().noquote() << QStringLiteral("API method call failed: %1").arg(refusal);
        notifyOnHandleApiError(refusal);
        reply(Error(refusal));
        return;
    }

    // The handler may answer later; the reply keeps what it needs and answers once.
    auto answered = std::make_shared<bool>(false);
    const QPointer<SelfApi> self(this);
    m_methods.value(method.toString())(request, [self, answered, reply](const Result<QString> &answer) {
        if (*answered) {
            qCritical().noquote() << "API answer given twice; the second is dropped";
            return;
        }
        *answered = true;
        if (answer.isError()) {
            qCritical().noquote() << QStringLiteral("API method call failed: %1").arg(answer.error());
            if (self)
                self->notifyOnHandleApiError(answer.error());
        }
        reply(answer);
    });
}

void SelfApi::apiReady()
{
    QMutexLocker lock(&m_mutex);
    if (isReady())
        return;
    m_ready.storeRelease(1);
    // Emitted under the lock: an event raised meanwhile on another thread waits,
    // so an older pending payload can never overtake a newer one.
    const QJsonObject pending = m_pending;
    m_pending = QJsonObject();
    for (auto it = pending.begin(); it != pending.end(); ++it)
        emit apiSignal(it.key(), it.value().toObject());
}

void SelfApi::apiSignalInternal(const QString &name, const QJsonObject &payload)
{
    if (!eventNames().contains(name)) {
        qCritical().noquote() << "Unknown API event dropped:" << name;
        return;
    }
    const bool isState = stateEventNames().contains(name);
    if (isReady() && !isState) {
        emit apiSignal(name, payload);
        return;
    }
    QMutexLocker lock(&m_mutex);
    if (isState)
        m_latestState.insert(name, payload);
    if (isReady())
        emit apiSignal(name, payload);
    else
        m_pending.insert(name, payload);
}

QJsonObject SelfApi::latestStatePayloads() const
{
    QMutexLocker lock(&m_mutex);
    return m_latestState;
}

void SelfApi::notifyOnHandleApiError(const QString &error)
{
    emit errorNotify(error);
}

QJsonObject SelfApi::config() const
{
#ifdef Q_OS_LINUX
    const QString os = QStringLiteral("linux");
#else
    const QString os = QStringLiteral("wtf");
#endif
    return QJsonObject {
        { "os", os },
        { "human_readable_os",
            "OS kernel " + QSysInfo::kernelType() + " " + QSysInfo::kernelVersion() + " on "
                + QSysInfo::currentCpuArchitecture() },
        { "file_manager", m_connector ? m_connector->fileManagerName() : QString() },
        { "custom_name_max_length", CustomNameMaxLength },
        { "shell_link_name_max_length", ShellLinkNameMaxLength },
        { "global_hotkey_available", m_connector && m_connector->isGlobalHotkeyAvailable() },
    };
}
