// Pieces of text that fit.

#include "panel/screen.h"

#include <cmath>

namespace s7200::panel
{

QString ageText(qint64 ageMs)
{
    constexpr qint64 Second = 1000;
    constexpr qint64 Minute = 60 * Second;
    constexpr qint64 Hour = 60 * Minute;
    constexpr qint64 Day = 24 * Hour;
    if (ageMs < 0)
        return QStringLiteral("-");
    if (ageMs < 10 * Second)
        return QStringLiteral("%1.%2s").arg(ageMs / Second).arg(ageMs % Second / 100);
    if (ageMs < Minute)
        return QStringLiteral("%1s").arg(ageMs / Second);
    if (ageMs < Hour)
        return QStringLiteral("%1m").arg(ageMs / Minute);
    if (ageMs < Day)
        return QStringLiteral("%1h").arg(ageMs / Hour);
    return QStringLiteral("%1d").arg(ageMs / Day);
}

QString sparkline(const QVector<float>& numbers, int width, bool utf8)
{
    // Eighths of a block from U+2581 on; without them letters of growing height and weight.
    const QString levels = utf8 ? QStringLiteral("\u2581\u2582\u2583\u2584\u2585\u2586\u2587\u2588")
                                : QStringLiteral("_.-=+*%#");
    const int count = qMin(width, int(numbers.size()));
    float lowest = INFINITY;
    float highest = -INFINITY;
    for (int i = int(numbers.size()) - count; i < int(numbers.size()); ++i) {
        if (std::isfinite(numbers.at(i))) {
            lowest = qMin(lowest, numbers.at(i));
            highest = qMax(highest, numbers.at(i));
        }
    }
    QString text;
    for (int i = int(numbers.size()) - count; i < int(numbers.size()); ++i) {
        const double range = double(highest) - double(lowest);
        const double share = range > 0 ? (double(numbers.at(i)) - double(lowest)) / range : 0;
        text += std::isfinite(numbers.at(i)) ? levels.at(int(share * 7 + 0.5)) : QLatin1Char(' ');
    }
    return text;
}

QString clipped(const QString& text, int width, bool utf8)
{
    QString visible = text;
    for (QChar& letter : visible) {
        if (letter.category() == QChar::Other_Control)
            letter = QLatin1Char('?');
    }
    if (visible.size() <= width)
        return visible;
    return visible.left(qMax(0, width - 1)) + (utf8 ? QChar(0x2026) : QLatin1Char('~'));
}

QStringList wrapped(const QString& text, int width, int most, bool utf8)
{
    QStringList lines;
    QString rest = text;
    while (!rest.isEmpty() && int(lines.size()) < most - 1 && rest.size() > width) {
        const auto blank = rest.lastIndexOf(QLatin1Char(' '), width);
        const int end = blank > width / 2 ? int(blank) : width;
        lines.append(clipped(rest.left(end), width, utf8));
        rest = rest.mid(end).trimmed();
    }
    if (!rest.isEmpty())
        lines.append(clipped(rest, width, utf8));
    return lines;
}

} // namespace s7200::panel
