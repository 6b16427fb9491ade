#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/InstallItem.h"
#include "local/LocalFeedItem.h"
#include "model/PendingActionState.h"

#include <QJsonObject>

// The pieces of the page's document shared by the entry types. Each writes
// into an object in key order and returns it.
namespace ApplicationManagerModelJSON {

// {"feed_item": record as RemoteFeedItem::toJson writes it (icon reference stored)}
QJsonObject generateFeedItem(const RemoteFeedItem &item);
// The same for an installed build: the record it was installed from, no bookkeeping keys.
QJsonObject generateLocalItem(const LocalFeedItem &item);
// "feed_item", then "size", "use_patch" and (with a chain) "patches_count".
QJsonObject generateInstallItem(const InstallItem &item);
// Adds "progress" {"working", "progress_id", "workitem", "cancelable"} when a state is given.
void generateProgressInfo(const Option<PendingActionState> &state, QJsonObject *target);
// "feed_item" of a page request; an empty record when missing or invalid.
RemoteFeedItem readRemoteFeedItemJSON(const QJsonObject &json);

} // namespace ApplicationManagerModelJSON
