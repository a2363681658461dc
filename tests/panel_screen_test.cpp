// What the panel's screen shows, what its keys mean, and what is said of links: pure text, without
// a terminal or a controller.

#include "panel/keyboard.h"
#include "panel/link_board.h"
#include "panel/screen.h"

#include <QtTest>

#include <clocale>
#include <cmath>

using namespace s7200;
using namespace s7200::panel;

namespace
{

constexpr qint64 Now = 1700000000000;
using Readings = QVector<QVector<quint32>>;

/// A row with one reading a second, the last one now.
WatchedRow row(const Tag& tag, const Readings& readings, Quality quality = Quality::Good,
               qint64 ageMs = 200)
{
    WatchedRow made({0, tag, tag.label()});
    for (int i = 0; i < int(readings.size()); ++i) {
        Value value;
        value.quality = Quality::Good;
        value.elements = readings.at(i);
        value.ageMs = ageMs;
        made.update(value, Now - 1000 * (int(readings.size()) - 1 - i), true);
    }
    made.value.quality = quality;
    return made;
}

Tag address(const QString& text)
{
    QString error;
    return TagTable().lookup(text, &error).value(0);
}

Tag fromFile(const QByteArray& line)
{
    QStringList errors;
    const QByteArray csv = "name,address,unit,scale,low,high\n" + line + '\n';
    return TagTable::parse(csv, "tags", nullptr, &errors)->tags().first();
}

/// One of each kind: changed, beyond its limit, lost, never read, two elements, a dump.
QVector<WatchedRow> plant()
{
    QVector<quint32> dump(20, 0xab);
    const Readings dumps = {dump, dump << 0xac};
    return {row(address("VW0"), {{5}, {6}, {7}, {7}}),
            row(fromFile("tank.level,VW10,mm,0.1,10,90"), {{950}, {955}}),
            row(address("VD4/float"), {{0x41ac0000}}, Quality::LinkDown, 75000),
            row(address("VW20"), {}, Quality::NeverRead),
            row(address("VW30x2"), {{1, 2}, {1, 3}}),
            row(address("VB40x20/hex"), {dumps[0], dumps[1].mid(1)})};
}

QString textOf(const Drawing& drawing)
{
    QString text;
    for (const ScreenLine& line : drawing.lines) {
        QString part = line.text();
        while (part.endsWith(' '))
            part.chop(1);
        text += part + '\n';
    }
    return text;
}

Drawing drawPlant(const QVector<WatchedRow>& rows, const ScreenShape& shape, int top = 0)
{
    ScreenContents contents;
    contents.status =
        QStringList{"1 of 2 links up | 12 cycles | 3.0 requests/s | 0 retries",
                    "no connection to b (10.0.0.2:102): connection refused; again in 3 s"};
    contents.rows = &rows;
    contents.nowMs = Now;
    contents.top = top;
    contents.message = "VW100=7: not written: no connection to b (10.0.0.2:102)";
    contents.typed = "VW1";
    return draw(contents, shape);
}

LinkStatus link(LinkState state, Cause cause = Cause::None, const QString& detail = QString())
{
    LinkStatus status;
    status.state = state;
    status.cause = cause;
    status.detail = detail;
    return status;
}

} // namespace

class PanelScreenTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // For the widths of letters. Under qemu there may be none of this byte order.
        m_knowsWidths = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
    }

    void wholeScreens()
    {
        const QVector<WatchedRow> rows = plant();
        const QString large =
            "1 of 2 links up | 12 cycles | 3.0 requests/s | 0 retries\n"
            "no connection to b (10.0.0.2:102): connection refused; again in 3 s\n"
            "name               value unit  age  history\n"
            "VW0          *         7      0.2s  \u2581\u2585\u2588\u2588\n"
            "tank.level  H*      95.5 mm   0.2s  \u2581\u2588\n"
            "VD4/float     ? was 21.5        1m  link down\n"
            "VW20                   ?         -  never read\n"
            "VW30                   1      0.2s  \u2581\u2581\n"
            "VW32         *         3      0.2s  \u2581\u2588\n"
            "VB40x20/hex                   0.2s\n"
            "  +0     AB AB AB AB AB AB AB AB AB AB AB AB AB AB AB AB\n"
            "  +16    AB AB AB*AC\n" +
            QString(10, '\n') +
            "VW100=7: not written: no connection to b (10.0.0.2:102)\n"
            "write> VW1                                                              q quits\n";
        QCOMPARE(textOf(drawPlant(rows, {80, 24, true, true, true})), large);
        // Small, without UTF-8, and scrolled further than there is.
        const QString small = "1 of 2 links up | 12 cycles\n"
                              "no connection to b (10.0.0.2:102):\n"
                              "connection refused; again in 3 s\n"
                              "VW32        *     3 0.2s  _#\n"
                              "VB40x20/hex         0.2s\n"
                              "  +0     AB AB AB AB AB AB AB AB\n"
                              "  +8     AB AB AB AB AB AB AB AB\n"
                              "VW100=7: not written: no connection to\n"
                              "b (10.0.0.2:102)\n"
                              "write> VW1           6-9 of 10  q quits\n";
        QCOMPARE(textOf(drawPlant(rows, {40, 10, false, false, true}, 5)), small);
        ScreenContents contents;
        contents.rows = &rows;
        contents.readOnly = true;
        contents.typed = "q";
        QVERIFY(textOf(draw(contents, {40, 10})).contains("\nread-only> q "));
    }

    void moreTroublesThanRoom()
    {
        const QVector<WatchedRow> rows = plant();
        ScreenContents contents;
        contents.status = QStringList{"0 of 4 links up", "a: off", "b: off", "c: off", "d: off"};
        contents.rows = &rows;
        QVERIFY(textOf(draw(contents, {40, 10})).contains("up\n4 in trouble: a: off\n"));
        QVERIFY(textOf(draw(contents, {40, 16})).contains("b: off\nand 2 more in trouble\n"));
    }

    // Names that are too long are cut where they differ, and take the room of the history first.
    void longNames()
    {
        const QVector<WatchedRow> rows = {
            row(fromFile("hall1.press13.temperature.actual,VW0,\u00b0C"), {{1}}),
            row(fromFile("hall1.press13.pressure.actual,VW2,bar"), {{1}}),
            row(fromFile("hall1.press13.zone.temperature,VW4x2,\u00b0C"), {{1, 1}})};
        ScreenContents contents;
        contents.rows = &rows;
        QSet<QString> names;
        for (const ScreenLine& line : draw(contents, {40, 10}).lines.mid(1, 4))
            names.insert(line.text().left(20));
        QCOMPARE(int(names.size()), 4);
        QVERIFY(textOf(draw(contents, {60, 10})).contains("hall1.press13.temperature.actual "));
    }

    // Whatever the size, no line is too wide, none is missing, and the scrolling stays inside.
    void everySize()
    {
        const QVector<WatchedRow> rows = plant()
                                         << row(fromFile("漢字のタグ名漢字,VW2,度,,,"), {{1}});
        for (int columns = 1; columns <= 100; columns += 3) {
            for (int lines = 1; lines <= 30; ++lines) {
                const Drawing drawing = drawPlant(rows, {columns, lines, true, true, true}, 99);
                QCOMPARE(int(drawing.lines.size()), lines);
                QVERIFY(drawing.cursorColumn < qMax(2, columns));
                QVERIFY(drawing.top <= qMax(0, drawing.total - drawing.page));
                for (const ScreenLine& line : drawing.lines)
                    QVERIFY(cellsOf(line.text(), true) < qMax(2, columns));
            }
        }
    }

    // Letters of two cells and of none: what stands in columns stays in them.
    void wideLetters()
    {
        if (!m_knowsWidths)
            QSKIP("no UTF-8 locale");
        const QString wide = "漢字";
        const QString accented = "e\u0301";
        QCOMPARE(cellsOf(wide + accented + "\U0001F6A8", true), 7);
        QCOMPARE(cellsOf(wide + accented + "\U0001F6A8", false), 5);
        const QVector<WatchedRow> rows = {row(fromFile("漢字のタグ名,VW2,℃,,,"), {{1}}),
                                          row(fromFile("e\u0301e\u0301,VW4,度,,,"), {{2}}),
                                          row(address("VW6"), {{3}})};
        ScreenContents contents;
        contents.rows = &rows;
        contents.message = QString("字").repeated(30);
        contents.typed = QString("字").repeated(9) + "e\u0301";
        const QString screen = "\n"
                               "漢字のタグ名       1 ℃    0.2s  \u2581\n"
                               "e\u0301e\u0301                 2 度   0.2s  \u2581\n"
                               "VW6                3      0.2s  \u2581\n\n\n\n" +
                               QString("字").repeated(19) + '\n' + QString("字").repeated(11) +
                               '\n' + "write> " + contents.typed + "      q quits\n";
        const Drawing drawing = draw(contents, {40, 10});
        QCOMPARE(textOf(drawing), screen);
        QCOMPARE(drawing.cursorColumn, 26);
        QCOMPARE(clipped(wide + wide, 4, true), QString("漢\u2026"));
        QCOMPARE(beginning(accented + accented, 1, true), accented);
        QCOMPARE(ending(accented + wide, 4, true), wide);
        QCOMPARE(ending(accented + wide, 3, true), QString("字"));
    }

    // Colour says nothing that a letter does not say as well, and may be switched off.
    void styles()
    {
        const QVector<WatchedRow> rows = plant();
        const Drawing drawing = drawPlant(rows, {80, 24, true, true, true});
        const ScreenLine& alarm = drawing.lines.at(4);
        QVERIFY(alarm.forTerminal(true).contains("\x1b[1;31mH*"));
        QVERIFY(!alarm.forTerminal(false).contains("31m"));
        QVERIFY(drawing.lines.at(3).forTerminal(true).contains("\x1b[1m *"));
        QVERIFY(!drawing.lines.at(7).forTerminal(true).contains("\x1b"));
        // A change is marked for two seconds only.
        QVERIFY(textOf(drawPlant({row(address("VW0"), {{5}, {6}, {6}, {6}})}, {80, 24}))
                    .contains("VW0       6"));
    }

    void agesAndSparklines()
    {
        const QPair<qint64, const char*> ages[] = {
            {-1, "-"},     {0, "0.0s"},      {9999, "9.9s"},  {10000, "10s"},    {59999, "59s"},
            {60000, "1m"}, {3599999, "59m"}, {3600000, "1h"}, {86399999, "23h"}, {86400000, "1d"}};
        for (const auto& age : ages)
            QCOMPARE(ageText(age.first), QString(age.second));
        const QVector<float> numbers = {99, -1, 0, std::nanf(""), 1, 0.5};
        QCOMPARE(sparkline(numbers, 5, false), QString("_+ #*"));
        QCOMPARE(sparkline({3, 3}, 9, false), QString("__"));
        QCOMPARE(clipped("a\x1b[2Jb", 4, false), QString("a?[~"));
    }

    void keys()
    {
        Keyboard keyboard;
        QString seen;
        const auto feed = [&](const QByteArray& bytes) {
            seen.clear();
            for (const Key& key : keyboard.feed(bytes)) {
                seen += QString("L.RudUDHE-").at(key.kind);
                if (key.kind == Key::Line)
                    seen += '(' + key.line + ')';
            }
            return seen;
        };
        QCOMPARE(feed("\x1b[A\x1bOB\x1b[5~ \x1b[6~\x1b[1~\x1b[F"), QString("udUDDHE"));
        // A sequence in pieces, one that means nothing, and ESC alone.
        feed("\x1b");
        feed("[");
        QCOMPARE(feed("A"), QString("u"));
        QCOMPARE(feed("\x1b[1;5C\x1b[200~"), QString());
        QCOMPARE(feed("\x1b\x1b[A"), QString("u"));
        // The key ESC clears what is typed, and takes nothing of what is typed then.
        QCOMPARE(feed("SM\x1bVW"), QString("----"));
        QCOMPARE(keyboard.typed(), QString("VW"));
        feed("\x1b");
        QVERIFY(keyboard.isInSequence());
        keyboard.endEscape();
        QCOMPARE(feed("[x\x1b\r"), QString("--L()"));
        QCOMPARE(feed("VW1 0\x7f\x7f"
                      "00 \r"),
                 QString("----------L(VW100)"));
        QCOMPARE(feed("\x04"), QString("."));
        QCOMPARE(feed("x\x04y\x15"), QString("---"));
        // A letter of two bytes, cut.
        QCOMPARE(feed("\xc3"), QString());
        QCOMPARE(feed("\xa4\n"), QString("-L(\u00e4)"));
        // The last letter goes whole: two code units, or two letters that are one.
        QCOMPARE(feed("a\U0001F6A8\177be\u0301\177\n"), QString("-------L(ab)"));
        QCOMPARE(keyboard.typed(), QString());
    }

    // A trouble is said once however often it comes; staying down is said, and the rest counted.
    void linksThatComeAndGo()
    {
        LinkBoard board;
        board.add(0, -1, "press");
        QStringList said;
        qint64 now = 0;
        const auto hear = [&](LinkState state, Cause cause = Cause::None) {
            const QString text = board.hear(0, link(state, cause, "why"), now);
            if (!text.isEmpty())
                said.append(text);
            now += 100;
        };
        for (int i = 0; i < 100; ++i) {
            hear(LinkState::Handshake);
            hear(LinkState::Up);
            hear(LinkState::Waiting, Cause::TimedOut);
        }
        QCOMPARE(said, QStringList({"link up: press", "link down: press: why", "link up: press"}));
        hear(LinkState::Waiting, Cause::NoConnection);
        QCOMPARE(said.last(), QString("link down: no connection to press: why"));
        hear(LinkState::Up);
        QCOMPARE(said.last(), QString("link up: press"));
        hear(LinkState::Down, Cause::TimedOut);
        QCOMPARE(said.last(), QString("link up: press"));
        QCOMPARE(board.tick(now), QStringList());
        now += 5000;
        QCOMPARE(board.tick(now), QStringList({"link down: press: why (100 times)"}));
        QCOMPARE(board.tick(now), QStringList());
        hear(LinkState::Up);
        hear(LinkState::Down, Cause::TimedOut);
        QCOMPARE(board.finish(),
                 QStringList({"press: link down 1 time more: " + describe(Cause::TimedOut)}));
        hear(LinkState::Up);
        hear(LinkState::Waiting, Cause::TimedOut); // is down from here, whatever comes next
        now += 3000;
        hear(LinkState::Waiting, Cause::NoConnection);
        now += 2000;
        QVERIFY(board.tick(now).join("").startsWith("link down: no connection to press"));
    }

    // What a refused variable costs is over before anybody looks.
    void linksThatRefusalsCost()
    {
        LinkBoard board;
        board.add(0, -1, "press");
        QStringList said;
        for (int i = 0; i < 9; ++i) {
            said += board.hear(0, link(LinkState::Waiting, Cause::Refused, "no such object"), i);
            said += board.hear(0, link(LinkState::Up), i);
        }
        said.removeAll(QString());
        QCOMPARE(said,
                 QStringList({"link down: refused by press: no such object", "link up: press"}));
        QCOMPARE(board.tick(100000), QStringList());
        QCOMPARE(board.finish(), QStringList({"press: link down 8 times more: refused"}));
    }

    void linesOfLinks()
    {
        LinkBoard board;
        board.add(0, -1, "a");
        QCOMPARE(board.screenLines(0), QStringList({"connecting to a ..."}));
        board.add(1, -1, "b");
        QVERIFY(!board.isHopeless());
        LinkStatus waiting = link(LinkState::Waiting, Cause::NoConnection, "refused");
        waiting.nextAttemptMs = 2500;
        board.hear(0, waiting, 1000);
        QVERIFY(!board.isHopeless());
        board.hear(1, link(LinkState::Waiting, Cause::TimedOut, "silent"), 1000);
        QVERIFY(!board.isHopeless());
        board.hear(1, link(LinkState::Down, Cause::TimedOut, "silent"), 1000);
        QVERIFY(board.isHopeless());
        QCOMPARE(board.screenLines(1200),
                 QStringList({"0 of 2 links up", "no connection to a: refused; again in 3 s",
                              "b: silent"}));
        board.hear(1, link(LinkState::Up), 1000);
        QVERIFY(!board.isHopeless() && board.mayRead(1) && !board.mayRead(0));
        QCOMPARE(board.troubles(), QStringList({"no connection to a: refused"}));
        QCOMPARE(board.screenLines(1200).value(0), QString("1 of 2 links up"));
    }

    // Words go with the blanks behind them.
    void wordsGo()
    {
        Keyboard keyboard;
        keyboard.feed("VW1 VW2 ");
        for (const char* left : {"VW1 ", "", ""}) {
            keyboard.feed("\x17");
            QCOMPARE(keyboard.typed(), QString(left));
        }
    }

private:
    bool m_knowsWidths = false;
};

QTEST_GUILESS_MAIN(PanelScreenTest)
#include "panel_screen_test.moc"
