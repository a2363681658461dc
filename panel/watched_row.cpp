#include "panel/watched_row.h"

#include <cmath>
#include <limits>

namespace s7200::panel
{

namespace
{

int bytesOf(Width width)
{
    switch (width) {
    case Width::Word:
        return 2;
    case Width::DoubleWord:
        return 4;
    default:
        return 1; // also timers and counters, which are numbered
    }
}

struct OperatorText {
    const char* text;
    Condition::Operator comparison;
};

// The longer first: "<=" begins with "<".
constexpr OperatorText OperatorTexts[] = {
    {"<=", Condition::AtMost},  {">=", Condition::AtLeast}, {"==", Condition::Equal},
    {"!=", Condition::Unequal}, {"<", Condition::Less},     {">", Condition::More},
    {"=", Condition::Equal},
};

/// The first operator in the text, whose place is `at`; null: there is none.
const OperatorText* findOperator(const QString& text, int* at)
{
    for (*at = 0; *at < int(text.size()); ++*at) {
        for (const OperatorText& row : OperatorTexts) {
            if (text.mid(*at, 2).startsWith(QLatin1String(row.text)))
                return &row;
        }
    }
    return nullptr;
}

bool parseNumber(const QString& text, double* number)
{
    bool ok = false;
    *number = text.toDouble(&ok);
    if (!ok && text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        *number = text.toUInt(&ok, 16);
    if (!ok && text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0)
        ok = (*number = 1) != 0;
    if (!ok && text.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0)
        ok = (*number = 0) == 0;
    return ok && std::isfinite(*number);
}

} // namespace

void History::add(float number)
{
    if (m_numbers.size() >= Most)
        m_numbers.removeFirst();
    m_numbers.append(number);
}

const QVector<float>& History::numbers() const
{
    return m_numbers;
}

WatchedRow::WatchedRow(const Item& watched) : item(watched), changedMs(watched.tag.variable.repeat)
{
    if (!isDump())
        histories.resize(watched.tag.variable.repeat);
}

bool WatchedRow::isDump() const
{
    const Variable& variable = item.tag.variable;
    return variable.repeat > 1 && variable.area != nullptr &&
           (variable.area->width == Width::Bit || variable.format == Format::Hex ||
            variable.format == Format::Binary);
}

void WatchedRow::update(const Value& now, qint64 nowMs, bool sample)
{
    const bool compares = value.elements.size() == now.elements.size();
    for (int i = 0; compares && i < int(qMin(now.elements.size(), changedMs.size())); ++i) {
        if (now.elements.at(i) != value.elements.at(i))
            changedMs[i] = nowMs;
    }
    value = now;
    for (int i = 0; sample && i < int(histories.size()); ++i) {
        const bool known = now.quality == Quality::Good && i < int(now.elements.size());
        histories[i].add(known ? float(item.tag.number(now.elements.at(i)))
                               : std::numeric_limits<float>::quiet_NaN());
    }
}

QString WatchedRow::elementLabel(int index) const
{
    if (item.tag.variable.repeat == 1)
        return item.label;
    if (!item.tag.name.isEmpty())
        return QStringLiteral("%1[%2]").arg(item.label).arg(index);
    Variable element = item.tag.variable;
    element.repeat = 1;
    if (element.area->width == Width::Bit && !element.area->numbered) {
        element.address += (element.bit + index) / 8;
        element.bit = (element.bit + index) % 8;
    } else {
        element.address += index * (element.area->numbered ? 1 : bytesOf(element.area->width));
    }
    // What else the label says, such as the controller, stays.
    return QString(item.label).replace(item.tag.variable.label(), element.label());
}

int rowOf(const Item& item, const QVector<Item>& items)
{
    for (int i = 0; i < int(items.size()); ++i) {
        const Item& other = items.at(i);
        if (other.controller == item.controller && other.tag.name == item.tag.name &&
            other.tag.address() == item.tag.address())
            return i;
    }
    return -1;
}

bool Condition::parse(const QString& text, CommandLine* line, Condition* condition, QString* error)
{
    int at = 0;
    const OperatorText* found = findOperator(text, &at);
    const QString number = found ? text.mid(at + int(qstrlen(found->text))).trimmed() : QString();
    if (!found || at == 0 || !parseNumber(number, &condition->number)) {
        *error =
            QStringLiteral("--until takes VARIABLE, one of < <= > >= == != and a number, not ") +
            quoted(text);
        return false;
    }
    condition->comparison = found->comparison;
    QVector<Item> items;
    if (!line->resolve({text.left(at).trimmed()}, &items, error))
        return false;
    if (items.size() != 1 || items.first().tag.variable.repeat != 1) {
        *error = QStringLiteral("--until compares one value with a number, and %1 is several")
                     .arg(quoted(text.left(at).trimmed()));
        return false;
    }
    condition->item = items.first();
    return true;
}

bool Condition::holds(const Value& value) const
{
    if (value.quality != Quality::Good || value.elements.isEmpty())
        return false;
    const double now = item.tag.number(value.elements.first());
    switch (comparison) {
    case Less:
        return now < number;
    case AtMost:
        return now <= number;
    case Equal:
        return now == number;
    case Unequal:
        return !std::isnan(now) && now != number;
    case AtLeast:
        return now >= number;
    case More:
        return now > number;
    }
    return false;
}

} // namespace s7200::panel
