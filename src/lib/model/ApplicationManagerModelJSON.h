#pragma once

#include "base/Option.h"
#include "feed/records/RemoteFeedItem.h"
#include "install/InstallItem.h"
#include "local/LocalFeedItem.h"
#include "model/PendingActionState.h"

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>

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

// Compact JSON text of a model document (or any part of it) with the keys in
// the order the page document defines them; keys the document does not name
// follow alphabetically. QJsonObject itself keeps keys sorted, so transports
// that want the document's order on the wire serialise with this.
QByteArray toOrderedJson(const QJsonObject &object);
// The same for a value (an object, an array or a scalar).
void appendOrderedJson(const QJsonValue &value, QByteArray &out);

} // namespace ApplicationManagerModelJSON
