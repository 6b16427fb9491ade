#include <QtTest>

class SettingsManagerTest : public QObject
{
    Q_OBJECT
};

QTEST_GUILESS_MAIN(SettingsManagerTest)
#include "SettingsManagerTest.moc"
