#pragma once

#include "base/Option.h"
#include "base/Result.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QUrlQuery>

// The head of one HTTP/1.x request (request line and header fields), as the
// headless front reads it before it decides anything. Pure parsing, no sockets:
// the parser sees bytes from an unauthenticated peer and is kept small enough to
// be fuzzed on its own.
//
// Accepted: "METHOD SP target SP HTTP/1.x" CRLF, then "name: value" CRLF lines,
// then an empty line. Header names are compared case-insensitively (stored lower
// case); a repeated field keeps its first value, except that repeated "cookie"
// fields are joined with "; ". Bare LF line ends are accepted, obsolete line
// folding is not. The target must be in origin form ("/path?query").
class HttpRequestHead
{
public:
    // Heads longer than this are refused without waiting for their end.
    static constexpr int MaxHeadSize = 16 * 1024;

    // The length of the head in `data` (up to and including the empty line), or
    // 0 while the empty line has not arrived yet.
    static int headLength(const QByteArray &data);

    static Result<HttpRequestHead> parse(const QByteArray &head);

    QByteArray method() const { return m_method; }
    // Percent-decoded path ("/api", "/index.html").
    QString path() const { return m_path; }
    QUrlQuery query() const { return m_query; }
    // Lower-case name; empty when absent.
    QByteArray header(const QByteArray &lowerCaseName) const { return m_headers.value(lowerCaseName); }
    bool hasHeader(const QByteArray &lowerCaseName) const { return m_headers.contains(lowerCaseName); }
    // The value of one cookie, absent when not sent.
    Option<QByteArray> cookie(const QByteArray &name) const;
    // "Upgrade: websocket" with "Connection" naming "upgrade".
    bool isWebSocketUpgrade() const;

private:
    QByteArray m_method;
    QString m_path;
    QUrlQuery m_query;
    QHash<QByteArray, QByteArray> m_headers;
};
