#pragma once

#include "support/LogCapture.h"
#include "support/TestData.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// A feed record that passes RemoteFeedItem::isValid.
QJsonObject feedRecord(const QString &type, const QString &build, int qualityOrder = 1, int majorOrder = 1);

// Writes <root>/apps/<type>/<channel>/<build>/.feed holding `content`; returns the build folder.
QString writeBuild(const QString &root, const QString &type, const QString &channel, const QString &build,
    const QByteArray &content);
QString writeBuild(const QString &root, const QString &type, const QString &channel, const QString &build);
