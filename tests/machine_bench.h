#ifndef TESTS_MACHINE_BENCH_H
#define TESTS_MACHINE_BENCH_H

#include "host/link_machine.h"
#include "tests/parsed.h"
#include "tests/s7_bytes.h"
#include "wire/s7_fields.h"

#include <QtTest>

namespace s7200
{

constexpr Micros Ms = 1000;

/// One machine with its driver. Events go in as text, and orders come out as text:
///
///   opened, failed, closed       of the TCP connection; with "@3" of station 3
///   ok [HEX]                     a good reply to the last frame, its payload that or zeros
///   refuse, reject, mismatch, bytes HEX  other replies to it: by item, by job, ...
///   +MS                          time passes, with the wakes that were ordered
///   stall MS                     time passes at once
///   watch V..., read V, write V=N
///   flood KB                     zeros that nobody has asked for
///   then EVENT [| EVENT]         that is what the next slot or completion does, or an event loop
///                                in it
///
///   show, ages, age, late        the watched values, their ages in ms, that of what was read last,
///                                how many cycles were late
///
/// A frame is shown as "connect", "setup", "get V100+2" or "put V100+1" (area, byte, bytes read or
/// words written); what is told as "up", "waiting: CAUSE", "VW0 good 5", "cycle", "done: CAUSE".
class Bench : private LinkOrders
{
public:
    explicit Bench(const ControllerSettings& settings) : m_settings(settings)
    {
        QString error;
        const QString file = findDriver(QString(), &error);
        if (file.isEmpty() || !m_driver.load(file, &error))
            qFatal("%s", qPrintable(error));
        m_machine.reset(new LinkMachine(m_driver, settings, *this, 100));
    }

    QString happen(const QString& event)
    {
        m_told.clear();
        act(event);
        if (m_wake == m_now) // news of a request comes with the next turn
            m_machine->timePassed(moment());
        return m_told.join("; ");
    }

    const LinkMachine& machine() const
    {
        return *m_machine;
    }
    const Result& lastResult() const
    {
        return m_result;
    }
    LinkStatus link() const
    {
        return m_machine->link(2, m_now);
    }
    /// The day has begun with the clock that never jumps.
    Moment moment() const
    {
        return {m_now, m_now / Ms};
    }
    qint64 msToWake() const
    {
        return (m_wake - m_now) / Ms;
    }

private:
    void act(const QString& event)
    {
        if (event.isEmpty())
            return;
        const QString verb = event.section(' ', 0, 0).section('@', 0, 0);
        const QString rest = event.section(' ', 1);
        const int station =
            event.contains('@') ? event.section('@', 1).section(' ', 0, 0).toInt() : 2;
        if (verb == "start")
            m_machine->start(moment());
        else if (verb == "stop")
            m_machine->stop();
        else if (verb == "opened")
            m_machine->opened(station, moment());
        else if (verb == "failed")
            m_machine->openFailed(station, "x", moment());
        else if (verb == "closed")
            m_machine->closed(station, moment());
        else if (verb == "watch")
            watch(rest);
        else if (verb == "read" || verb == "write")
            request(rest);
        else if (verb == "then")
            m_then = rest;
        else if (verb == "flood")
            m_machine->received(station, QByteArray(rest.toInt() * 1024, '\0'), moment());
        else if (verb == "show")
            tellAll();
        else if (verb == "ages")
            tellAges();
        else if (verb == "age")
            m_told << QString::number(m_result.value.ageMs);
        else if (verb == "late")
            m_told << QString::number(m_machine->statistics().lateCycles);
        else if (verb == "stall")
            stall(rest.toInt() * Ms);
        else if (verb.startsWith('+'))
            passTime(m_now + verb.mid(1).toInt() * Ms);
        else
            m_machine->received(event.contains('@') ? station : m_lastStation,
                                reply(verb, fromHex(rest.toLatin1())), moment());
    }

    void actInSlot()
    {
        for (const QString& event : std::exchange(m_then, QString()).split(" | "))
            act(event);
    }

    void watch(const QString& texts)
    {
        QVector<Variable> variables;
        for (const QString& text : texts.split(' ', Qt::SkipEmptyParts))
            variables.append(parsed(text));
        m_machine->watch(variables, moment());
    }

    void stall(Micros span)
    {
        m_now += span;
        m_machine->timePassed(moment());
    }

    void passTime(Micros until)
    {
        while (m_wake <= until) {
            m_now = std::max(m_now, m_wake);
            m_wake = std::numeric_limits<Micros>::max();
            m_machine->timePassed(moment());
        }
        m_now = until;
    }

    void tellAll()
    {
        for (int i = 0; i < int(m_machine->watched().size()); ++i)
            tellValues({i});
    }

    void tellAges()
    {
        for (int i = 0; i < int(m_machine->watched().size()); ++i)
            m_told << QString::number(m_machine->value(i, m_now).ageMs);
    }

    static QString texts(const QVector<quint32>& elements)
    {
        constexpr int Most = 10;
        if (elements.size() > Most)
            return QString(" %1 x %2").arg(elements.size()).arg(elements.first());
        QString texts;
        for (quint32 element : elements)
            texts += QString(" %1").arg(element);
        return texts;
    }

    void request(const QString& text)
    {
        RequestPtr request(new Request);
        QString error;
        if (!text.contains('='))
            request->variable = parsed(text);
        else if (text.endsWith('=')) // zeros, as many as it takes
            request->values.resize((request->variable = parsed(text.chopped(1))).repeat);
        else if (!parseAssignment(text, &request->variable, &request->values, &error))
            qFatal("%s", qPrintable(error));
        request->station = m_machine->stationOf(request->variable);
        request->done = [this](const Result& result) {
            m_result = result;
            QString line = result.value.quality == Quality::Stale ? "done, stale" : "done";
            line += texts(result.value.elements);
            if (!result)
                line += ": " + describe(result.cause) +
                        (result.wasSent && result.cause != Cause::Refused ? ", sent" : "");
            m_told << line;
            actInSlot();
        };
        m_machine->request(std::move(request), moment());
    }

    QByteArray reply(const QString& verb, const QByteArray& bytes) const
    {
        const int reference = wire::wordAt(m_lastFrame, wire::PduReferenceOffset);
        const bool write = wire::byteAt(m_lastFrame, wire::JobFunctionOffset) == 5;
        if (verb == "bytes")
            return bytes;
        if (verb == "refuse") {
            QByteArray refusal = write ? writeReply(reference) : readReply(reference, "", 0);
            refusal[wire::ItemCodeOffset] = 5;
            return refusal;
        }
        if (verb == "reject")
            return writeReply(reference).replace(wire::ErrorClassOffset, 1, "\x81");
        if (verb == "mismatch")
            return readReply(reference + 9, QByteArray(2, '\0'));
        if (verb != "ok")
            qFatal("event %s", qPrintable(verb));
        if (shown(m_lastFrame) == "connect")
            return connectionConfirm();
        if (shown(m_lastFrame) == "setup")
            return setupReply();
        const int area = wire::byteAt(m_lastFrame, wire::JobAreaOffset);
        const int elementSize = area == 0x1F ? 5 : area == 0x1E ? 3 : area == 0x06 ? 2 : 1;
        const int size = wire::wordAt(m_lastFrame, wire::JobItemLengthOffset) * elementSize;
        return write ? writeReply(reference)
                     : readReply(reference, bytes.leftJustified(size, '\0'));
    }

    static QString shown(const QByteArray& frame)
    {
        if (wire::tpduType(frame) == wire::Tpdu::ConnectionRequest)
            return "connect";
        const int function = wire::byteAt(frame, wire::JobFunctionOffset);
        if (function == 0xF0)
            return "setup";
        const int area = wire::byteAt(frame, wire::JobAreaOffset);
        const int address = wire::byteAt(frame, wire::JobAddressOffset + 1) << 8 |
                            wire::byteAt(frame, wire::JobAddressOffset + 2);
        return QString("%1 %2%3+%4")
            .arg(function == 5 ? "put" : "get", area == 0x84   ? "V"
                                                : area == 0x83 ? "M"
                                                : area == 0x05 ? "SM"
                                                : area == 0x06 ? "AI"
                                                : area == 0x1E ? "C"
                                                               : "T")
            .arg(area == 0x1F || area == 0x1E ? address : address / 8)
            .arg(wire::wordAt(frame, wire::JobItemLengthOffset));
    }

    QString suffix(int station) const
    {
        return m_settings.stations.isEmpty() ? QString() : QString("@%1").arg(station);
    }

    void open(int station) override
    {
        m_told << "open" + suffix(station);
    }
    void close(int station) override
    {
        m_told << "close" + suffix(station);
    }
    void send(int station, const QByteArray& frame) override
    {
        m_lastStation = station;
        m_lastFrame = frame;
        m_told << shown(frame) + suffix(station);
    }
    void wakeAt(Micros time) override
    {
        m_wake = time;
    }
    void tellLink(const LinkStatus& status) override
    {
        const bool trouble = status.cause != Cause::None;
        m_told << describe(status.state) + suffix(status.station) +
                      (trouble ? ": " + describe(status.cause) : QString());
    }
    void tellValues(const QVector<int>& indexes) override
    {
        for (int index : indexes) {
            const Value value = m_machine->value(index, m_now);
            m_told << m_machine->watched().at(index).label() + ' ' + describe(value.quality) +
                          texts(value.elements);
        }
        actInSlot();
    }
    void tellCycle() override
    {
        m_told << "cycle";
    }
    void tellPdu(int station, int bytes) override
    {
        m_told << QString("pdu %1").arg(bytes) + suffix(station);
    }

    const ControllerSettings m_settings;
    DriverCopy m_driver;
    std::unique_ptr<LinkMachine> m_machine;
    QStringList m_told;
    Result m_result;
    QString m_then;
    Micros m_now = 1000 * Ms;
    Micros m_wake = 0;
    QByteArray m_lastFrame;
    int m_lastStation = 2;
};

inline ControllerSettings settingsOf(const QString& options)
{
    ControllerSettings settings;
    settings.retries = options.contains("twice") ? 2 : options.contains("retry") ? 1 : 0;
    settings.timeoutMs = options.contains("patient") ? 100000 : 1000;
    settings.intervalMs = options.contains("no interval") ? 0
                          : options.contains("slow")      ? 5000
                                                          : 500;
    settings.probe = !options.contains("no probe");
    settings.blockLimit = options.contains("limit 1") ? 1 : 0;
    if (options.contains("stations"))
        settings.stations = {{2, {}}, {3, {}}};
    return settings;
}

/// As far as the first request: what is watched or asked for, or nothing.
inline QByteArray begun(const QByteArray& event)
{
    return "start -> open; connecting\n" + (event.isEmpty() ? "" : event + " ->\n") +
           "opened -> connect; handshake\n"
           "ok -> setup\n";
}

/// Up, with VW0 and VW4 read as one block in the first cycle.
const QByteArray Up = begun("watch VW0 VW4") + "ok -> get V0+6; up\n"
                                               "ok 000100000005 -> VW0 good 1; VW4 good 5; cycle\n";

/// Connected once more, at the first attempt.
const QByteArray Again = "+200 -> open\n"
                         "opened -> connect\n"
                         "ok -> setup\n";

/// A row of a table of scripts: each line is an event and what is ordered and told in answer.
inline void add(const char* name, const char* options, const QByteArray& script)
{
    QTest::newRow(name) << QString(options) << QString(script);
}

inline void scriptColumns()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("script");
}

inline void runScript()
{
    QFETCH(QString, options);
    QFETCH(QString, script);
    Bench bench(settingsOf(options));
    QString found; // all of it, to be compared and copied
    bool same = true;
    for (const QString& line : script.split('\n', Qt::SkipEmptyParts)) {
        const QString event = line.section("->", 0, 0).trimmed();
        const QString told = bench.happen(event);
        const bool expected = told == line.section("->", 1).trimmed();
        found += '\n' + event + " -> " + told + (same && !expected ? "   <--" : "");
        same = same && expected;
    }
    QVERIFY2(same, qPrintable(found));
}

} // namespace s7200

#endif
