#include "tools/VmOptionsEditor.h"

#include "tools/ToolFiles.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <algorithm>

namespace {

const QString XmxPrefix = QStringLiteral("-Xmx");

// "-Dname=value" split into name and value; none for anything else.
Option<QPair<QString, QString>> splitProperty(const QString &option)
{
    if (!option.startsWith(QLatin1String("-D")))
        return None;
    const int equals = option.indexOf(QLatin1Char('='));
    if (equals < 3)
        return None;
    return qMakePair(option.mid(2, equals - 2), option.mid(equals + 1));
}

} // namespace

VmOptionsEditor::VmOptionsEditor(QStringList options)
    : m_options(std::move(options))
{
}

VmOptionsEditor VmOptionsEditor::fromString(const QString &text)
{
    static const QRegularExpression lineBreak(QStringLiteral("\n|\r\n|\r"));
    return VmOptionsEditor(text.split(lineBreak));
}

QString VmOptionsEditor::toString() const
{
    return m_options.join(QLatin1Char('\n'));
}

Result<VmOptionsEditor> VmOptionsEditor::readVmOptions(const QString &path)
{
    QFile file(path);
    if (QFileInfo(path).isDir() || !file.open(QIODevice::ReadOnly))
        return Error("Unable to open file " + path + " for reading");
    return fromString(QString::fromUtf8(file.readAll()));
}

Result<void> VmOptionsEditor::save(const QString &path) const
{
    const QString text = toString();
    const Result<QByteArray> before = ToolFiles::readIfExists(path);
    if (!before)
        return before.toError();
    const bool existed = QFileInfo::exists(path);
    if (existed && QString::fromUtf8(*before) == text) {
        qInfo().noquote() << "VmOptionsEditor::save: not saving '" + path
                + "' since file content is the same\n";
        return {};
    }
    const Result<void> written = ToolFiles::writeAtomically(path, text.toUtf8());
    if (!written)
        return written;
    qInfo().noquote() << "Updating vmoptions in" << path
                      << "\n----- BEFORE -----\n"
            + (existed ? QString::fromUtf8(*before) : QStringLiteral("<NOFILE>")) + "\n----- AFTER -----\n"
            + text + "\n----- END -----";
    return {};
}

Option<QString> VmOptionsEditor::getXmx() const
{
    for (const QString &option : m_options)
        if (option.startsWith(XmxPrefix))
            return option.mid(XmxPrefix.size());
    return None;
}

Option<quint64> VmOptionsEditor::getXmxInMegaBytes() const
{
    const Option<QString> value = getXmx();
    if (!value)
        return None;
    QString number = *value;
    quint64 multiplier = 1;
    const QChar unit = number.isEmpty() ? QChar() : number.back().toLower();
    if (unit == QLatin1Char('k'))
        multiplier = 1024;
    else if (unit == QLatin1Char('m'))
        multiplier = 1048576;
    else if (unit == QLatin1Char('g'))
        multiplier = 1073741824;
    if (multiplier != 1)
        number.chop(1);
    bool ok = false;
    const quint64 parsed = number.toULongLong(&ok, 10);
    if (!ok) {
        qWarning().noquote() << "Unable to parse xmx value: " + *value;
        return None;
    }
    return (parsed * multiplier) >> 20;
}

void VmOptionsEditor::setXmx(const QString &value)
{
    qInfo().noquote() << "vmoptions: setting xmx to" << value;
    for (QString &option : m_options)
        if (option.startsWith(XmxPrefix)) {
            option = XmxPrefix + value;
            return;
        }
    m_options.prepend(XmxPrefix + value);
}

void VmOptionsEditor::addOption(const QString &option)
{
    if (const auto property = splitProperty(option)) {
        setSystemProperty(property->first, property->second);
        return;
    }
    qInfo().noquote() << "vmoptions: adding option" << option;
    m_options.removeAll(option);
    m_options.append(option);
}

bool VmOptionsEditor::removeOption(const QString &option)
{
    qInfo().noquote() << "vmoptions: removing option" << option;
    return m_options.removeAll(option) > 0;
}

QStringList VmOptionsEditor::getOptionsByPrefix(const QString &prefix) const
{
    QStringList found;
    for (const QString &option : m_options)
        if (option.startsWith(prefix))
            found << option;
    return found;
}

bool VmOptionsEditor::removeOptionsByPrefix(const QString &prefix)
{
    const int before = m_options.size();
    m_options.erase(std::remove_if(m_options.begin(), m_options.end(),
                        [&prefix](const QString &option) { return option.startsWith(prefix); }),
        m_options.end());
    return m_options.size() != before;
}

QMap<QString, QString> VmOptionsEditor::getSystemProperties() const
{
    QMap<QString, QString> properties;
    for (const QString &option : m_options)
        if (const auto property = splitProperty(option))
            if (!properties.contains(property->first))
                properties.insert(property->first, property->second);
    return properties;
}

Option<QString> VmOptionsEditor::getSystemProperty(const QString &name) const
{
    const QMap<QString, QString> properties = getSystemProperties();
    if (!properties.contains(name))
        return None;
    return properties.value(name);
}

void VmOptionsEditor::setSystemProperty(const QString &name, const QString &value)
{
    qInfo().noquote() << "vmoptions: setting property" << name << value;
    removeOptionsByPrefix("-D" + name + "=");
    m_options.append("-D" + name + "=" + value);
}

bool VmOptionsEditor::removeSystemProperty(const QString &name)
{
    qInfo().noquote() << "vmoptions: removing property" << name;
    return removeOptionsByPrefix("-D" + name + "=");
}

void VmOptionsEditor::applyVmOptions(const VmOptionsEditor &other)
{
    for (const QString &option : other.m_options) {
        if (option.trimmed().isEmpty())
            continue;
        if (option.startsWith(XmxPrefix))
            setXmx(option.mid(XmxPrefix.size()));
        else
            addOption(option);
    }
}

VmOptionsEditor VmOptionsEditor::upgrade(const VmOptionsEditor &previousDefaults,
    const VmOptionsEditor &previousContent, const VmOptionsEditor &nextDefaults,
    const QStringList &incompatible)
{
    VmOptionsEditor result = nextDefaults;
    const auto meaningful
        = [](const QString &option) { return !option.trimmed().isEmpty() && !option.startsWith(XmxPrefix); };
    for (const QString &option : previousDefaults.m_options)
        if (meaningful(option) && !previousContent.m_options.contains(option))
            result.m_options.removeAll(option);
    for (const QString &option : previousContent.m_options)
        if (meaningful(option) && !previousDefaults.m_options.contains(option))
            result.addOption(option);
    const Option<QString> userXmx = previousContent.getXmx();
    if (userXmx && userXmx != previousDefaults.getXmx())
        result.setXmx(*userXmx);
    for (const QString &option : incompatible)
        result.m_options.removeAll(option);
    return result;
}

bool VmOptionsEditor::isValidXmx(const QString &value)
{
    static const QRegularExpression valid(QStringLiteral("^[1-9][0-9]{0,15}[kKmMgG]?$"));
    return valid.match(value).hasMatch();
}
