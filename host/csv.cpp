#include "host/csv.h"

#include <s7200host/variable.h>

#include <QFile>

#include <csv.h>

#include <algorithm>

namespace s7200
{

namespace
{

constexpr qint64 ReadSize = 64 << 10;

/// Rows of fields, through the library's callbacks.
class Parser
{
public:
    Parser(char delimiter, Faults* faults) : m_delimiter(delimiter), m_faults(faults)
    {
        begin();
    }
    ~Parser()
    {
        csv_free(&m_parser);
    }
    Q_DISABLE_COPY(Parser)

    /// One line of the file with its end, so that rows know theirs.
    void feed(const QByteArray& line)
    {
        ++m_line;
        if (!m_open && line.trimmed().isEmpty())
            return;
        if (!m_open)
            m_row.line = m_line;
        m_row.separator = m_delimiter;
        m_open = true;
        const auto length = std::size_t(line.size());
        if (csv_parse(&m_parser, line.constData(), length, takeField, takeRow, this) != length)
            restart();
    }

    QVector<CsvRow> finish()
    {
        if (csv_fini(&m_parser, takeField, takeRow, this) != 0)
            restart();
        return m_rows;
    }

private:
    void begin()
    {
        csv_init(&m_parser, CSV_STRICT | CSV_STRICT_FINI);
        csv_set_delim(&m_parser, static_cast<unsigned char>(m_delimiter));
    }

    /// The next line begins a row again.
    void restart()
    {
        m_faults->add(m_row.line, QStringLiteral("the quotes do not match; a field with a quote in "
                                                 "it is \"written \"\"so\"\"\""));
        csv_free(&m_parser);
        begin();
        m_row = CsvRow();
        m_open = false;
    }

    static void takeField(void* data, std::size_t length, void* self)
    {
        auto* parser = static_cast<Parser*>(self);
        const QByteArray bytes(static_cast<const char*>(data), int(length));
        const QString field = QString::fromUtf8(bytes);
        if (field.contains(QChar::ReplacementCharacter) && !bytes.contains("\xEF\xBF\xBD"))
            parser->m_faults->add(parser->m_row.line,
                                  QStringLiteral("%1 is not UTF-8; save the table as \"CSV UTF-8\"")
                                      .arg(quoted(field)));
        parser->m_row.fields.append(field.trimmed());
    }

    static void takeRow(int /*terminator*/, void* self)
    {
        auto* parser = static_cast<Parser*>(self);
        const QStringList& fields = parser->m_row.fields;
        if (std::any_of(fields.begin(), fields.end(),
                        [](const QString& f) { return !f.isEmpty(); }))
            parser->m_rows.append(parser->m_row);
        parser->m_row = CsvRow();
        parser->m_open = false;
    }

    csv_parser m_parser;
    const char m_delimiter;
    Faults* m_faults;
    int m_line = 0;
    bool m_open = false; ///< Within a row, whose quoted field may go on over several lines.
    CsvRow m_row;
    QVector<CsvRow> m_rows;
};

QString plainName(const QString& name)
{
    QString plain;
    for (const QChar c : name.toLower()) {
        if (!c.isSpace() && c != QLatin1Char('_') && c != QLatin1Char('-'))
            plain += c;
    }
    return plain;
}

/// For each field of the header the index of its column; -1: none, which only an empty field is.
QVector<int> columnsOf(const CsvRow& header, const QVector<CsvColumn>& columns, Faults* faults)
{
    QStringList names;
    QStringList plainNames;
    for (const CsvColumn& column : columns) {
        names.append(QLatin1String(column.name));
        plainNames.append(plainName(names.last()));
    }
    const QString all = names.join(QStringLiteral(", "));
    QVector<int> indexes;
    for (const QString& field : header.fields) {
        const int index = int(plainNames.indexOf(plainName(field)));
        if (index < 0 && !field.isEmpty())
            faults->add(
                header.line,
                QStringLiteral("unknown column %1; the columns are %2").arg(quoted(field), all));
        if (index >= 0 && indexes.contains(index))
            faults->add(header.line,
                        QStringLiteral("column %1 is there twice").arg(names.at(index)));
        indexes.append(index);
    }
    for (int i = 0; i < int(columns.size()); ++i) {
        if (columns.at(i).required && !indexes.contains(i))
            faults->add(header.line,
                        QStringLiteral("column %1 is missing; the first line names the "
                                       "columns: %2")
                            .arg(names.at(i), all));
    }
    return indexes;
}

/// Of the header line, outside quotes.
char delimiterOf(const QByteArray& csv)
{
    bool inQuotes = false;
    for (const char c : csv) {
        if (c == '"')
            inQuotes = !inQuotes;
        else if (!inQuotes && (c == ';' || c == ',' || c == '\t'))
            return c;
        else if (!inQuotes && c == '\n')
            break;
    }
    return ',';
}

/// A line "sep=;" before the header, with which spreadsheets tell each other the separator.
bool beginsWithSeparator(const QByteArray& csv)
{
    return csv.left(4).toLower() == "sep=" && QByteArray(";,\t").contains(csv.mid(4, 1)) &&
           (csv.mid(5, 1) == "\n" || csv.mid(5, 2) == "\r\n");
}

QVector<CsvRow> rawRows(QByteArray csv, Faults* faults)
{
    if (csv.startsWith("\xEF\xBB\xBF"))
        csv.remove(0, 3);
    const bool isTold = beginsWithSeparator(csv);
    Parser parser(isTold ? csv.at(4) : delimiterOf(csv), faults);
    if (isTold)
        csv.remove(0, csv.indexOf('\n')); // an empty line is left
    for (int from = 0; from < int(csv.size());) {
        const int end = int(csv.indexOf('\n', from));
        const int next = end < 0 ? int(csv.size()) : end + 1;
        parser.feed(csv.mid(from, next - from));
        from = next;
    }
    return parser.finish();
}

} // namespace

Faults::Faults(const QString& file) : m_file(file) {}

void Faults::add(int line, const QString& text)
{
    ++m_count;
    const auto before = [](int newer, const Fault& fault) { return newer < fault.line; };
    m_faults.insert(std::upper_bound(m_faults.begin(), m_faults.end(), line, before), {line, text});
    if (m_faults.size() > MostKept)
        m_faults.removeLast();
}

void Faults::addFile(const QString& text)
{
    add(0, text);
}

int Faults::count() const
{
    return m_count;
}

bool Faults::report(QStringList* errors) const
{
    for (const Fault& fault : m_faults) {
        const QString place =
            fault.line == 0 ? m_file : QStringLiteral("%1 line %2").arg(m_file).arg(fault.line);
        errors->append(place + QStringLiteral(": ") + fault.text);
    }
    if (m_count > MostKept)
        errors->append(QStringLiteral("%1: %2 more faults").arg(m_file).arg(m_count - MostKept));
    return m_count == 0;
}

QStringList firstOf(QStringList texts)
{
    const int more = int(texts.size()) - Faults::MostKept;
    if (more <= 0)
        return texts;
    texts.erase(texts.begin() + Faults::MostKept, texts.end());
    return texts << QStringLiteral("and %1 more such").arg(more);
}

QVector<CsvRow> readCsv(const QByteArray& csv, const QVector<CsvColumn>& columns, Faults* faults)
{
    QVector<CsvRow> rows = rawRows(csv, faults);
    if (rows.isEmpty()) {
        faults->addFile(QStringLiteral("the header line is missing"));
        return {};
    }
    const int before = faults->count();
    const QVector<int> indexes = columnsOf(rows.takeFirst(), columns, faults);
    if (faults->count() > before)
        return {}; // under a wrong header every row would look wrong
    for (CsvRow& row : rows) {
        QStringList fields;
        for (int i = 0; i < int(columns.size()); ++i)
            fields.append(QString());
        for (int i = 0; i < int(row.fields.size()); ++i) {
            const int index = indexes.value(i, -1);
            if (index >= 0)
                fields[index] = row.fields.at(i);
            else if (i >= int(indexes.size()) && !row.fields.at(i).isEmpty())
                faults->add(row.line, QStringLiteral("%1 stands in no column; quote a field that "
                                                     "holds a separator")
                                          .arg(quoted(row.fields.at(i))));
        }
        row.fields = fields;
    }
    return rows;
}

std::optional<QByteArray> readWholeFile(const QString& file, QStringList* errors)
{
    QFile input(file);
    QString error;
    if (input.open(QIODevice::ReadOnly)) {
        QByteArray contents;
        QByteArray more = input.read(ReadSize);
        for (; !more.isEmpty() && contents.size() <= LargestFile; more = input.read(ReadSize))
            contents += more;
        if (input.error() == QFileDevice::NoError && contents.size() <= LargestFile)
            return contents;
        if (contents.size() > LargestFile)
            error = QStringLiteral("more than %1 MiB; a file of this kind is never so large")
                        .arg(LargestFile >> 20);
    }
    errors->append(
        QStringLiteral("%1: %2").arg(file, error.isEmpty() ? input.errorString() : error));
    return std::nullopt;
}

QByteArray csvLine(const QStringList& fields)
{
    QByteArray line;
    for (const QString& field : fields) {
        QByteArray bytes = field.toUtf8();
        const bool plain = std::none_of(bytes.begin(), bytes.end(), [](char c) {
            return c == ',' || c == ';' || c == '"' || c == '\n' || c == '\r' || c == '\t';
        });
        if (!plain) {
            QByteArray quotedField(2 * bytes.size() + 2, '\0');
            const std::size_t size = csv_write(quotedField.data(), std::size_t(quotedField.size()),
                                               bytes.constData(), std::size_t(bytes.size()));
            bytes = quotedField.left(int(size));
        }
        line += bytes + ',';
    }
    line.chop(1);
    return line + '\n';
}

} // namespace s7200
