// What the panel's screen shows, and what its keys mean: pure text, without a terminal.

#include "panel/keyboard.h"
#include "panel/link_board.h"
#include "panel/screen.h"

#include <QtTest>

#include <cmath>

using namespace s7200;
using namespace s7200::panel;

namespace
{

constexpr qint64 Now = 1700000000000;

WatchedRow row(const QString& address, const QVector<QVector<quint32>>& readings,
               Quality quality = Quality::Good, qint64 ageMs = 200)
{
    Item item;
    QString error;
    const QVector<Tag> tags = TagTable().lookup(address, &error);
    if (tags.size() != 1)
        qFatal("%s", qPrintable(error));
    item.tag = tags.first();
    item.label = item.tag.label();
    WatchedRow made(item);
    Value value;
    value.quality = quality;
    for (int i = 0; i < int(readings.size()); ++i) {
        value.elements = readings.at(i);
        value.ageMs = ageMs;
        made.update(value, Now - 1000 * (int(readings.size()) - 1 - i), true);
    }
    made.value.quality = quality;
    return made;
}

WatchedRow tag(const QString& csv, const QVector<QVector<quint32>>& readings)
{
    QStringList errors;
    const auto table = TagTable::parse(
        "name,address,unit,scale,low,high\n" + csv.toUtf8() + "\n", "t", nullptr, &errors);
    if (!table)
        qFatal("%s", qPrintable(errors.join(' ')));
    WatchedRow made = row(table->tags().first().variable.label(), readings);
    made.item.tag = table->tags().first();
    made.item.label = made.item.tag.name;
    return made;
}

QStringList texts(const Drawing& drawing)
{
    QStringList lines;
    for (const ScreenLine& line : drawing.lines) {
        QString text = line.text();
        while (text.endsWith(' '))
            text.chop(1);
        lines.append(text);
    }
    return lines;
}

QVector<WatchedRow> plant()
{
    return {row("VW0", {{5}, {6}, {7}}),
            tag("tank.level,VW10,mm,0.1,10,90", {{950}, {955}}),
            row("VD4/float", {{0x41ac0000}}, Quality::LinkDown, 75000),
            row("VW20", {}, Quality::NeverRead),
            row("VW30x2", {{1, 2}, {1, 3}}),
            row("VB40x20/hex", {QVector<quint32>(20, 0xab), QVector<quint32>(19, 0xab) + QVector<quint32>{0xac}})};
}

} // namespace

class PanelScreenTest : public QObject
{
    Q_OBJECT

private slots:
    void screens_data()
    {
        QTest::addColumn<int>("columns");
        QTest::addColumn<int>("lines");
        QTest::addColumn<int>("top");
        QTest::addColumn<bool>("utf8");
        QTest::addColumn<QStringList>("status");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QStringList>("expected");
    }

    void screens()
    {
        for (QSize size : {QSize(80,24), QSize(40,10), QSize(20,5)}) {
            const auto rows = plant();
            ScreenContents c; c.rows = &rows; c.nowMs = Now; c.typed="VW1"; c.message="VW100=7: written, and a rather long text that has to be wrapped somewhere in between";
            c.status = QStringList{"1 of 2 links up | 12 cycles | 3.0 requests/s | 0 retries", "no connection to press2 (127.0.0.1:10200): Connection refused; again in 3 s"};
            ScreenShape shape; shape.columns=size.width(); shape.lines=size.height();
            Drawing d = draw(c, shape);
            for (auto l : texts(d)) fprintf(stderr, "|%s\n", qPrintable(l));
            fprintf(stderr, "%d %d %d %d %d\n", int(d.lines.size()), d.cursorColumn, d.top, d.page, d.total);
        }
    }
};

QTEST_GUILESS_MAIN(PanelScreenTest)
#include "panel_screen_test.moc"
