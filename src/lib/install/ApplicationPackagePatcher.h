#pragma once

#include "base/Option.h"
#include "base/Processes.h"
#include "base/Result.h"
#include "feed/records/RemoteFeedItem.h"
#include "feed/records/RemotePatchItem.h"
#include "local/LocalFeedItem.h"

#include <QList>
#include <QPair>
#include <QString>
#include <functional>

enum class StopWordsStream
{
    Stdout,
    Stderr,
};

// Only "lathe_patch" patches are applied; anything else is refused.
Result<void> resolvePatch(const RemotePatchItem &patch);
// A per-line callback that logs and flags lines matching the patch's
// "asserts"."stop_words"."stdout"/"stderr" regular expressions.
Processes::LineCallback stopWordsFilter(
    const RemotePatchItem &patch, StopWordsStream stream, bool &stopWordSeen);
// Every "asserts"."checksums" entry ({"file", "alg", "value"}) checked under targetFolder.
Result<void> verifyPatchedFiles(const RemotePatchItem &patch, const QString &targetFolder);

// Rebuilds a target build from a copy of an installed base build and a downloaded chain
// of patches. The base build is only ever read.
class ApplicationPackagePatcher
{
public:
    // `targetItem` is the build the chain ends at (its "package" checksums are the final
    // check). No per-tool handlers are needed on this platform: the patch command does
    // all the work. `timeoutMs` bounds each patch command.
    ApplicationPackagePatcher(LocalFeedItem baseItem, QList<QPair<RemotePatchItem, QString>> patchFiles,
        QString targetDir, RemoteFeedItem targetItem = {}, int timeoutMs = Processes::DEFAULT_TIMEOUT_MS);

    // A base build is usable when it was installed by us (not detected elsewhere), its
    // record is valid and its install folder exists with its marker file in it.
    static bool isValidBaseItem(const LocalFeedItem &item);
    // A patch is usable when it is valid, is of the "lathe_patch" type, goes between two
    // different builds, has a download URL, a positive size and a non-empty "command".
    static bool isValidPatchItem(const RemotePatchItem &patch);

    // The Java runtime for %JAVA_PATH%: a "jre/bin/java" (also "jre64" or
    // "runtime") inside the base build, then `java` on PATH. None when there is neither.
    static Option<QString> resolveJavaPath(const LocalFeedItem &baseItem);

    Result<void> execute();
    Result<void> copyBaseImage(const QString &from, const QString &to);
    Result<void> applyPatch(const RemotePatchItem &patch, const QString &patchFile);

    // The final check: when the target record's "package" lists "checksums" entries that
    // name a "file", each such file (relative to the target) is hashed and compared.
    // Entries without "file" describe the package archive itself, which a patched
    // install does not have, and are skipped.
    Result<void> verifyTarget() const;

    void setCancelCheck(std::function<bool()> isCancelled) { m_isCancelled = std::move(isCancelled); }

private:
    LocalFeedItem m_baseItem;
    QList<QPair<RemotePatchItem, QString>> m_patchFiles;
    QString m_targetDir;
    RemoteFeedItem m_targetItem;
    int m_timeoutMs;
    std::function<bool()> m_isCancelled;
};
