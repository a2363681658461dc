#include <s7200host/tag.h>

#include "host/csv.h"
#include "host/element_text.h"

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
    CommentColumn
};

const QVector<CsvColumn>& tagColumns()
{
    static const QVector<CsvColumn> columns = {
        {"name", true},      {"controller", false}, {"address", true}, {"format", false},
        {"unit", false},     {"scale", false},      {"offset", false}, {"decimals", false},
        {"deadband", false}, {"low", false},        {"high", false},   {"comment", false}};
    return columns;
}

bool hasControl(const QString& text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x20; });
}

/// One row of a tag file.
class RowReader
{
public:
    RowReader(const CsvRow& row, const QString& file, const QStringList* controllers,
              QStringList* errors)
        : m_row(row), m_file(file), m_controllers(controllers), m_errors(errors)
    {
    }

    Tag read()
    {
        readName();
        readController();
        readAddress();
        m_tag.unit = field(UnitColumn);
        if (hasControl(m_tag.unit))
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
        return m_tag;
    }

private:
    const QString& field(Column column) const
    {
        return m_row.fields.at(column);
    }

    void fault(const QString& text)
    {
        m_errors->append(lineError(m_file, m_row.line, text));
    }

    void readName()
    {
        m_tag.name = field(NameColumn);
        const bool bad = std::any_of(m_tag.name.begin(), m_tag.name.end(),
                                     [](QChar c) { return QLatin1String(NotInNames).contains(c); });
        if (m_tag.name.isEmpty())
            fault(QStringLiteral("the name is missing"));
        else if (bad || hasControl(m_tag.name) || m_tag.name.size() > LongestName)
            fault(QStringLiteral("%1 cannot be a name; it is one line of at most %2 characters, "
                                 "none of them %3")
                      .arg(quoted(m_tag.name))
                      .arg(LongestName)
                      .arg(QLatin1String(NotInNames)));
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

    std::optional<Decimal> decimal(Column column)
    {
        const QString& text = field(column);
        const std::optional<Decimal> number = Decimal::parse(text);
        if (!number && !text.isEmpty())
            fault(QStringLiteral("%1 is a number, of at most %2 digits behind the point, not %3")
                      .arg(QLatin1String(tagColumns().at(column).name))
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
        bool ok = true;
        if (!decimals.isEmpty())
            m_tag.decimals = decimals.toInt(&ok);
        if (!ok || m_tag.decimals > Decimal::MostPlaces || m_tag.decimals < -1)
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

    const CsvRow& m_row;
    const QString& m_file;
    const QStringList* m_controllers;
    QStringList* m_errors;
    Tag m_tag;
    bool m_hasAddress = false;
};

/// A pattern with * and ? for whole names.
QRegularExpression globOf(const QString& pattern)
{
    QString expression = QRegularExpression::escape(pattern);
    expression.replace(QStringLiteral("\\*"), QStringLiteral(".*"));
    expression.replace(QStringLiteral("\\?"), QStringLiteral("."));
    return QRegularExpression(QRegularExpression::anchoredPattern(expression),
                              QRegularExpression::CaseInsensitiveOption);
}

} // namespace

std::optional<TagTable> TagTable::load(const QString& file, const QStringList* controllers,
                                       QStringList* errors)
{
    const std::optional<QByteArray> csv = readWholeFile(file, errors);
    return csv ? parse(*csv, file, controllers, errors) : std::nullopt;
}

std::optional<TagTable> TagTable::parse(const QByteArray& csv, const QString& file,
                                        const QStringList* controllers, QStringList* errors)
{
    QStringList faults;
    TagTable table;
    QVector<int> lines;
    for (const CsvRow& row : readCsv(csv, file, tagColumns(), &faults)) {
        const Tag tag = RowReader(row, file, controllers, &faults).read();
        QVector<int>& sameName = table.m_byName[tag.name.toLower()];
        for (const int index : std::as_const(sameName)) {
            const QString& other = table.m_tags.at(index).controller;
            if (!tag.name.isEmpty() && other.compare(tag.controller, Qt::CaseInsensitive) == 0)
                faults.append(lineError(file, row.line,
                                        QStringLiteral("%1 is already the name of line %2")
                                            .arg(quoted(tag.name))
                                            .arg(lines.at(index))));
        }
        sameName.append(int(table.m_tags.size()));
        table.m_tags.append(tag);
        lines.append(row.line);
    }
    *errors += faults;
    return faults.isEmpty() ? std::optional<TagTable>(table) : std::nullopt;
}

const QVector<Tag>& TagTable::tags() const
{
    return m_tags;
}

QVector<Tag> TagTable::named(const QString& name, const QString* controller) const
{
    QVector<Tag> found;
    const auto take = [&](const Tag& tag) {
        if (!controller || tag.controller.compare(*controller, Qt::CaseInsensitive) == 0)
            found.append(tag);
    };
    for (const int index : m_byName.value(name.toLower()))
        take(m_tags.at(index));
    if (!found.isEmpty() || (!name.contains(QLatin1Char('*')) && !name.contains(QLatin1Char('?'))))
        return found;
    const QRegularExpression glob = globOf(name);
    for (const Tag& tag : m_tags) {
        if (glob.match(tag.name).hasMatch())
            take(tag);
    }
    return found;
}

QVector<Tag> TagTable::lookup(const QString& text, QString* error) const
{
    const QString wanted = text.trimmed();
    const auto colon = wanted.indexOf(QLatin1Char(':'));
    const QString controller = wanted.left(std::max<int>(0, int(colon))).trimmed();
    const QString name = wanted.mid(colon + 1).trimmed();
    const QVector<Tag> found = named(name, colon < 0 ? nullptr : &controller);
    if (!found.isEmpty())
        return found;
    Tag tag;
    tag.controller = controller;
    if (parseVariable(name, &tag.variable, error))
        return {tag};
    if (!m_tags.isEmpty())
        *error = QStringLiteral("%1 is no tag; as a variable, %2").arg(quoted(wanted), *error);
    return {};
}

bool TagTable::parseAssignment(const QString& text, Tag* tag, QVector<quint32>* elements,
                               QString* error) const
{
    const auto equals = text.indexOf(QLatin1Char('='));
    if (equals < 0) {
        *error = quoted(text) + QStringLiteral(": a write is VARIABLE=VALUE, as in VW100=7");
        return false;
    }
    const QString what = text.left(equals).trimmed();
    const QString values = text.mid(equals + 1);
    const QVector<Tag> found = lookup(what, error);
    if (found.size() > 1)
        *error = QStringLiteral("%1 means %2 tags, of which only one can be written: %3, %4 ...")
                     .arg(quoted(what))
                     .arg(found.size())
                     .arg(labelsOf(found).at(0), labelsOf(found).at(1));
    if (found.size() != 1)
        return false;
    *tag = found.first();
    Variable& variable = tag->variable;
    if (tag->scaling.isIdentity() && tag->decimals < 0) {
        QStringList parts = values.split(QLatin1Char(','));
        for (QString& part : parts)
            part = part.trimmed();
        variable.format = formatOfTexts(variable, parts);
    }
    return tag->parseValues(values, elements, error);
}

} // namespace s7200
