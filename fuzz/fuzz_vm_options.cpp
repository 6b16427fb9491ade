// VM options files are edited by users and shipped in packages: any text must parse, print
// back to a fixpoint, and survive an upgrade without losing what the user added.
// The input holds up to four parts separated by "\x01": old defaults, the user's file,
// new defaults and options the new build declares incompatible.

#include "FuzzSupport.h"
#include "tools/VmOptionsEditor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::quiet();
    const QStringList parts = QString::fromUtf8(fuzz::bytes(data, size)).split(QChar(1));
    const auto part = [&](int i) { return i < parts.size() ? parts.at(i) : QString(); };
    const VmOptionsEditor user = VmOptionsEditor::fromString(part(1));
    const VmOptionsEditor again = VmOptionsEditor::fromString(user.toString());
    fuzz::check(VmOptionsEditor::fromString(again.toString()) == again);

    const VmOptionsEditor oldDefaults = VmOptionsEditor::fromString(part(0));
    const VmOptionsEditor newDefaults = VmOptionsEditor::fromString(part(2));
    const QStringList incompatible = part(3).split('\n', Qt::SkipEmptyParts);
    const VmOptionsEditor upgraded = VmOptionsEditor::upgrade(oldDefaults, user, newDefaults, incompatible);
    for (const QString &option : upgraded.options())
        fuzz::check(!incompatible.contains(option));

    VmOptionsEditor edited = user;
    if (VmOptionsEditor::isValidXmx(part(3))) {
        edited.setXmx(part(3));
        const auto xmx = edited.getXmx();
        fuzz::check(xmx.has_value() && *xmx == part(3));
    }
    edited.setSystemProperty(QStringLiteral("fuzz.key"), part(2).left(40).remove('\n').remove('\r'));
    (void)edited.getSystemProperties();
    (void)edited.getXmxInMegaBytes();
    return 0;
}
