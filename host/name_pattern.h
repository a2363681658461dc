#ifndef HOST_NAME_PATTERN_H
#define HOST_NAME_PATTERN_H

#include <QRegularExpression>
#include <QString>

namespace s7200
{

// Patterns of names with * and ?.

inline bool isPattern(const QString& name)
{
    return name.contains(QLatin1Char('*')) || name.contains(QLatin1Char('?'));
}

/// What matches whole names, in upper and lower case.
inline QRegularExpression expressionOf(const QString& pattern)
{
    QString expression = QRegularExpression::escape(pattern);
    expression.replace(QStringLiteral("\\*"), QStringLiteral(".*"));
    expression.replace(QStringLiteral("\\?"), QStringLiteral("."));
    return QRegularExpression(QRegularExpression::anchoredPattern(expression),
                              QRegularExpression::CaseInsensitiveOption);
}

} // namespace s7200

#endif
