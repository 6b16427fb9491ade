#pragma once

#include <QJsonArray>
#include <QList>
#include <QPair>
#include <QString>

// One (algorithm, value) pair of a "checksums" array, e.g. ("sha-256", "ab12...").
using FeedChecksum = QPair<QString, QString>;
using FeedChecksums = QList<FeedChecksum>;

// Each element's "alg" and "value" (strings, default empty), in array order.
FeedChecksums readFeedChecksums(const QJsonArray &checksums);
