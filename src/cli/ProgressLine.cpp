#include "ProgressLine.h"

#include <cmath>

ProgressLine::ProgressLine(QTextStream &stream, bool terminal) : m_stream(stream), m_terminal(terminal) {}

QString ProgressLine::formatSize(double bytes)
{
    static const char *units[] = {"B", "KB", "MB", "GB", "TB"};
    int unit = 0;
    while (bytes >= 1000 && unit < 4) {
        bytes /= 1000;
        ++unit;
    }
    return unit == 0 ? QStringLiteral("%1 B").arg(qint64(bytes))
                     : QStringLiteral("%1 %2").arg(bytes, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

void ProgressLine::show(const QJsonObject &progress)
{
    const QString name = progress.value(QLatin1String("name")).toString();
    if (name.isEmpty())
        return; // the idle document
    const double current = progress.value(QLatin1String("current")).toDouble();
    const double all = std::max(1.0, progress.value(QLatin1String("all")).toDouble());
    const int percent = int(std::clamp(100.0 * current / all, 0.0, 100.0));

    if (!m_terminal) {
        const QString step = name + QStringLiteral(" (") + QString::number(percent / 25 * 25) + QStringLiteral("%)");
        if (step != m_lastStep) {
            m_stream << step << '\n';
            m_stream.flush();
            m_lastStep = step;
        }
        return;
    }

    // Speed only means something when the steps are bytes of a download.
    QString speed;
    if (all > 1e6) {
        if (!m_clock.isValid() || m_lastCurrent < 0 || current < m_lastCurrent) {
            m_clock.start();
            m_lastCurrent = qint64(current);
        } else if (m_clock.elapsed() >= 500) {
            const double rate = (current - m_lastCurrent) * 1000.0 / m_clock.elapsed();
            m_rate = m_rate <= 0 ? rate : 0.7 * m_rate + 0.3 * rate;
            m_clock.restart();
            m_lastCurrent = qint64(current);
        }
        if (m_rate > 0)
            speed = QStringLiteral("  ") + formatSize(m_rate) + QStringLiteral("/s");
    }
    QString left;
    const qint64 ms = progress.value(QLatin1String("time")).toVariant().toLongLong();
    if (ms > 0)
        left = QStringLiteral("  %1:%2 left").arg(ms / 60000).arg((ms / 1000) % 60, 2, 10, QLatin1Char('0'));

    constexpr int width = 24;
    const int filled = percent * width / 100;
    QString line = QStringLiteral("[") + QString(filled, QLatin1Char('#')) + QString(width - filled, QLatin1Char('.'))
                   + QStringLiteral("] %1%  ").arg(percent, 3) + name + speed + left;
    if (line.size() > 100)
        line = line.left(99) + QChar(0x2026);
    m_stream << '\r' << line << "\x1b[K";
    m_stream.flush();
    m_drawn = true;
}

void ProgressLine::finish()
{
    if (m_drawn) {
        m_stream << '\n';
        m_stream.flush();
        m_drawn = false;
    }
}
