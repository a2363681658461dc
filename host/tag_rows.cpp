#include "host/tag_rows.h"

#include "host/element_text.h"

#include <QHash>
#include <QRegularExpression>

#include <algorithm>

namespace s7200
{

namespace
{

constexpr int LongestName = 100;
// What has a meaning of its own where a name may stand.
const char* const NotInNames = "*?=:<>!,";

enum Column {
    NameColumn,
    ControllerColumn,
    AddressColumn,
    FormatColumn,
    UnitColumn,
    ScaleColumn,
    OffsetColumn,
    DecimalsColumn,
    DeadBandColumn,
    LowColumn,
    HighColumn,
    CommentColumn,
    ValueColumn
};

QVector<CsvColumn> tagColumns(bool withValues)
{
    QVector<CsvColumn> columns = {{"name", !withValues}, {"controller", false}, {"address", true},
                                  {"format", false},     {"unit", false},       {"scale", false},
                                  {"offset", false},     {"decimals", false},   {"deadband", false},
                                  {"low", false},        {"high", false},       {"comment", false}};
    if (withValues)
        columns.append({"value", true});
    return columns;
}

/// One row of a tag file.
class RowReader
{
public:
    RowReader(const CsvRow& row, const QStringList* controllers, bool withValues, Faults* faults)
        : m_row(row), m_controllers(controllers), m_withValues(withValues), m_faults(faults)
    {
    }

    TagValue read()
    {
        m_tag.line = m_row.line;
        readName();
        readController();
        readAddress();
        m_tag.unit = field(UnitColumn);
        if (hasHidden(m_tag.unit))
            fault(QStringLiteral("%1 cannot be a unit").arg(quoted(m_tag.unit)));
        m_tag.comment = field(CommentColumn);
        readScaling();
        m_tag.deadBand = decimal(DeadBandColumn);
        m_tag.low = decimal(LowColumn);
        m_tag.high = decimal(HighColumn);
        if (m_tag.deadBand && m_tag.deadBand->digits < 0)
            fault(QStringLiteral("a dead band is 0 or more, not %1").arg(m_tag.deadBand->text()));
        if (m_tag.low && m_tag.high && compare(*m_tag.low, *m_tag.high) > 0)
            fault(QStringLiteral("the low limit %1 is above the high limit %2")
                      .arg(m_tag.low->text(), m_tag.high->text()));
        if (m_withValues && m_hasAddress)
            readValue();
        return {m_tag, m_elements};
    }

private:
    const QString& field(Column column) const
    {
        return m_row.fields.at(column);
    }

    void fault(const QString& text)
    {
        m_faults->add(m_row.line, text);
    }

    void readName()
    {
        m_tag.name = field(NameColumn);
        const bool bad = std::any_of(m_tag.name.begin(), m_tag.name.end(),
                                     [](QChar c) { return QLatin1String(NotInNames).contains(c); });
        if (m_tag.name.isEmpty() && m_withValues)
            return;
        if (m_tag.name.isEmpty())
            fault(QStringLiteral("the name is missing"));
        else if (bad || hasHidden(m_tag.name) || m_tag.name.size() > LongestName)
            fault(QStringLiteral("%1 cannot be a name; it is one line of at most %2 characters, "
                                 "none of them invisible, and none of them %3")
                      .arg(quoted(m_tag.name))
                      .arg(LongestName)
                      .arg(QLatin1String(NotInNames)));
        else
            return;
        m_tag.name.clear();
    }

    void readController()
    {
        m_tag.controller = field(ControllerColumn);
        if (!m_controllers || m_tag.controller.isEmpty())
            return;
        for (const QString& name : *m_controllers) {
            if (name.compare(m_tag.controller, Qt::CaseInsensitive) == 0) {
                m_tag.controller = name;
                return;
            }
        }
        fault(QStringLiteral("no controller is called %1").arg(quoted(m_tag.controller)));
    }

    void readAddress()
    {
        const QString& format = field(FormatColumn);
        const QString& address = field(AddressColumn);
        QString error;
        if (address.isEmpty())
            error = QStringLiteral("the address is missing");
        else
            parseVariable(format.isEmpty() ? address : address + QLatin1Char('/') + format,
                          &m_tag.variable, &error);
        m_hasAddress = error.isEmpty();
        if (!m_hasAddress)
            fault(error);
    }

    /// True for "1,000", which is a thousand where commas separate fields, and 1 elsewhere.
    bool isAmbiguous(const QString& text)
    {
        static const QRegularExpression grouped(QStringLiteral("^[+-]?[1-9][0-9]{0,2},[0-9]{3}$"));
        if (m_row.separator != ',' || !grouped.match(text).hasMatch())
            return false;
        fault(QStringLiteral("%1 may be %2 or %3; write that")
                  .arg(quoted(text), QString(text).remove(QLatin1Char(',')),
                       QString(text).replace(QLatin1Char(','), QLatin1Char('.'))));
        return true;
    }

    std::optional<Decimal> decimal(Column column)
    {
        const QString& text = field(column);
        if (isAmbiguous(text))
            return std::nullopt;
        const std::optional<Decimal> number = Decimal::parse(text);
        if (!number && !text.isEmpty())
            fault(
                QStringLiteral("%1 is a number of at most %2 digits, %3 of them behind the point, "
                               "not %4")
                    .arg(QLatin1String(tagColumns(false).at(column).name))
                    .arg(Decimal::MostDigits)
                    .arg(Decimal::MostPlaces)
                    .arg(quoted(text)));
        return number;
    }

    void readScaling()
    {
        const Decimal scale = decimal(ScaleColumn).value_or(Decimal{1, 0});
        const Decimal offset = decimal(OffsetColumn).value_or(Decimal());
        QString error;
        const std::optional<Scaling> scaling = Scaling::of(scale, offset, &error);
        if (!scaling)
            fault(error);
        m_tag.scaling = scaling.value_or(Scaling());
        const QString& decimals = field(DecimalsColumn);
        bool ok = false;
        if (!decimals.isEmpty())
            m_tag.decimals = decimals.toInt(&ok);
        if (!decimals.isEmpty() &&
            (!ok || m_tag.decimals < 0 || m_tag.decimals > Decimal::MostPlaces))
            fault(QStringLiteral("decimals is 0 to %1, not %2")
                      .arg(Decimal::MostPlaces)
                      .arg(quoted(decimals)));
        if (!m_hasAddress || (m_tag.scaling.isIdentity() && m_tag.decimals < 0))
            return;
        const Variable& variable = m_tag.variable;
        if (variable.area->width == Width::Bit)
            fault(QStringLiteral("a bit takes no scale, offset or decimals"));
        else if (variable.format == Format::Hex || variable.format == Format::Binary)
            fault(QStringLiteral("scale, offset and decimals go with the formats unsigned, signed "
                                 "and float, not with %1")
                      .arg(formatName(variable.format)));
    }

    void readValue()
    {
        QString text = field(ValueColumn);
        if (m_tag.variable.repeat == 1 && isAmbiguous(text))
            return;
        // Of several elements a comma separates them; of one it can only be a decimal comma.
        if (m_tag.variable.repeat == 1 && text.count(QLatin1Char(',')) == 1)
            text.replace(QLatin1Char(','), QLatin1Char('.'));
        QString error;
        if (!m_tag.parseValues(text, &m_elements, &error))
            fault(error);
    }

    const CsvRow& m_row;
    const QStringList* m_controllers;
    const bool m_withValues;
    Faults* m_faults;
    Tag m_tag;
    QVector<quint32> m_elements;
    bool m_hasAddress = false;
};

/// What a row is known by: the tag's name, or the variable if it has none.
QString keyOf(const Tag& tag)
{
    const QString name = tag.name.isEmpty() ? tag.variable.label() : tag.name;
    return tag.controller.toLower() + QLatin1Char(':') + name.toLower();
}

} // namespace

QVector<TagValue> readTagRows(const QByteArray& csv, const QStringList* controllers,
                              bool withValues, Faults* faults)
{
    QVector<TagValue> rows;
    QHash<QString, int> lines;
    for (const CsvRow& csvRow : readCsv(csv, tagColumns(withValues), faults)) {
        const int before = faults->count();
        const TagValue row = RowReader(csvRow, controllers, withValues, faults).read();
        if (faults->count() > before)
            continue;
        int& line = lines[keyOf(row.tag)];
        if (line != 0)
            faults->add(csvRow.line, QStringLiteral("%1 is already that of line %2")
                                         .arg(quoted(row.tag.label()))
                                         .arg(line));
        line = csvRow.line;
        rows.append(row);
    }
    return rows;
}

} // namespace s7200
