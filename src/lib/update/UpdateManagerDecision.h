#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"

#include <QJsonObject>
#include <QSharedPointer>

// The outcome of one update computation: the manager build chosen (if any) and the status
// object the page shows. Immutable once made; shared between the worker that computed it and
// the readers on the UI thread.
struct UpdateManagerDecision
{
    Option<RemoteFeedItem> selected;
    QJsonObject status;
};

using UpdateManagerDecisionPtr = QSharedPointer<const UpdateManagerDecision>;
