#include "panel/display.h"

#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

// ECMA-48 control sequences.
const char* const ToLineStart = "\r";
const char* const EraseToLineEnd = "\x1b[K";
const char* const EraseBelow = "\x1b[J";
const char* const SaveCursor = "\x1b"
                               "7";
const char* const RestoreCursor = "\x1b"
                                  "8";
const char* const Prompt = "write> ";

/// Below the values: the status line and the line for typing.
constexpr int LinesBelow = 2;

QString up(int lines)
{
    return QStringLiteral("\r\x1b[%1A").arg(lines);
}

void put(std::FILE* stream, const QString& text)
{
    std::fputs(text.toLocal8Bit().constData(), stream);
    std::fflush(stream);
}

bool isTerminal(int descriptor)
{
    return ::isatty(descriptor) == 1 && qgetenv("TERM") != "dumb";
}

winsize terminalSize()
{
    winsize size = {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
        size.ws_row = 24;
        size.ws_col = 80;
    }
    return size;
}

} // namespace

Display::Display(bool quietStatus)
    : inPlace(isTerminal(STDOUT_FILENO) && !quietStatus),
      statusInPlace(!inPlace && isTerminal(STDERR_FILENO) && !quietStatus),
      prompts(inPlace && ::isatty(STDIN_FILENO) == 1)
{
}

bool Display::isInPlace() const
{
    return inPlace;
}

void Display::show(const QStringList& lines, const QString& status)
{
    const QStringList before = shown;
    shown = lines;
    shownStatus = status;
    if (inPlace) {
        redraw();
        return;
    }
    if (statusInPlace)
        put(stderr, QString(ToLineStart) + EraseToLineEnd);
    for (int i = 0; i < int(lines.size()); ++i) {
        if (before.value(i) != lines.at(i))
            put(stdout, lines.at(i) + QLatin1Char('\n'));
    }
    if (statusInPlace)
        put(stderr, clipped(status));
}

/// Draws everything from the cursor on and leaves the cursor on the line for typing.
void Display::draw()
{
    const winsize size = terminalSize();
    columns = size.ws_col;
    rows = qMin(int(shown.size()), qMax(1, size.ws_row - LinesBelow - 1));
    QStringList lines = shown.mid(0, rows);
    if (rows < int(shown.size()))
        lines.last() =
            QStringLiteral("(%1 more; make the terminal higher)").arg(int(shown.size()) - rows + 1);
    QString text;
    for (const QString& line : lines)
        text += clipped(line) + EraseToLineEnd + QLatin1Char('\n');
    put(stdout, text);
    put(stderr, clipped(shownStatus) + EraseToLineEnd);
}

void Display::redraw()
{
    const winsize size = terminalSize();
    const bool resized =
        rows > 0 && (columns != size.ws_col ||
                     rows != qMin(int(shown.size()), qMax(1, size.ws_row - LinesBelow - 1)));
    if (resized)
        put(stdout, up(rows + 1) + EraseBelow);
    if (rows == 0 || resized) {
        draw();
        put(stdout, QStringLiteral("\n") + QLatin1String(prompts ? Prompt : ""));
        return;
    }
    // What is being typed stays where it is.
    put(stdout, SaveCursor + up(rows + 1));
    draw();
    put(stdout, RestoreCursor);
}

void Display::message(const QString& text)
{
    const QString line = QStringLiteral("s7200-panel: ") + text + QLatin1Char('\n');
    if (inPlace && rows > 0) {
        put(stdout, up(rows + 1) + EraseBelow);
        put(stderr, line);
        rows = 0;
        redraw();
        return;
    }
    put(stderr, statusInPlace ? QString(ToLineStart) + EraseToLineEnd + line : line);
    if (statusInPlace)
        put(stderr, clipped(shownStatus));
}

/// The terminal has moved on to the next line.
void Display::lineTyped()
{
    if (prompts)
        put(stdout, up(1) + EraseBelow + QLatin1String(Prompt));
}

bool Display::end()
{
    if (inPlace)
        put(stdout, QString(ToLineStart) + EraseToLineEnd);
    if (statusInPlace)
        put(stderr, QString(ToLineStart) + EraseToLineEnd);
    return std::ferror(stdout) == 0;
}

QString Display::clipped(const QString& text) const
{
    // One less than the width: the last column makes some terminals move on.
    return text.left(qMax(20, (columns > 0 ? columns : int(terminalSize().ws_col)) - 1));
}
