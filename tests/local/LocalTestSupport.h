#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// Collects every log message of the process while alive (all threads).
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    QStringList messages() const;
    // Messages containing `text`.
    QStringList matching(const QString &text) const;
    bool contains(const QString &text) const { return !matching(text).isEmpty(); }
    QStringList critical() const;
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);
    QtMessageHandler m_previous;
};

// A feed record that passes RemoteFeedItem::isValid.
QJsonObject feedRecord(const QString &type, const QString &build, int qualityOrder = 1, int majorOrder = 1);

// Writes <root>/apps/<type>/<channel>/<build>/.feed holding `content`; returns the build folder.
QString writeBuild(const QString &root, const QString &type, const QString &channel, const QString &build,
    const QByteArray &content);
QString writeBuild(const QString &root, const QString &type, const QString &channel, const QString &build);

QByteArray readFile(const QString &path);
QJsonObject readJson(const QString &path);
