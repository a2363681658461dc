#ifndef TESTS_PARSED_H
#define TESTS_PARSED_H

#include <s7200host/variable.h>

#include <QStringList>

namespace s7200
{

inline Variable parsed(const QString& text)
{
    Variable variable;
    QString error;
    if (!parseVariable(text, &variable, &error))
        qFatal("%s", qPrintable(error));
    return variable;
}

inline QVector<Variable> variablesOf(const QStringList& texts)
{
    QVector<Variable> variables;
    for (const QString& text : texts)
        variables.append(parsed(text));
    return variables;
}

} // namespace s7200

#endif
