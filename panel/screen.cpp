#include "panel/screen.h"

#include <QSet>

namespace s7200::panel
{

namespace
{

constexpr qint64 MarkedMs = 2000; ///< A change is marked for so long.
constexpr int AgeWidth = 4;
constexpr int NarrowestUnit = 4; ///< What stands above it.
constexpr int WidestUnit = 8;
constexpr int WidestValue = 24;
constexpr int NarrowestNote = 4;
constexpr int LinesWithHeader = 16; ///< A screen with fewer has no line to spare.
const char* const Prompt = "write> ";
const char* const ReadOnlyPrompt = "read-only> ";
const QLatin1String Separator(" | "); ///< Of the parts of the first status line.

// One line of what the rows need.

struct Place {
    int row = 0;
    int first = 0; ///< Element; of a dump the first of the line, or Head.
    int count = 1; ///< Elements, of a dump.
};
constexpr int Head = -1; ///< The line above a dump, with its name and age.

/// Widths of the columns; 0: left out.
struct Columns {
    int label = 0;
    int tail = 0; ///< Of a label too long, the cells of its end that are shown.
    int marks = 1;
    int value = 0;
    int unit = 0;
    int note = 0; ///< History, or why the value is not good.
};

/// An element of a dump without the prefix that its label says.
QString dumpText(const WatchedRow& row, int element)
{
    const QString text = row.item.tag.text(row.value.elements.at(element));
    const Format format = row.item.tag.variable.format;
    return format == Format::Hex || format == Format::Binary ? text.mid(2) : text;
}

int dumpElementWidth(const WatchedRow& row)
{
    return row.value.elements.isEmpty() ? 1 : int(dumpText(row, 0).size());
}

class Layout
{
public:
    Layout(const ScreenContents& screenContents, const ScreenShape& screenShape)
        : m_contents(screenContents), m_shape(screenShape),
          // The last column makes some terminals move on.
          m_width(qMax(1, screenShape.columns - 1))
    {
    }

    Drawing draw();

private:
    void addStatus();
    void addRows(int body);
    void addPrompt(const QStringList& message);
    int dumpLine(const WatchedRow& row) const;
    int linesOf(const WatchedRow& row) const;
    QVector<Place> placesFrom(int top, int count) const;
    int tailFor(const QVector<Place>& places, int width) const;
    Columns columnsFor(const QVector<Place>& places) const;
    ScreenLine header(const Columns& columns) const;
    ScreenLine elementLine(const WatchedRow& row, int element, const Columns& columns) const;
    ScreenLine dumpHead(const WatchedRow& row, const Columns& columns) const;
    ScreenLine dumpElements(const WatchedRow& row, const Place& place) const;
    QString labelOf(const Place& place) const;
    QString valueOf(const WatchedRow& row, int element) const;
    bool isMarked(const WatchedRow& row, int element) const;

    QString clip(const QString& text, int width) const
    {
        return clipped(text, width, m_shape.utf8);
    }
    QString toLeft(const QString& text, int width) const
    {
        return toTheLeft(text, width, m_shape.utf8);
    }
    QString nameText(const QString& text, const Columns& columns) const
    {
        return toLeft(shortened(text, columns.label, columns.tail, m_shape.utf8), columns.label);
    }
    QString toRight(const QString& text, int width) const
    {
        return toTheRight(text, width, m_shape.utf8);
    }
    int cells(const QString& text) const
    {
        return cellsOf(text, m_shape.utf8);
    }

    const ScreenContents& m_contents;
    const ScreenShape& m_shape;
    const int m_width;
    Drawing m_drawing;
};

Drawing Layout::draw()
{
    const QStringList message = wrapped(m_contents.message, m_width,
                                        m_shape.lines >= LinesWithHeader ? 3 : 2, m_shape.utf8);
    addStatus();
    const int body = qMax(1, m_shape.lines - int(m_drawing.lines.size() + message.size()) - 1 -
                                 (m_shape.lines >= LinesWithHeader ? 1 : 0));
    addRows(body);
    addPrompt(message);
    while (m_drawing.lines.size() > qMax(1, m_shape.lines))
        m_drawing.lines.removeFirst();
    for (ScreenLine& line : m_drawing.lines)
        line.cut(m_width, m_shape.utf8);
    return m_drawing;
}

/// At most a quarter of the screen; a single trouble may take two lines.
void Layout::addStatus()
{
    const int most = qMax(2, m_shape.lines / 4);
    // Of the first line, whole parts go first.
    QString first = m_contents.status.value(0);
    while (cells(first) > m_width && first.contains(Separator))
        first.truncate(first.lastIndexOf(Separator));
    QStringList lines = {first};
    if (m_contents.status.size() == 2)
        lines += wrapped(m_contents.status.at(1), m_width, 2, m_shape.utf8);
    else
        lines += m_contents.status.mid(1);
    if (lines.size() > most && m_contents.status.size() > 2) {
        const int left = int(lines.size()) - most + 1;
        const QString next = lines.at(most - 1);
        lines = lines.mid(0, most - 1);
        lines.append(most > 2 ? QStringLiteral("and %1 more in trouble").arg(left)
                              : QStringLiteral("%1 in trouble: %2").arg(left).arg(next));
    }
    for (int i = 0; i < int(lines.size()); ++i)
        m_drawing.lines.append(
            ScreenLine(clip(lines.at(i), m_width), i > 0 ? Style::Alarm : Style::Bold));
}

void Layout::addRows(int body)
{
    for (const WatchedRow& row : *m_contents.rows)
        m_drawing.total += linesOf(row);
    m_drawing.page = body;
    m_drawing.top = qBound(0, m_contents.top, qMax(0, m_drawing.total - body));
    const QVector<Place> places = placesFrom(m_drawing.top, body);
    const Columns columns = columnsFor(places);
    if (m_shape.lines >= LinesWithHeader)
        m_drawing.lines.append(header(columns));
    m_drawing.body = int(m_drawing.lines.size());
    for (const Place& place : places) {
        const WatchedRow& row = m_contents.rows->at(place.row);
        if (!row.isDump())
            m_drawing.lines.append(elementLine(row, place.first, columns));
        else
            m_drawing.lines.append(place.first == Head ? dumpHead(row, columns)
                                                       : dumpElements(row, place));
    }
    for (int i = int(places.size()); i < body; ++i)
        m_drawing.lines.append(ScreenLine());
}

void Layout::addPrompt(const QStringList& message)
{
    for (const QString& line : message)
        m_drawing.lines.append(ScreenLine(line));
    QString where;
    if (m_drawing.total > m_drawing.page) {
        where = QStringLiteral("%1-%2 of %3")
                    .arg(m_drawing.top + 1)
                    .arg(qMin(m_drawing.total, m_drawing.top + m_drawing.page))
                    .arg(m_drawing.total);
        if (m_width >= 60)
            where += QStringLiteral("  arrows, PgUp, PgDn");
    }
    if (m_shape.typing)
        where += (where.isEmpty() ? QString() : QStringLiteral("  ")) + QStringLiteral("q quits");
    QString line;
    if (m_shape.typing)
        line = QLatin1String(m_contents.readOnly ? ReadOnlyPrompt : Prompt) + m_contents.typed;
    // Of a long line the end is what is being typed.
    line = ending(line, m_width, m_shape.utf8);
    m_drawing.cursorColumn = cells(line);
    const int gap = m_width - m_drawing.cursorColumn - int(where.size());
    ScreenLine prompt(line);
    if (gap >= 1)
        prompt.add(QString(gap, QLatin1Char(' ')) + where, Style::Dim);
    m_drawing.lines.append(prompt);
}

/// Elements in a line of a dump: a power of two, indented by two, each behind a blank or a mark.
int Layout::dumpLine(const WatchedRow& row) const
{
    int count = 32;
    while (count > 1 && 8 + count * (dumpElementWidth(row) + 1) > m_width)
        count /= 2;
    return count;
}

int Layout::linesOf(const WatchedRow& row) const
{
    if (!row.isDump())
        return row.item.tag.variable.repeat;
    const int count = dumpLine(row);
    return 1 + (int(row.value.elements.size()) + count - 1) / count;
}

QVector<Place> Layout::placesFrom(int top, int count) const
{
    QVector<Place> places;
    int line = 0;
    for (int i = 0; i < int(m_contents.rows->size()) && int(places.size()) < count; ++i) {
        const WatchedRow& row = m_contents.rows->at(i);
        const int lines = linesOf(row);
        const int perLine = row.isDump() ? dumpLine(row) : 1;
        for (int k = qMax(0, top - line); k < lines && int(places.size()) < count; ++k) {
            Place place;
            place.row = i;
            place.first = !row.isDump() ? k : k == 0 ? Head : (k - 1) * perLine;
            place.count = perLine;
            places.append(place);
        }
        line += lines;
    }
    return places;
}

QString Layout::labelOf(const Place& place) const
{
    const WatchedRow& row = m_contents.rows->at(place.row);
    return row.isDump() ? row.item.label : row.elementLabel(place.first);
}

/// A value that is not current is never in the place of one that is.
QString Layout::valueOf(const WatchedRow& row, int element) const
{
    const bool known = element < int(row.value.elements.size());
    const QString text = known ? row.item.tag.text(row.value.elements.at(element)) : QString();
    if (row.value.quality == Quality::Good && known)
        return text;
    return known ? QStringLiteral("? was ") + text : QStringLiteral("?");
}

/// Where to cut names that are too long, so that as many as can be are told apart.
int Layout::tailFor(const QVector<Place>& places, int width) const
{
    constexpr int Parts = 4;
    int best = 0;
    int most = 0;
    for (int part = 0; part <= Parts; ++part) {
        const int tail = (width - 1) * part / Parts;
        QSet<QString> names;
        for (const Place& place : places)
            names.insert(shortened(labelOf(place), width, tail, m_shape.utf8));
        if (names.size() <= most)
            continue;
        most = int(names.size());
        best = tail;
    }
    return best;
}

Columns Layout::columnsFor(const QVector<Place>& places) const
{
    Columns columns;
    for (const Place& place : places) {
        const WatchedRow& row = m_contents.rows->at(place.row);
        columns.label = qMax(columns.label, cells(labelOf(place)));
        if (row.item.tag.low || row.item.tag.high)
            columns.marks = 2;
        if (row.isDump())
            continue;
        columns.value = qMax(columns.value, cells(valueOf(row, place.first)));
        if (!row.item.tag.unit.isEmpty())
            columns.unit =
                qBound(qMax(NarrowestUnit, columns.unit), cells(row.item.tag.unit), WidestUnit);
    }
    const int longest = columns.label;
    columns.label = qMin(longest, qMax(8, m_width * 2 / 5));
    int left = m_width - columns.label - columns.marks - 1 - AgeWidth - 1;
    columns.value = qBound(6, columns.value, qMax(6, qMin(WidestValue, left)));
    left -= columns.value;
    if (columns.unit > 0 && left < columns.unit + 1)
        columns.unit = 0;
    left -= columns.unit > 0 ? columns.unit + 1 : 0;
    // Names before the history: it says nothing if rows cannot be told apart.
    const int more = qMin(longest - columns.label, qMax(0, left));
    columns.label += more;
    left -= more;
    columns.tail = tailFor(places, columns.label);
    columns.note = left - 2 >= NarrowestNote ? qMin(left - 2, int(History::Most)) : 0;
    return columns;
}

ScreenLine Layout::header(const Columns& columns) const
{
    QString text = QStringLiteral("name").leftJustified(columns.label + columns.marks + 1) +
                   QStringLiteral("value").rightJustified(columns.value);
    if (columns.unit > 0)
        text += QLatin1Char(' ') + QStringLiteral("unit").leftJustified(columns.unit);
    text += QLatin1Char(' ') + QStringLiteral("age").rightJustified(AgeWidth);
    if (columns.note > 0)
        text += QStringLiteral("  history");
    return ScreenLine(clip(text, m_width), Style::Dim);
}

bool Layout::isMarked(const WatchedRow& row, int element) const
{
    const qint64 changed = row.changedMs.value(element);
    return changed > 0 && m_contents.nowMs - changed < MarkedMs;
}

ScreenLine Layout::elementLine(const WatchedRow& row, int element, const Columns& columns) const
{
    const bool good = row.value.quality == Quality::Good && element < row.value.elements.size();
    const Limit limit = good ? row.item.tag.limit(row.value.elements.at(element)) : Limit::Inside;
    const bool marked = good && isMarked(row, element);
    QString marks = QLatin1String(marked ? "*" : " ");
    if (columns.marks == 2)
        marks.prepend(QLatin1Char(limit == Limit::Low ? 'L' : limit == Limit::High ? 'H' : ' '));
    const Style style = !good                    ? Style::Dim
                        : limit != Limit::Inside ? Style::Alarm
                        : marked                 ? Style::Bold
                                                 : Style::Plain;
    ScreenLine line(nameText(row.elementLabel(element), columns) + QLatin1Char(' '));
    line.add(marks + toRight(valueOf(row, element), columns.value), style);
    if (columns.unit > 0)
        line.add(QLatin1Char(' ') + toLeft(row.item.tag.unit, columns.unit));
    line.add(QLatin1Char(' ') + ageText(row.value.ageMs).rightJustified(AgeWidth));
    if (columns.note == 0)
        return line;
    const QString note =
        good ? sparkline(row.histories.at(element).numbers(), columns.note, m_shape.utf8)
             : describe(row.value.quality);
    line.add(QStringLiteral("  ") + clip(note, columns.note), good ? Style::Plain : Style::Dim);
    return line;
}

ScreenLine Layout::dumpHead(const WatchedRow& row, const Columns& columns) const
{
    const bool good = row.value.quality == Quality::Good;
    const int valueWidth =
        columns.marks + columns.value + (columns.unit > 0 ? columns.unit + 1 : 0);
    ScreenLine line(nameText(row.item.label, columns) + QLatin1Char(' '));
    line.add(toRight(good ? QString() : QStringLiteral("?"), valueWidth), Style::Dim);
    line.add(QLatin1Char(' ') + ageText(row.value.ageMs).rightJustified(AgeWidth));
    if (columns.note > 0 && !good)
        line.add(QStringLiteral("  ") + clip(describe(row.value.quality), columns.note),
                 Style::Dim);
    return line;
}

ScreenLine Layout::dumpElements(const WatchedRow& row, const Place& place) const
{
    const bool good = row.value.quality == Quality::Good;
    ScreenLine line(QStringLiteral("  %1 ").arg(QStringLiteral("+%1").arg(place.first), -5));
    for (int i = place.first; i < qMin(place.first + place.count, int(row.value.elements.size()));
         ++i) {
        const bool marked = good && isMarked(row, i);
        line.add(QLatin1String(marked ? "*" : " ") + dumpText(row, i), !good    ? Style::Dim
                                                                       : marked ? Style::Bold
                                                                                : Style::Plain);
    }
    return line;
}

} // namespace

Drawing draw(const ScreenContents& contents, const ScreenShape& shape)
{
    return Layout(contents, shape).draw();
}

} // namespace s7200::panel
