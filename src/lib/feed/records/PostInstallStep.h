#pragma once

#include "base/Option.h"

#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>

// One element of "post_install"."steps": work the installer runs after a
// build is unpacked.
class PostInstallStep
{
public:
    // One element of a step's "commands".
    class Command
    {
    public:
        Command() = default;
        explicit Command(const QJsonObject &json);

        // "executable", default empty.
        QString getExecutable() const;
        // The elements of "arguments" as strings (non-strings give ""), with
        // "$HOME" replaced by the home directory and then "$TEMP" by
        // `temporaryDirectory`, the step's own temporary directory.
        QStringList getArguments(const QString &temporaryDirectory) const;
        // "lathe"."additional_vmoptions_content", default empty.
        QString getAdditionalVmoptionsContent() const;

        QJsonObject toJson() const { return m_json; }
        bool operator==(const Command &other) const { return m_json == other.m_json; }
        bool operator!=(const Command &other) const { return !(*this == other); }

    private:
        QJsonObject m_json;
    };

    // The "lathe" object of a step, read once into values.
    struct LatheOptions
    {
        // The "name" strings of "temporary_copy_directories" (empty names skipped).
        QStringList temporaryCopyDirectories;
        // The "name" strings of "temporary_new_directories" (empty names skipped).
        QStringList temporaryNewDirectories;
        // "additional_vmoptions_content", default empty.
        QString additionalVmoptionsContent;

        bool operator==(const LatheOptions &o) const
        {
            return temporaryCopyDirectories == o.temporaryCopyDirectories
                && temporaryNewDirectories == o.temporaryNewDirectories
                && additionalVmoptionsContent == o.additionalVmoptionsContent;
        }
    };

    PostInstallStep() = default;
    explicit PostInstallStep(const QJsonObject &json);

    QString getId() const; // "id", default empty
    bool getEnabled() const; // "enabled", default true
    bool isRequired() const; // "required", default true
    bool isProgressVisible() const; // "progress"."visible", default false
    QString getProgressMessage() const; // "progress"."message", default empty
    // Each element of "commands" as a Command, in order.
    QList<Command> getCommands() const;
    // No value when "lathe" is missing, not an object or empty.
    Option<LatheOptions> getLatheOptions() const;

    QJsonObject toJson() const { return m_json; }
    bool operator==(const PostInstallStep &other) const { return m_json == other.m_json; }
    bool operator!=(const PostInstallStep &other) const { return !(*this == other); }

private:
    QJsonObject m_json;
};

Q_DECLARE_METATYPE(PostInstallStep)
Q_DECLARE_METATYPE(PostInstallStep::Command)
