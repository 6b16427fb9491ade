#pragma once

// Shared by the libFuzzer targets: a quiet Qt (log output would dominate the run) and
// the input as Qt types.

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <cstddef>
#include <cstdint>

namespace fuzz {

inline void quiet()
{
    static const bool done = [] {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        return true;
    }();
    (void)done;
}

inline QByteArray bytes(const uint8_t *data, size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), int(size));
}

// A broken invariant is a finding: stop so that libFuzzer keeps the input.
inline void check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

} // namespace fuzz
