#pragma once

#include "api/HttpRequestHead.h"
#include "base/Result.h"

#include <QByteArray>
#include <QString>

// Who may talk to the headless manager. Anything on the machine can connect to a
// loopback port, and any web page the user opens can make the browser send
// requests there, so every request must prove three things before it has any
// effect:
//  - it carries the run's secret token, as "?token=" or as the "hangar_token"
//    cookie (compared in constant time, so answer times reveal nothing of it);
//  - its Host is "127.0.0.1:<port>" or "localhost:<port>" (a foreign host name
//    that resolves to loopback, DNS rebinding, is refused);
//  - its Origin, when the client sends one, is this server's own origin.
class HeadlessAccessPolicy
{
public:
    static constexpr const char *CookieName = "hangar_token";

    HeadlessAccessPolicy(QByteArray token, quint16 port);

    // A fresh 128-bit token, hex.
    static QByteArray generateToken();
    // Constant-time equality of two byte strings (the length is not secret).
    static bool equalsInConstantTime(const QByteArray &a, const QByteArray &b);

    QByteArray token() const { return m_token; }
    quint16 port() const { return m_port; }

    // Success, or why the request is refused (for the log, never for the peer).
    Result<void> check(const HttpRequestHead &request) const;
    // Whether the token came in the query (the page's first load sets the cookie then).
    bool tokenInQuery(const HttpRequestHead &request) const;

private:
    bool hostAllowed(const QByteArray &host) const;
    bool originAllowed(const QByteArray &origin) const;

    QByteArray m_token;
    quint16 m_port;
};
