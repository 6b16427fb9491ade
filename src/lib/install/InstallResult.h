#pragma once

#include <QString>

// What ApplicationInstallerAction::start ends with: success, or failure with a
// user-readable message.
class InstallResult
{
public:
    static InstallResult success() { return InstallResult(true, {}); }
    static InstallResult failure(const QString &message) { return InstallResult(false, message); }

    bool isSuccessful() const { return m_success; }
    bool isError() const { return !m_success; }
    const QString &error() const { return m_message; }

private:
    InstallResult(bool success, QString message)
        : m_success(success)
        , m_message(std::move(message))
    {
    }
    bool m_success;
    QString m_message;
};
