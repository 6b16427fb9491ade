#include <QtTest>

class SelfSettingsTest : public QObject
{
    Q_OBJECT
};

QTEST_GUILESS_MAIN(SelfSettingsTest)
#include "SelfSettingsTest.moc"
