// What people type and what spreadsheets write: one line is a variable or an assignment, several
// are a file of tags, values or controllers.

#include "fuzz/support.h"
#include <s7200host/controller_file.h>
#include <s7200host/tag.h>
#include <s7200host/value_file.h>

using namespace s7200;

namespace
{

void requireMessage(const QString& error)
{
    require(!error.isEmpty() && error.size() < 1000 && !error.contains(QLatin1Char('\n')),
            "what is wrong is said in a line");
}

void requireVariable(const Variable& variable)
{
    require(variable.area && variable.repeat >= 1 && variable.bit >= 0 && variable.bit <= 7 &&
                variable.station >= -1 && variable.station <= 255,
            "a variable has an area, elements, a bit of a byte, and a station or none");
    require(variable.firstUnit() >= 0 && variable.firstUnit() < variable.endUnit() &&
                variable.endUnit() <= variable.area->size,
            "a variable lies inside its area");
    Variable again;
    QString error;
    require(parseVariable(variable.text(), &again, &error) && again.text() == variable.text() &&
                again.endUnit() == variable.endUnit(),
            "its text names the same one");
}

int bitsOf(const Variable& variable)
{
    switch (variable.area->width) {
    case Width::Bit:
        return 1;
    case Width::Byte:
        return 8;
    case Width::DoubleWord:
        return 32;
    default:
        return 16;
    }
}

void requireElements(const Tag& tag, const QVector<quint32>& elements)
{
    require(tag.variable.area->writable && elements.size() == tag.variable.repeat,
            "what can be written has one value for each element");
    for (const quint32 element : elements)
        require(quint64(element) >> bitsOf(tag.variable) == 0, "a value fits its element");
    QVector<quint32> again;
    QString error;
    require(tag.parseValues(tag.exactText(elements), &again, &error) && again == elements,
            "values read back as the same bits");
}

/// Any elements that the variable can hold.
QVector<quint32> someElements(const Variable& variable)
{
    const int bits = variable.area->width == Width::Number ? 15 : bitsOf(variable);
    QVector<quint32> elements;
    for (int i = 0; i < variable.repeat; ++i)
        elements.append(quint32((quint64(variable.address + i) * 2654435761U) >> (32 - bits)) &
                        quint32((quint64(1) << bits) - 1));
    return elements;
}

void readLine(const QString& text)
{
    static const TagTable tags =
        TagTable::parse(
            "name,address,format,scale,offset,decimals\na,VW0,s,0.1,5,\nb,VD4,f,0.5,,2\n"
            "c,VD8,u,-0.001,1,\nd,VB7x3,,,,1\n",
            QString(), nullptr, nullptr)
            .value();
    Variable variable;
    Tag tag;
    QVector<quint32> elements;
    QString error;
    if (parseVariable(text, &variable, &error))
        requireVariable(variable);
    else
        requireMessage(error);
    if (tags.parseAssignment(text, &tag, &elements, &error))
        requireElements(tag, elements);
    else
        requireMessage(error);
}

void requireFaults(bool good, const QStringList& errors)
{
    require(good == errors.isEmpty(), "a file is good or has faults");
    for (const QString& error : errors)
        requireMessage(error);
}

void readFile(const QByteArray& file)
{
    QStringList errors;
    const auto table = TagTable::parse(file, QString(), nullptr, &errors);
    requireFaults(table.has_value(), errors);
    QVector<TagValue> values;
    for (const Tag& tag : table ? table->tags() : QVector<Tag>()) {
        requireVariable(tag.variable);
        if (tag.variable.area->writable)
            values.append({tag, someElements(tag.variable)});
    }
    for (const TagValue& value : std::as_const(values))
        requireElements(value.tag, value.elements);
    const QByteArray saved = valueFile(values);
    errors.clear();
    const auto back = parseValueFile(saved, QString(), nullptr, &errors);
    require(back && back->size() == values.size() && valueFile(*back) == saved,
            "a set of values is read back as it was saved");

    requireFaults(parseValueFile(file, QString(), nullptr, &errors).has_value(), errors);
    errors.clear();
    requireFaults(parseControllers(file, QString(), ControllerSettings(), &errors).has_value(),
                  errors);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    if (bytes.contains('\n'))
        readFile(bytes);
    else
        readLine(QString::fromUtf8(bytes));
    return 0;
}
