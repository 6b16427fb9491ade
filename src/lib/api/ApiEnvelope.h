#pragma once

#include <QJsonObject>
#include <QString>
#include <functional>

class SelfApi;

// The text frames that carry the API over a message pipe, the same in the window's
// channel and on the headless WebSocket, so one page script speaks to both:
//   in   {"id": N, "query": "<request JSON text>"}
//   out  {"id": N, "ok": true, "answer": "<text>"} or {"id": N, "ok": false, "error": "<text>"}
//   out  an event: its payload with "signal": "<name>" added
// A frame that is not such an envelope is answered with "ok": false (and the "id"
// when one could be read). A page that says "apiReady" to an API that is already
// ready (a reload, a second client) is first sent the latest state events, so it
// starts with the current model.
class ApiEnvelope
{
public:
    using Send = std::function<void(const QString &frame)>;

    // Runs the query in `frame`; `send` gets the answer frame (maybe later) and any
    // state events that go before it. `send` must stay callable until then.
    static void handleFrame(SelfApi *api, const QString &frame, const Send &send);
    static QString eventFrame(const QString &name, const QJsonObject &payload);
};
