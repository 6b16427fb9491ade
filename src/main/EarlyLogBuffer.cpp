#include "EarlyLogBuffer.h"

#include <QByteArray>
#include <QDebug>
#include <QMessageLogContext>
#include <QString>
#include <QVector>

namespace {

struct HeldMessage
{
    QtMsgType type;
    QByteArray file;
    int line;
    QByteArray function;
    QByteArray category;
    QString text;
};

QVector<HeldMessage> held;
QtMessageHandler bufferingHandler = nullptr;

void hold(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    held.append({ type, QByteArray(context.file), context.line, QByteArray(context.function),
        QByteArray(context.category), text });
}

} // namespace

void EarlyLogBuffer::start()
{
    held.clear();
    bufferingHandler = &hold;
    qInstallMessageHandler(&hold);
}

void EarlyLogBuffer::replay()
{
    // Whoever installed a handler since start() replaced ours; when nobody did,
    // ours is still in place and Qt's default one takes over.
    QtMessageHandler current = qInstallMessageHandler(nullptr);
    if (current != bufferingHandler)
        qInstallMessageHandler(current);
    else
        current = nullptr;
    bufferingHandler = nullptr;

    const QVector<HeldMessage> messages = std::move(held);
    held.clear();
    for (const HeldMessage &message : messages) {
        const QMessageLogContext context(message.file.isNull() ? nullptr : message.file.constData(),
            message.line, message.function.isNull() ? nullptr : message.function.constData(),
            message.category.isNull() ? nullptr : message.category.constData());
        if (current) {
            current(message.type, context, message.text);
        } else {
            // Qt's default handler, reached through the ordinary macros.
            QMessageLogger logger(context.file, context.line, context.function, context.category);
            switch (message.type) {
            case QtDebugMsg:
                logger.debug().noquote() << message.text;
                break;
            case QtInfoMsg:
                logger.info().noquote() << message.text;
                break;
            case QtWarningMsg:
                logger.warning().noquote() << message.text;
                break;
            default:
                logger.critical().noquote() << message.text;
                break;
            }
        }
    }
}
