#pragma once

// Feed documents that must be refused, one for each way a document can be bad, with
// the start of the reason given for each. The loader's tests go through all of them;
// the store's tests take one per layer, since it must keep its last good copy
// whatever the reason.

#include "support/FeedBuilder.h"

#include <QJsonDocument>
#include <QtTest>

namespace badfeed {

inline void addRows(const QStringList &only = {})
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("reason");
    const QString weak = "Failed to verify signature: Digital signature hash SHA1 is too weak (only 160 bits "
                         "length, required at least 256)";
    const QString verification = "Failed to verify signature: Signature verification failure";
    const QString notCms = "Failed to verify signature: Unable to read DER-encoded CMS from input data";
    const QList<QPair<QString, QString>> rows { { "other CA", verification }, { "SHA-1", weak },
        { "SHA-1 by openssl", weak }, { "tampered", verification }, { "truncated", notCms },
        { "empty", notCms }, { "unsigned", notCms }, { "not xz", "Failed to extract XZ: Not a .xz file" },
        { "truncated xz", "Failed to extract XZ: File is corrupt" },
        { "corrupt xz", "Failed to extract XZ: File is corrupt" },
        // A dictionary above the 64 MiB limit is refused before any allocation.
        { "greedy xz", "Failed to extract XZ: Memory usage limit reached" },
        { "bomb", "Failed to extract XZ: Decompressed data exceeds the limit of 67108864 bytes" },
        { "not JSON", "Failed to parse JSON document. " },
        { "array root", "Invalid JSON feed data. Object was expected." },
        { "invalid entry", "Failed to parse feed item" } };
    for (const auto &row : rows)
        if (only.isEmpty() || only.contains(row.first))
            QTest::newRow(qPrintable(row.first)) << row.first << row.second;
}

// `json` is a valid feed document with entries; `scratch` a folder for a foreign CA.
inline QByteArray make(
    FeedBuilder &builder, const QString &kind, const QByteArray &json, const QString &scratch)
{
    const auto flip = [](QByteArray data, int at) {
        data[at] = char(data[at] ^ 0x55);
        return data;
    };
    const QByteArray xz = builder.xz(json);
    if (kind == "other CA")
        return FeedBuilder(scratch + "/other-ca", FeedBuilder::CaMaker::OpenSsl).signWithOpenSsl(json);
    if (kind == "SHA-1")
        return builder.sign(json, { "--digest", "sha1" });
    if (kind == "SHA-1 by openssl")
        return builder.signWithOpenSsl(json, "sha1");
    if (kind == "tampered") {
        // One flipped byte of the signed content, which sits between header and certificate.
        const QByteArray good = builder.signWithOpenSsl(xz, "sha256", false);
        return flip(good, good.indexOf(xz) + xz.size() / 2);
    }
    if (kind == "truncated") {
        const QByteArray good = builder.sign(json);
        return good.left(good.size() / 2);
    }
    if (kind == "unsigned")
        return json;
    if (kind == "not xz")
        return builder.sign(json, { "--no-xz" });
    if (kind == "truncated xz")
        return builder.signWithOpenSsl(xz.left(xz.size() - 10), "sha256", false);
    if (kind == "corrupt xz")
        return builder.signWithOpenSsl(flip(xz, xz.size() / 2), "sha256", false);
    if (kind == "greedy xz")
        return builder.signWithOpenSsl(json, "sha256", true, { "--lzma2=dict=128MiB" });
    if (kind == "bomb") // 70 MiB of spaces pack into a few kilobytes
        return builder.signWithOpenSsl(QByteArray(70 * 1024 * 1024, ' '));
    if (kind == "not JSON")
        return builder.sign(json.left(json.size() - 5), { "--raw" });
    if (kind == "array root")
        return builder.sign("[" + json + "]", { "--raw" });
    if (kind == "invalid entry") {
        QJsonObject document = QJsonDocument::fromJson(json).object();
        QJsonArray entries = document["entries"].toArray();
        QJsonObject broken = entries.last().toObject();
        broken.remove("version");
        entries.append(broken);
        document["entries"] = entries;
        return builder.sign(QJsonDocument(document).toJson());
    }
    return {}; // "empty"
}

} // namespace badfeed
