#ifndef TESTS_TEXT_TABLE_H
#define TESTS_TEXT_TABLE_H

#include <QtTest>

// Tables of test cases as text.

constexpr int LongestMessage = 250;

/// Cases as text, "GIVEN -> WANTED", one to a line or several with | between them: compares what
/// `body` makes of each. A message needs only to name what is wanted, on one short line.
enum class Match { Whole, Message };
inline void check(const QByteArray& table, QString (*body)(const QString& given),
                  Match match = Match::Whole)
{
    for (const QString& text : QString::fromUtf8(table).replace('\n', '|').split('|')) {
        const QString given = text.section("->", 0, 0).trimmed();
        const QString wanted = text.section("->", 1).trimmed();
        if (text.trimmed().isEmpty())
            continue;
        const QString got = body(given);
        const bool named = got.contains(wanted) && got.isEmpty() == wanted.isEmpty() &&
                           !got.contains('\n') && got.size() < LongestMessage;
        QVERIFY2(match == Match::Whole ? got == wanted : named, qPrintable(given + ": " + got));
    }
}

#endif
