#ifndef PANEL_WATCHED_ROW_H
#define PANEL_WATCHED_ROW_H

#include "panel/command_line.h"

#include <s7200host/value.h>

#include <QVector>

namespace s7200::panel
{

/// The last readings of one element, the newest last. NaN: not read at that time.
class History
{
public:
    static constexpr int Most = 60;

    void add(float number);
    const QVector<float>& numbers() const;

private:
    QVector<float> m_numbers;
};

/// An item that is watched, and what is known of it.
struct WatchedRow {
    explicit WatchedRow(const Item& watched = Item());

    Item item;
    Value value;
    QVector<qint64> changedMs;  ///< When each element was last seen to change; 0: never.
    QVector<History> histories; ///< Of each element; none for a dump.

    /// Several elements side by side rather than one below the other: bits, and what is shown in
    /// hexadecimal or binary.
    bool isDump() const;

    /// Takes a new state; `sample` adds it to the histories. Times are milliseconds since 1970.
    void update(const Value& now, qint64 nowMs, bool sample);

    /// "VW102", the second element of VW100x4; "speed[1]", that of a tag.
    QString elementLabel(int index) const;
};

/// The index of the same variable of the same controller in the same format; -1: none.
int rowOf(const Item& item, const QVector<Item>& items);

/// A condition of --until: a comparison of one value with a number.
struct Condition {
    enum Operator { Less, AtMost, Equal, Unequal, AtLeast, More };

    Item item;
    Operator comparison = Equal;
    double number = 0;

    /// Reads "VW100>50", "press1.speed<=21.5" or "M0.3==1". False with a one-line `error`.
    static bool parse(const QString& text, CommandLine* line, Condition* condition, QString* error);

    /// False for a value that is not good.
    bool holds(const Value& value) const;
};

} // namespace s7200::panel

#endif
