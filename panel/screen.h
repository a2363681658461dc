#ifndef PANEL_SCREEN_H
#define PANEL_SCREEN_H

#include "panel/watched_row.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

namespace s7200::panel
{

/// What a terminal can show.
struct ScreenShape {
    int columns = 80; ///< Cells of a line; a letter takes none, one or two (cellsOf).
    int lines = 24;
    bool utf8 = true;
    bool colour = true;
    bool typing = true; ///< Has a line for typing.
};

/// What is to be seen.
struct ScreenContents {
    QStringList status; ///< First line, and one for each controller in trouble.
    const QVector<WatchedRow>* rows = nullptr;
    qint64 nowMs = 0;
    int top = 0;     ///< The first line of all those that the rows need.
    QString message; ///< The latest; empty: none.
    QString typed;
    bool readOnly = false; ///< What is typed will not be written.
};

enum class Style { Plain, Dim, Bold, Alarm };

/// A line as drawn: pieces of text, each in one style.
struct ScreenLine {
    struct Piece {
        QString text;
        Style style = Style::Plain;
    };
    QVector<Piece> pieces;

    ScreenLine() = default;
    ScreenLine(const QString& text, Style style = Style::Plain);
    void add(const QString& text, Style style = Style::Plain);
    void cut(int width, bool utf8);
    QString text() const;
    /// With control sequences (ECMA-48) for the styles.
    QString forTerminal(bool colour) const;
};

/// A screen full of lines.
struct Drawing {
    QVector<ScreenLine> lines; ///< As many as the screen has; none is wider.
    int body = 0;              ///< The first of them with values.
    int cursorColumn = 0;      ///< In the last line, from 0.
    int top = 0;               ///< The first line shown, put right.
    int page = 1;              ///< Lines of values shown.
    int total = 0;             ///< Lines of values in all.
};

/// Lays the contents out. Never fails: what does not fit is left out or cut short.
Drawing draw(const ScreenContents& contents, const ScreenShape& shape);

/// "0.2s", "59s", "12m", "23h", "99d"; "-" for an age that is not known.
QString ageText(qint64 ageMs);

/// One letter a number, from lowest to highest; a blank where there is none.
QString sparkline(const QVector<float>& numbers, int width, bool utf8);

/// The cells of a terminal that a text takes, as the C library has it in the locale's character
/// set: two for a wide letter (CJK), none for a mark on the letter before. Without UTF-8 one for
/// each letter, since each that is not ASCII is shown as a question mark.
int cellsOf(const QString& text, bool utf8);

/// As much of the beginning, or of the end, as fits into `width` cells.
QString beginning(const QString& text, int width, bool utf8);
QString ending(const QString& text, int width, bool utf8);

/// Cut to `width` cells, which is said by the last one; control characters become visible.
QString clipped(const QString& text, int width, bool utf8);

/// The same, but with `tail` cells of the end behind the one that says so.
QString shortened(const QString& text, int width, int tail, bool utf8);

/// Clipped, and filled with blanks to `width` cells at the other side.
QString toTheLeft(const QString& text, int width, bool utf8);
QString toTheRight(const QString& text, int width, bool utf8);

/// In lines of `width`, at most `most` of them, cut at blanks where that is possible.
QStringList wrapped(const QString& text, int width, int most, bool utf8);

} // namespace s7200::panel

#endif
