#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QString>
#include <QTextStream>

// Shows the manager's "totalProgress" document on the terminal: one line redrawn in place
// (bar, percentage, speed, time left) when the stream is a terminal, else one plain line per
// step, so logs of scripted runs stay readable.
class ProgressLine
{
public:
    ProgressLine(QTextStream &stream, bool terminal);

    void show(const QJsonObject &progress);
    // Ends a drawn line so that following output starts on a fresh one.
    void finish();

    static QString formatSize(double bytes);

private:
    QTextStream &m_stream;
    bool m_terminal;
    bool m_drawn = false;
    QString m_lastStep;
    qint64 m_lastCurrent = -1;
    QElapsedTimer m_clock;
    double m_rate = 0;
};
