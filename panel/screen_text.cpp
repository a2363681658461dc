// Pieces of text that fit, and the lines made of them.

#include "panel/screen.h"

#include <cmath>
#include <wchar.h> // wcwidth is POSIX's, not C++'s

namespace s7200::panel
{

namespace
{

int cellsOfLetter(char32_t letter, bool utf8)
{
    // Control characters have no width, nor has what the C library does not know: one is shown.
    const int cells = utf8 && letter >= 0x20 ? ::wcwidth(wchar_t(letter)) : 1;
    return cells < 0 ? 1 : cells;
}

const char* sequenceOf(Style style, bool colour)
{
    switch (style) {
    case Style::Dim:
        return "\x1b[2m";
    case Style::Bold:
        return "\x1b[1m";
    case Style::Alarm:
        return colour ? "\x1b[1;31m" : "\x1b[1m";
    default:
        return "";
    }
}

} // namespace

int cellsOf(const QString& text, bool utf8)
{
    int cells = 0;
    for (const char32_t letter : text.toStdU32String())
        cells += cellsOfLetter(letter, utf8);
    return cells;
}

QString beginning(const QString& text, int width, bool utf8)
{
    const std::u32string letters = text.toStdU32String();
    std::size_t count = 0;
    // A mark stays on its letter also where that takes the last cell.
    for (; count < letters.size(); ++count) {
        width -= cellsOfLetter(letters[count], utf8);
        if (width < 0)
            break;
    }
    return QString::fromStdU32String(letters.substr(0, count));
}

QString ending(const QString& text, int width, bool utf8)
{
    const std::u32string letters = text.toStdU32String();
    std::size_t from = letters.size();
    for (; from > 0; --from) {
        width -= cellsOfLetter(letters[from - 1], utf8);
        if (width < 0)
            break;
    }
    // Marks whose letter is left out would stand on nothing.
    while (from > 0 && from < letters.size() && cellsOfLetter(letters[from], utf8) == 0)
        ++from;
    return QString::fromStdU32String(letters.substr(from));
}

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

QString shortened(const QString& text, int width, int tail, bool utf8)
{
    QString visible = text;
    for (QChar& letter : visible) {
        if (letter.category() == QChar::Other_Control)
            letter = QLatin1Char('?');
    }
    if (cellsOf(visible, utf8) <= width)
        return visible;
    return beginning(visible, width - 1 - tail, utf8) + (utf8 ? QChar(0x2026) : QLatin1Char('~')) +
           ending(visible, tail, utf8);
}

QString clipped(const QString& text, int width, bool utf8)
{
    return shortened(text, width, 0, utf8);
}

QString toTheLeft(const QString& text, int width, bool utf8)
{
    const QString fits = clipped(text, width, utf8);
    return fits + QString(qMax(0, width - cellsOf(fits, utf8)), QLatin1Char(' '));
}

QString toTheRight(const QString& text, int width, bool utf8)
{
    const QString fits = clipped(text, width, utf8);
    return QString(qMax(0, width - cellsOf(fits, utf8)), QLatin1Char(' ')) + fits;
}

QStringList wrapped(const QString& text, int width, int most, bool utf8)
{
    QStringList lines;
    QString rest = text;
    while (int(lines.size()) < most - 1 && cellsOf(rest, utf8) > width) {
        const int fits = qMax(1, int(beginning(rest, width, utf8).size()));
        const auto blank = rest.lastIndexOf(QLatin1Char(' '), fits);
        const int end = blank > fits / 2 ? int(blank) : fits;
        lines.append(clipped(rest.left(end), width, utf8));
        rest = rest.mid(end).trimmed();
    }
    if (!rest.isEmpty())
        lines.append(clipped(rest, width, utf8));
    return lines;
}

ScreenLine::ScreenLine(const QString& text, Style style)
{
    add(text, style);
}

void ScreenLine::add(const QString& text, Style style)
{
    pieces.append({text, style});
}

void ScreenLine::cut(int width, bool utf8)
{
    for (Piece& piece : pieces) {
        const QString fits = beginning(piece.text, width, utf8);
        width = fits.size() < piece.text.size() ? 0 : width - cellsOf(fits, utf8);
        piece.text = fits;
    }
}

QString ScreenLine::text() const
{
    QString text;
    for (const Piece& piece : pieces)
        text += piece.text;
    return text;
}

QString ScreenLine::forTerminal(bool colour) const
{
    QString text;
    for (const Piece& piece : pieces) {
        const QLatin1String sequence(sequenceOf(piece.style, colour));
        text += sequence + piece.text;
        if (sequence.size() > 0)
            text += QStringLiteral("\x1b[m");
    }
    return text;
}

} // namespace s7200::panel
