#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// Collects every message logged by any thread of the process while it lives, and passes each on
// to the handler it replaced (under QtTest, the test log), which comes back on destruction.
// QtTest installs its own handler when the test run starts: create a capture inside the test
// functions (initTestCase at the earliest), not as a member built before the run.
// One capture at a time.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList messages() const;
    // The messages containing `text`, in order.
    QStringList matching(const QString &text) const;
    // The same, of one type only.
    QStringList matching(const QString &text, QtMsgType type) const;
    int count(const QString &text) const { return matching(text).size(); }
    bool contains(const QString &text) const { return count(text) > 0; }
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);
    QtMessageHandler m_previous = nullptr;
};
