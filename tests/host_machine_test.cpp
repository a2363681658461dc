// The state machine behind a controller, driven by tables of events with a real driver, but without
// socket, thread or clock: each line of a script is an event and what the machine orders and tells
// in answer.

#include "host/link_machine.h"
#include "s7_bytes.h"
#include "wire/s7_fields.h"

#include <QtTest>

using namespace s7200;

namespace
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
///   then EVENT                   that is what the next slot or completion does
///
///   show                         the watched values
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
        m_machine.reset(new LinkMachine(m_driver, settings, *this, 1));
    }

    QString happen(const QString& event)
    {
        m_told.clear();
        act(event);
        if (m_wake == m_now) // news of a request comes with the next turn
            m_machine->timePassed(m_now);
        return m_told.join("; ");
    }

    const LinkMachine& machine() const
    {
        return *m_machine;
    }
    qint64 msToWake() const
    {
        return (m_wake - m_now) / Ms;
    }

private:
    void act(const QString& event)
    {
        const QString verb = event.section(' ', 0, 0).section('@', 0, 0);
        const QString rest = event.section(' ', 1);
        const int station = event.contains('@') ? event.section('@', 1).toInt() : 2;
        if (verb == "start")
            m_machine->start(m_now);
        else if (verb == "stop")
            m_machine->stop();
        else if (verb == "opened")
            m_machine->opened(station, m_now);
        else if (verb == "failed")
            m_machine->openFailed(station, "x", m_now);
        else if (verb == "closed")
            m_machine->closed(station, m_now);
        else if (verb == "watch")
            watch(rest);
        else if (verb == "read" || verb == "write")
            request(rest);
        else if (verb == "then")
            m_then = rest;
        else if (verb == "flood")
            m_machine->received(station, QByteArray(rest.toInt() * 1024, '\0'), m_now);
        else if (verb == "show")
            tellAll();
        else if (verb == "stall")
            m_machine->timePassed(m_now += rest.toInt() * Ms);
        else if (verb.startsWith('+'))
            passTime(m_now + verb.mid(1).toInt() * Ms);
        else
            m_machine->received(m_lastStation, reply(verb, fromHex(rest.toLatin1())), m_now);
    }

    void actInSlot()
    {
        const QString event = std::exchange(m_then, QString());
        if (!event.isEmpty())
            act(event);
    }

    static Variable parsed(const QString& text)
    {
        Variable variable;
        QString error;
        if (!parseVariable(text, &variable, &error))
            qFatal("%s", qPrintable(error));
        return variable;
    }

    void watch(const QString& texts)
    {
        QVector<Variable> variables;
        for (const QString& text : texts.split(' ', Qt::SkipEmptyParts))
            variables.append(parsed(text));
        m_machine->watch(variables, m_now);
    }

    void passTime(Micros until)
    {
        while (m_wake <= until) {
            m_now = std::max(m_now, m_wake);
            m_wake = std::numeric_limits<Micros>::max();
            m_machine->timePassed(m_now);
        }
        m_now = until;
    }

    void tellAll()
    {
        for (int i = 0; i < int(m_machine->watched().size()); ++i)
            tellValues({i});
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
            QString line = "done";
            for (quint32 element : result.value.elements)
                line += QString(" %1").arg(element);
            m_told << (result ? line : "done: " + describe(result.cause));
            actInSlot();
        };
        m_machine->request(std::move(request), m_now);
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
        const int elementSize = area == 0x1F ? 5 : area == 0x06 ? 2 : 1;
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
                                                               : "T")
            .arg(area == 0x1F ? address : address / 8)
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
            QString line = m_machine->watched().at(index).label() + ' ' + describe(value.quality);
            for (quint32 element : value.elements)
                line += QString(" %1").arg(element);
            m_told << line;
        }
        actInSlot();
    }
    void tellCycle() override
    {
        m_told << "cycle";
    }

    const ControllerSettings m_settings;
    DriverCopy m_driver;
    std::unique_ptr<LinkMachine> m_machine;
    QStringList m_told;
    QString m_then;
    Micros m_now = 1000 * Ms;
    Micros m_wake = 0;
    QByteArray m_lastFrame;
    int m_lastStation = 2;
};

ControllerSettings settingsOf(const QString& options)
{
    ControllerSettings settings;
    settings.retries = options.contains("twice") ? 2 : options.contains("retry") ? 1 : 0;
    settings.timeoutMs = options.contains("patient") ? 100000 : 1000;
    settings.intervalMs = options.contains("no interval") ? 0 : 500;
    settings.probe = !options.contains("no probe");
    settings.blockLimit = options.contains("limit 1") ? 1 : 0;
    if (options.contains("stations"))
        settings.stations = {{2, {}}, {3, {}}};
    return settings;
}

/// Up, with VW0 and VW4 read as one block in the first cycle.
const QByteArray Up = "start           -> open; connecting\n"
                      "watch VW0 VW4   -> \n"
                      "opened          -> connect; handshake\n"
                      "ok              -> setup\n"
                      "ok              -> get V0+6; up\n"
                      "ok 000100000005 -> VW0 good 1; VW4 good 5; cycle\n";

} // namespace

class HostMachineTest : public QObject
{
    Q_OBJECT

private slots:
    void script_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("script");
        const auto add = [](const char* name, const char* options, const QByteArray& script) {
            QTest::newRow(name) << QString(options) << QString(script);
        };
        add("paced, and told when it has changed", "",
            Up + "+499            -> \n"
                 "+1              -> get V0+6\n"
                 "ok 000100000005 -> cycle\n"
                 "+500            -> get V0+6\n"
                 "ok 000200000005 -> VW0 good 2; cycle\n");
        add("no burst after a stall", "",
            Up + "stall 5200      -> get V0+6; VW0 stale 1; VW4 stale 5\n"
                 "ok 000100000005 -> VW0 good 1; VW4 good 5; cycle\n"
                 "+499            -> \n"
                 "+1              -> get V0+6\n");
        add("stale while the link counts as up, and what came of a reply dropped", "retry",
            Up + "+500            -> get V0+6\n"
                 "bytes 0300      -> \n"
                 "+999            -> \n"
                 "+1              -> get V0+6; VW0 stale 1; VW4 stale 5\n"
                 "ok 000100000005 -> get V0+6; VW0 good 1; VW4 good 5; cycle\n");
        add("stale in time, although nothing else happens then", "patient",
            Up + "+500            -> get V0+6\n"
                 "+999            -> \n"
                 "+1              -> VW0 stale 1; VW4 stale 5\n");
        add("stale in time within the first cycle", "patient",
            "start           -> open; connecting\n"
            "watch VW0 VW400 -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> get V0+2; up\n"
            "ok              -> get V400+2; VW0 good 0\n"
            "+1499           -> \n"
            "+1              -> VW0 stale 0\n");
        add("not stale when it takes long to read everything", "patient",
            "start           -> open; connecting\n"
            "watch VW0 VW400 VW800 -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> get V0+2; up\n"
            "+900            -> \n"
            "ok              -> get V400+2; VW0 good 0\n"
            "+900            -> \n"
            "ok              -> get V800+2; VW400 good 0\n"
            "+900            -> \n"
            "ok              -> get V0+2; VW800 good 0; cycle\n");
        add("time-outs in one cycle do not make values live longer", "twice",
            Up + "+500            -> get V0+6\n"
                 "+1000           -> get V0+6; VW0 stale 1; VW4 stale 5\n"
                 "ok 000100000005 -> get V0+6; VW0 good 1; VW4 good 5; cycle\n"
                 "+1000           -> get V0+6\n"
                 "+499            -> \n"
                 "+1              -> VW0 stale 1; VW4 stale 5\n");
        add("no interval: one after the other, and nothing stale meanwhile", "no interval",
            Up + "+1              -> get V0+6\n"
                 "+900            -> \n"
                 "ok 000100000005 -> get V0+6; cycle\n");
        add("no interval and nothing to do", "no interval no probe",
            "start           -> open; connecting\n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> up; cycle\n"
            "+999            -> \n"
            "+1              -> cycle\n");
        add("a peer that floods", "",
            Up + "flood 255       -> \n"
                 "+500            -> get V0+6\n"
                 "ok 000100000005 -> cycle\n"
                 "flood 255       -> \n"
                 "flood 1         -> close; close; down: not S7; VW0 link down 1; "
                 "VW4 link down 5\n");
        add("a completion that stops leaves no other out", "",
            "start           -> open; connecting\n"
            "read VW0        -> \n"
            "read VW2        -> \n"
            "then stop       -> \n"
            "failed          -> close; down: no connection; done: no connection; close; "
            "done: no connection; stopped: no connection\n");
        add("no news of the old list after a slot has set a new one", "",
            Up + "then watch VW8  -> \n"
                 "+500            -> get V0+6\n"
                 "ok 000200000005 -> VW0 good 2; get V8+2\n"
                 "ok              -> VW8 good 0; cycle\n");
        add("what came before a frame is not its reply", "",
            Up + "bytes 0300      -> \n"
                 "+500            -> get V0+6\n"
                 "ok 000900000005 -> VW0 good 9; cycle\n");
        add("a reply to another request is no silence", "",
            Up + "+500            -> get V0+6\n"
                 "mismatch        -> \n"
                 "+1000           -> close; down: wrong reference; VW0 link down 1; "
                 "VW4 link down 5\n");
        add("written: stale until read back", "",
            Up + "write VW4=7     -> put V4+1; VW4 stale 5\n"
                 "ok              -> done\n"
                 "+500            -> get V0+6\n"
                 "ok 000100000007 -> VW4 good 7; cycle\n");
        // The driver lets a cyclic read through before the sixth write.
        add("six writes: stale before the frame is made, and then again", "",
            Up + "write VW4=1     -> put V4+1; VW4 stale 5\n"
                 "write VW4=2     -> \n"
                 "write VW4=3     -> \n"
                 "write VW4=4     -> \n"
                 "write VW4=5     -> \n"
                 "write VW0=6     -> \n"
                 "ok              -> put V4+1; done\n"
                 "ok              -> put V4+1; done\n"
                 "ok              -> put V4+1; done\n"
                 "ok              -> put V4+1; done\n"
                 "ok              -> get V0+6; done; VW0 stale 1\n"
                 "ok 000100000005 -> put V0+1; VW0 stale 1; VW4 good 5\n"
                 "show            -> VW0 stale 1; VW4 good 5\n");
        add("dropped for another's failure", "",
            Up + "write VW100x600= -> put V100+106\n"
                 "ok              -> put V312+106\n"
                 "ok              -> put V524+106\n"
                 "ok              -> put V736+106\n"
                 "ok              -> put V948+106\n"
                 "ok              -> get V0+6\n"
                 "+1000           -> close; done: dropped; down: time-out; VW0 link down 1; "
                 "VW4 link down 5\n");
        add("a timer's bits go with its value", "",
            "start           -> open; connecting\n"
            "watch T5 TV9    -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> get T9+1; up\n"
            "ok 0000000007   -> get T5+1; TV9 good 7\n"
            "ok              -> T5 good 0; cycle\n"
            "write TV5=1     -> put T5+1; T5 stale 0\n");
        add("a refused part ends a write", "",
            Up + "write VW100x200= -> put V100+106\n"
                 "refuse           -> done: refused\n"
                 "+500             -> get V0+6\n");
        add("no bit goes out after one was refused", "",
            Up + "write M0.0x3=     -> put M0+1\n"
                 "ok               -> put M0+1\n"
                 "refuse           -> done: refused\n"
                 "+500             -> get V0+6\n");
        add("a write refused as a job blames neither watched variables nor other writes", "",
            Up + "write VW4=7     -> put V4+1; VW4 stale 5\n"
                 "reject          -> close; done: refused; VW0 link down 1; VW4 link down 5\n"
                 "write VW8=1     -> \n"
                 "+200            -> open\n"
                 "opened          -> connect\n"
                 "ok              -> setup\n"
                 "ok              -> put V8+1\n"
                 "ok              -> get V0+6; done; VW0 stale 1; VW4 stale 5\n");
        add("a block limit of less than a word is one of a word", "limit 1",
            "start           -> open; connecting\n"
            "watch VW0x2     -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> get V0+2; up\n"
            "ok 0001         -> get V2+2\n"
            "ok 0002         -> VW0x2 good 1 2; cycle\n"
            "read VW8x2      -> get V8+2\n"
            "ok 0003         -> get V10+2\n"
            "ok 0004         -> done 3 4\n");
        add("lost: the socket goes, and what was read for a request is void", "",
            Up + "read VB50x300   -> get V50+212\n"
                 "read VW20       -> \n"
                 "ok              -> get V262+88\n"
                 "+1000           -> close; done: time-out; down: time-out; done: dropped; "
                 "VW0 link down 1; VW4 link down 5\n"
                 "read VW20       -> done: time-out\n"
                 "+200            -> open\n"
                 "opened          -> connect\n"
                 "ok              -> setup\n"
                 "ok              -> get V0+6\n"
                 "ok 000100000005 -> up; VW0 good 1; VW4 good 5; cycle\n"
                 "+499            -> \n");
        add("a lost cycle begins anew", "no probe",
            "start           -> open; connecting\n"
            "watch VW0 VW400 -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> get V0+2; up\n"
            "ok              -> get V400+2; VW0 good 0\n"
            "closed          -> close; down: closed; VW0 link down 0; VW400 link down\n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> get V0+2\n"
            "ok              -> get V400+2; up; VW0 good 0; VW400 never read\n"
            "ok              -> VW400 good 0; cycle\n");
        add("closed while idle", "retry",
            Up + "closed          -> close; waiting: closed; VW0 link down 1; VW4 link down 5\n"
                 "write VW0=1     -> done: closed\n");
        add("a new list knows nothing of the old one", "",
            Up + "+500            -> get V0+6\n"
                 "watch VW4 VW400 -> \n"
                 "show            -> VW4 never read; VW400 never read\n"
                 "ok 000100000005 -> get V4+2; VW4 good 5\n"
                 "ok 0005         -> get V400+2\n"
                 "ok              -> VW400 good 0; cycle\n");
        // Were the list made anew meanwhile, the driver would drop the writes of the station that
        // is first in it.
        add("lists stay while a frame is repeated", "stations retry twice",
            "start              -> open@2; open@3; connecting@2; connecting@3\n"
            "opened@2           -> connect@2; handshake@2\n"
            "ok                 -> setup@2\n"
            "ok                 -> get SM0+2@2; up@2\n"
            "ok                 -> cycle\n"
            "opened@3           -> get SM0+2@2; handshake@3\n"
            "ok                 -> connect@3\n"
            "ok                 -> setup@3\n"
            "ok                 -> get SM0+2@2; up@3\n"
            "ok                 -> get SM0+2@3\n"
            "ok                 -> cycle\n"
            "write VW0x1166@2=  -> put V0+106@2\n"
            "ok                 -> put V212+106@2\n"
            "ok                 -> put V424+106@2\n"
            "ok                 -> put V636+106@2\n"
            "ok                 -> put V848+106@2\n"
            "ok                 -> get SM0+2@2\n"
            "ok                 -> put V1060+106@2\n"
            "ok                 -> put V1272+106@2\n"
            "ok                 -> put V1484+106@2\n"
            "ok                 -> put V1696+106@2\n"
            "ok                 -> put V1908+106@2\n"
            "ok                 -> get SM0+2@3\n"
            "+1000              -> get SM0+2@3\n"
            "watch VW0@2        -> \n"
            "+1000              -> get SM0+2@3\n"
            "+1000              -> close@3; put V2120+106@2; waiting@3: time-out\n"
            "ok                 -> get V0+2@2; done\n");
        add("refused among neighbours: found, set aside, tried again", "",
            Up + "+500            -> get V0+6\n"
                 "refuse          -> close; VW0 link down 1; VW4 link down 5\n"
                 "read VW20       -> \n"
                 "+200            -> open\n"
                 "opened          -> connect\n"
                 "ok              -> setup\n"
                 "ok              -> get V0+2\n"
                 "ok 0001         -> get V4+2; VW0 good 1; VW4 stale 5\n"
                 "refuse          -> close; VW0 link down 1; VW4 refused 5\n"
                 "write VW30=1    -> \n"
                 "+200            -> open\n"
                 "opened          -> connect\n"
                 "ok              -> setup\n"
                 "ok              -> get V20+2\n"
                 "ok              -> put V30+1; done 0; VW0 stale 1\n"
                 "ok              -> get V0+2; done\n"
                 "ok 0001         -> VW0 good 1; cycle\n"
                 "closed          -> close; down: closed; VW0 link down 1\n"
                 "+200            -> open\n"
                 "opened          -> connect\n"
                 "ok              -> setup\n"
                 "ok              -> get V0+2\n"
                 "ok 0001         -> up; VW0 good 1; cycle\n"
                 "stall 10000     -> get V0+2; VW0 stale 1\n"
                 "ok 0001         -> get V4+2; VW0 good 1\n"
                 "refuse          -> close; VW0 link down 1\n"
                 "+200            -> open\n"
                 "opened          -> connect\n"
                 "ok              -> setup\n"
                 "ok              -> get V0+2\n"
                 "ok 0001         -> VW0 good 1; cycle\n"
                 "stall 60000     -> get V0+2; VW0 stale 1\n"
                 "ok 0001         -> get V4+2; VW0 good 1\n"
                 "ok 0006         -> VW4 good 6; cycle\n"
                 "+500            -> get V0+6\n"
                 "refuse          -> close; VW0 link down 1; VW4 link down 6\n");
        add("refused in numbers: the rest goes on", "",
            "start           -> open; connecting\n"
            "watch VW0 VW4 VW8 -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> get V0+10; up\n"
            "refuse          -> close; VW0 link down; VW4 link down; VW8 link down\n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> get V0+2\n"
            "refuse          -> close; VW0 refused\n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> get V4+2\n"
            "refuse          -> close; VW4 refused\n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> get V8+2\n"
            "ok 0003         -> VW8 good 3; cycle\n"
            "stall 60000     -> get V8+2; VW8 stale 3\n"
            "ok 0003         -> get V0+2; VW8 good 3\n"
            "refuse          -> close; VW8 link down 3\n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> get V8+2\n"
            "ok 0003         -> VW8 good 3; cycle\n"
            "stall 9000      -> get V8+2; VW8 stale 3\n"
            "ok 0003         -> VW8 good 3; cycle\n"
            "stall 1000      -> get V8+2\n"
            "ok 0003         -> get V4+2\n"
            "ok 0005         -> VW4 good 5; cycle\n");
        add("read apart in one piece also with a limit that only analogue words exceed", "limit 1",
            "start           -> open; connecting\n"
            "watch VW0x4 AIW2 -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> get V0+8; up\n"
            "refuse          -> close; VW0x4 link down; AIW2 link down\n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> get AI2+1\n"
            "ok              -> get V0+8; VW0x4 never read; AIW2 good 0\n"
            "ok 0001000200030004 -> VW0x4 good 1 2 3 4; cycle\n");
        add("no cycle is done until a station is back from a refusal", "stations",
            "start           -> open@2; open@3; connecting@2; connecting@3\n"
            "watch VW0@2 VW4@3 -> \n"
            "opened@2        -> connect@2; handshake@2\n"
            "opened@3        -> handshake@3\n"
            "ok              -> setup@2\n"
            "ok              -> get V0+2@2; up@2\n"
            "ok              -> connect@3; VW0@2 good 0\n"
            "ok              -> setup@3\n"
            "ok              -> get V4+2@3; up@3\n"
            "refuse          -> close@3; get V0+2@2; VW4@3 link down\n"
            "ok              -> \n"
            "+500            -> open@3; get V0+2@2\n"
            "ok              -> \n"
            "failed@3        -> close@3; down@3: no connection\n"
            "+500            -> open@3; get V0+2@2\n"
            "ok              -> cycle\n");
        add("asked before it is up; then nothing to watch but the probe", "",
            "start           -> open; connecting\n"
            "read VW8        -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> get V8+2; up\n"
            "ok 0003         -> get SM0+2; done 3\n"
            "ok              -> cycle\n"
            "+500            -> get SM0+2\n"
            "stop            -> close; stopped\n");
        add("nothing to do: backs off, until it lasts", "no probe",
            "start           -> open; connecting\n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "ok              -> up; cycle\n"
            "closed          -> close; down: closed\n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> up; cycle\n"
            "closed          -> close; down: closed\n"
            "+200            -> \n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> up; cycle\n"
            "stall 10000     -> cycle\n"
            "closed          -> close; down: closed\n"
            "+200            -> open\n");
    }

    void script()
    {
        QFETCH(QString, options);
        QFETCH(QString, script);
        Bench bench(settingsOf(options));
        for (const QString& line : script.split('\n', Qt::SkipEmptyParts)) {
            const QString event = line.section("->", 0, 0).trimmed();
            const QString told = bench.happen(event);
            QVERIFY2(told == line.section("->", 1).trimmed(), qPrintable(event + " -> " + told));
        }
    }

    // However many there are: with each refusal something is learnt, so none is waited for.
    void refusedInHundreds()
    {
        Bench bench(settingsOf(""));
        QString watch = "watch";
        for (int i = 0; i < 150; ++i)
            watch += QString(" VW%1").arg(20 * i);
        bench.happen("start");
        bench.happen(watch);
        for (int i = 0; i < 150; ++i) {
            for (const char* event : {"opened", "ok", "ok", "refuse"})
                bench.happen(event);
            QCOMPARE(bench.machine().link(2, 0).cause, Cause::Refused);
            QVERIFY2(bench.msToWake() < 200, qPrintable(QString::number(bench.msToWake())));
            bench.happen(QString("+%1").arg(bench.msToWake() + 1));
        }
    }

    // Nothing is learnt from a write that is refused as a job, so that it does not go on for ever.
    void refusedWithoutEnd()
    {
        Bench bench(settingsOf("no probe"));
        bench.happen("start");
        QString told;
        for (int i = 0; i <= 100; ++i) {
            QVERIFY(bench.happen("write VW0=1").isEmpty());
            for (const char* event : {"+200", "opened", "ok", "ok", "reject"})
                told = bench.happen(event);
        }
        QCOMPARE(told, QString("close; done: refused; down: refused"));
        QCOMPARE(bench.happen("write VW0=1"), QString("done: refused"));
    }

    // Handshakes that succeed and reads that never do: a message or two, and longer and longer
    // waits.
    void backsOff()
    {
        Bench bench(settingsOf("retry"));
        QStringList told{bench.happen("start"), bench.happen("watch VW0")};
        for (qint64 delay = 200, attempt = 1; attempt < 10; ++attempt) {
            told << bench.happen("opened") << bench.happen("ok") << bench.happen("ok");
            told << bench.happen("bytes 0300000802F08000")
                 << bench.happen("bytes 0300000802F08000");
            QCOMPARE(bench.machine().link(2, 0).attempts, int(attempt));
            QVERIFY2(bench.msToWake() >= delay * 7 / 10 && bench.msToWake() < delay,
                     qPrintable(QString::number(bench.msToWake())));
            delay = std::min<qint64>(2 * delay, 10000);
            told << bench.happen(QString("+%1").arg(bench.msToWake() + 1));
        }
        QCOMPARE(told.filter("not S7").size(), 2); // waiting, down
        QCOMPARE(told.filter("open").size(), 10);
        QCOMPARE(bench.machine().statistics().failed(Cause::NotS7), quint64(18));
        for (const char* event : {"opened", "ok", "ok", "ok", "closed"})
            bench.happen(event);
        QVERIFY(bench.msToWake() < 200);
    }

    void judgement_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("cause");
        const QByteArray connect = fromHex("03000016 11E0 0000 0001 00 C00109 C1021000 C2021100");
        const QByteArray setup = fromHex("03000019 02F080 3201 0000 0108 0008 0000 F000 0001");
        const QByteArray read = fromHex("0300001F 02F080 3201 0000 0007 000E 0000 0401");
        const QByteArray good = readReply(7, "ab");
        const auto with = [](QByteArray bytes, int at, int value) {
            bytes[at] = char(value);
            return bytes;
        };
        const auto add = [](const char* name, const QByteArray& frame, const QByteArray& reply,
                            Cause cause) { QTest::newRow(name) << frame << reply << int(cause); };
        add("good confirm", connect, connectionConfirm(), Cause::None);
        add("disconnect", connect, fromHex("0300000B 06 80 0000 0000 03"),
            Cause::ConnectionRefused);
        add("noise like a disconnect", connect, fromHex("E900000B 06 80 0000 0000 03"),
            Cause::NotS7);
        add("disconnect of another length", connect, fromHex("0300000B 06 80 0000 0000 03 00"),
            Cause::NotS7);
        add("banner", connect, "SSH-2.0-x\r\n", Cause::NotS7);
        add("good setup", setup, setupReply(), Cause::None);
        add("setup error", setup, with(setupReply(), 17, 0x81), Cause::SetupRefused);
        add("good read", read, good, Cause::None);
        add("item", read, with(good, 21, 5), Cause::Refused);
        add("error class", read, with(good, 17, 0x81), Cause::Refused);
        add("item of another", read, with(readReply(8, "ab"), 21, 5), Cause::WrongReference);
        add("item, not a reply", read, with(with(good, 21, 5), 8, 1), Cause::NotS7);
        add("item, not S7", read, with(with(good, 21, 5), 7, 0x33), Cause::NotS7);
        add("item, no data TPDU", read, with(with(good, 21, 5), 5, 0x80), Cause::NotS7);
        add("item, lengths at odds", read, with(with(good, 21, 5), 16, 9), Cause::WrongLength);
        add("longer", read, readReply(7, "abcd"), Cause::WrongLength);
        add("cut short", read, good.left(20), Cause::WrongLength);
        add("a write's", read, writeReply(7), Cause::WrongReference);
        add("disconnect later", read, fromHex("0300000B 06 80 0000 0000 00"), Cause::NotS7);
    }

    void judgement()
    {
        QFETCH(QByteArray, frame);
        QFETCH(QByteArray, reply);
        QFETCH(int, cause);
        SentFrame sent{frame, frame.size() == 22 ? 22 : 27, false};
        const Failure failure = judgeReply(sent, reply);
        QVERIFY2(int(failure.cause) == cause, qPrintable(failure.detail));
        const Failure bad = judgeBadReply(sent, reply);
        QVERIFY(bad && !bad.detail.contains("27 bytes in place of 27"));
    }
};

QTEST_GUILESS_MAIN(HostMachineTest)
#include "host_machine_test.moc"
