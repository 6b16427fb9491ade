#pragma once

#include "base/Option.h"
#include "base/Result.h"

#include <QMap>
#include <QString>
#include <QStringList>

// The Java VM options of a platform-based tool: an ordered list of options,
// one per line of a ".vmoptions" file.
//
// Upgrading a file to a new build's defaults (upgrade()) keeps what the user
// did and lets everything else follow the feed:
//  - an option the user added (in the old file, not in the old defaults) stays;
//  - an option the user removed (in the old defaults, not in the old file)
//    stays removed, even though the new defaults still carry it;
//  - a default the user did not touch follows the new defaults: it changes or
//    disappears with them;
//  - the heap size the user changed wins over the new default heap size;
//  - a system property the user set to another value keeps the user's value;
//  - options the new build declares incompatible are dropped whoever added them.
class VmOptionsEditor
{
public:
    VmOptionsEditor() = default;
    explicit VmOptionsEditor(QStringList options);
    // Splits at every "\n", "\r\n" and "\r".
    static VmOptionsEditor fromString(const QString &text);
    // Options joined with "\n", no trailing newline.
    QString toString() const;
    const QStringList &options() const { return m_options; }

    static Result<VmOptionsEditor> readVmOptions(const QString &path);
    // Writes toString() unless the file already holds exactly that; logs the
    // text before and after.
    Result<void> save(const QString &path) const;

    Option<QString> getXmx() const;
    Option<quint64> getXmxInMegaBytes() const;
    void setXmx(const QString &value);

    void addOption(const QString &option);
    bool removeOption(const QString &option);
    QStringList getOptionsByPrefix(const QString &prefix) const;
    bool removeOptionsByPrefix(const QString &prefix);

    QMap<QString, QString> getSystemProperties() const;
    Option<QString> getSystemProperty(const QString &name) const;
    void setSystemProperty(const QString &name, const QString &value);
    bool removeSystemProperty(const QString &name);

    // Adds the other editor's options to these, its heap size included.
    void applyVmOptions(const VmOptionsEditor &other);

    // The options a user had (`previousContent` over `previousDefaults`)
    // carried onto `nextDefaults` by the rules above.
    static VmOptionsEditor upgrade(const VmOptionsEditor &previousDefaults,
        const VmOptionsEditor &previousContent, const VmOptionsEditor &nextDefaults,
        const QStringList &incompatible = {});

    // A heap value the VM accepts: digits with an optional k, m or g.
    static bool isValidXmx(const QString &value);

    bool operator==(const VmOptionsEditor &other) const { return m_options == other.m_options; }

private:
    QStringList m_options;
};
