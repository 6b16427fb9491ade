#pragma once

#include "base/Option.h"

#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>

class Project;

// Version-control systems whose remotes we recognise. Only Git is detected today.
enum class VcsType
{
    Git
};

// The version-control remote of a project ("origin" for Git).
class VcsInfo
{
public:
    VcsInfo() = default;
    VcsInfo(VcsType type, const QString &remoteUrl);

    VcsType type() const { return m_type; }
    QString remoteUrl() const { return m_remoteUrl; }
    bool isEmpty() const { return m_remoteUrl.isEmpty(); }

    // Same type and the same repository reached through possibly different links: equal hosts,
    // equal paths (trailing "/" ignored; on the configured Git hosting host "repo.git" equals
    // "repo"), and protocols that are the same or all among http, https, ssh and none.
    // Ports, user names, passwords and queries do not matter.
    bool isSimilar(const VcsInfo &other) const;

    // {"type": "git", "remote_url": "..."}
    QJsonObject toJson() const;
    static Option<VcsInfo> fromJson(const QJsonObject &json);

    static QString typeString(VcsType type);
    // The Git hosting host for which "owner/repo.git" and "owner/repo" name the same repository
    // (fixed at build time, CMake cache option HANGAR_GIT_HOSTING_HOST).
    static QString gitHostingHost();

    bool operator==(const VcsInfo &other) const
    {
        return m_type == other.m_type && m_remoteUrl == other.m_remoteUrl;
    }
    bool operator!=(const VcsInfo &other) const { return !(*this == other); }

private:
    VcsType m_type = VcsType::Git;
    QString m_remoteUrl;
};

// Reads "<project directory>/.git/config" and, when it names an "origin" remote, adds a Git VcsInfo
// with its URL to the project. Without a ".git" folder nothing happens; an unreadable file or a
// configuration without origin is logged and leaves the project unchanged.
void addExistingGitVcs(Project &project);

// The "origin" URL of a Git configuration file's text, if it has one (pure parsing, no disk access).
Option<QString> findGitOriginUrl(const QString &gitConfigText);

Q_DECLARE_METATYPE(VcsInfo)
