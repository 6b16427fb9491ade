#include "WebChannelBridge.h"

#include "api/ApiEnvelope.h"
#include "api/SelfApi.h"

#include <QDebug>
#include <QPointer>

WebChannelBridge::WebChannelBridge(SelfApi *api, QObject *parent)
    : QObject(parent)
    , m_api(api)
{
    connect(api, &SelfApi::apiSignal, this, [this](const QString &name, const QJsonObject &payload) {
        emit message(ApiEnvelope::eventFrame(name, payload));
    });
}

void WebChannelBridge::send(const QString &frame)
{
    // An answer may come after the window is gone (a long install); it is dropped then.
    const QPointer<WebChannelBridge> self(this);
    const bool wasReady = m_api->isReady();
    ApiEnvelope::handleFrame(m_api, frame, [self](const QString &reply) {
        if (self)
            emit self->message(reply);
    });
    if (!wasReady && m_api->isReady())
        qInfo().noquote() << "apiReady: the page in the window is listening";
}
