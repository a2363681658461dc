// Drives the driver library through the panel's own link code against a simulated controller that
// spoils its replies, and holds what a host relies on whatever the line does (docs/faults.md).
// CTest runs every fault alone and all together with a fixed seed; long runs are made by hand.
//
// What makes the values checkable: every variable holds a pattern made of a serial number, so a
// glance at it tells whether the controller ever held it, when, and whether it is whole. And no
// two reads ask for the same number of bytes, so that a reply can be stored for one request only.

#include "host/comm_loop.h"
#include "simulator/fault_injector.h"
#include "simulator/simulator_thread.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>

using namespace s7200;
using namespace s7200::sim;

namespace
{

constexpr int Station = 2;
constexpr int Retries = 3;
constexpr int HandshakeFrames = 2;
constexpr int HostReaders = 2;
constexpr int Restarts = 5;
constexpr quint64 MostOpen = 6; // requests of ours at the panel
// Past one of these the campaign hangs.
constexpr std::chrono::minutes LongestSilence(3);
constexpr quint64 LongestWait = 100000; // transactions

// Reply time-outs in ms. Long where no reply stays away, so that a busy machine adds nothing.
constexpr int Patient = 10000;
constexpr int Hasty = 40;

/// A kind of fault, how often it strikes when it is alone, and what it may cost.
struct Kind {
    const char* name;
    double probability;
    int timeoutMs;
    int leastFailures;      ///< Failed frames that one such fault causes while it is alone,
    int mostFailures;       ///< and ever.
    bool onConnect = false; ///< Strikes new connections, so connections have to break for it.
};

constexpr char Restart[] = "restart"; // the campaign's own: the controller is switched off and on
constexpr char CloseMidFrame[] = "close-mid-frame";
constexpr char Corrupted[] = "corrupted";
constexpr char ItemError[] = "item-error";
constexpr char WrongReference[] = "wrong-reference";

constexpr Kind Kinds[] = {
    {"lost", 0.02, Hasty, 1, 1},
    {"late", 0.02, Hasty, 0, 1},
    {"doubled", 0.1, Patient, 0, 0},
    {"truncated", 0.02, Hasty, 1, 1},
    {Corrupted, 0.02, Hasty, 0, 1},
    {WrongReference, 0.02, Hasty, 1, 1},
    {"wrong-length", 0.05, Patient, 1, 1},
    {"error-class", 0.05, Patient, 1, 1},
    {ItemError, 0.05, Patient, 0, 1},
    {"empty-tpdu-first", 0.1, Patient, 0, 0},
    {"split", 0.05, Patient, 0, 0},
    {"coalesced", 0.1, Patient, 0, 0},
    // A connection that is gone is noticed at once, but given up past the retry limit only.
    {CloseMidFrame, 0.02, Patient, 1, Retries + 1},
    {"refuse-connection", 0.5, Patient, 1, 1, true},
    {"silent-accept", 0.5, Hasty, 1, 1, true},
    {"garbage-confirm", 0.5, Patient, 1, 1, true},
    {"banner", 0.5, Patient, 1, 1, true},
    {"refuse-setup", 0.5, Patient, 1, 1, true},
    {"disconnect", 0.02, Patient, 1, 1},
    {Restart, 0, Patient, 1, 0},
};
constexpr double BreakForConnect = 0.01; // close-mid-frame, while one of the `onConnect` is alone
constexpr int Share = 5;                 // of the probability while all kinds are on
constexpr int ShareOnConnect = 2;

/// What goes wrong during one campaign.
struct Phase {
    struct Strike {
        const Kind* kind;
        double probability;
    };
    QString name;
    QVector<Strike> strikes;

    bool areTogether() const
    {
        return strikes.size() > 2;
    }
    bool has(const char* kind) const
    {
        return std::any_of(strikes.begin(), strikes.end(), [kind](const Strike& strike) {
            return QLatin1String(strike.kind->name) == QLatin1String(kind);
        });
    }
    int timeoutMs() const
    {
        int shortest = Patient;
        for (const Strike& strike : strikes)
            shortest = std::min(shortest, strike.kind->timeoutMs);
        return shortest;
    }
    QStringList faults() const
    {
        QStringList texts;
        for (const Strike& strike : strikes) {
            const QLatin1String kind(strike.kind->name);
            if (kind != QLatin1String(Restart))
                texts << QStringLiteral("%1:%2").arg(kind).arg(strike.probability);
        }
        return texts;
    }
};

quint32 seed = 1;
QString phaseName;
std::atomic<int> complaints{0};

void complain(const QString& what)
{
    constexpr int MostShown = 10;
    if (++complaints <= MostShown)
        std::fprintf(stderr, "fault_campaign: seed %u, %s: %s\n", seed, qPrintable(phaseName),
                     qPrintable(what));
}

void require(bool good, const QString& what)
{
    if (!good)
        complain(what);
}

// Variables ---------------------------------------------------------------------------------

enum class Role {
    Poked,   ///< Changed by the controller's program.
    Written, ///< Changed by our writes.
    Bits,    ///< Written bits, never read.
    Ones,    ///< Bits that are always on in the controller.
};

struct CellRow {
    Role role;
    bool watched;
    const char* names;
};

// Each has another number of bytes in its reply. V variables lie too far apart to be read together
// and leave room for what a VB write clears behind. At least two elements each, so that one
// changed bit does not make one pattern another.
constexpr CellRow CellRows[] = {
    {Role::Poked, true,
     "VW100x2 VW200x3 VD300x2 VW400x5 VB500x12 MW0x7 IW8x8 QW16x9 SW4x10 SMW34x11 AIW8x12 TV40x3 "
     "CV40x9"},
    {Role::Poked, false, "VW1000x13 VD1100x7 TV60x7 CV60x7"},
    {Role::Written, true, "VW600x15 VD700x8 VB800x34 TV80x5 MW60x18 QW60x19 AQW8x20 CV80x11"},
    {Role::Written, false, "SW60x21"},
    {Role::Bits, false, "V900.2x9 M110.3x5 SM110.0x3 Q120.7x2"},
    {Role::Ones, false, "I40.3x5 T100x9 C100x13"},
};

/// A variable and the serial numbers that its pattern may have in the driver's image now. Serial
/// numbers have 16 bits and wrap; 0 is the empty image.
struct Cell {
    Variable variable;
    Role role = Role::Poked;
    bool watched = false;
    SimulatorArea area = SimulatorArea::V;
    int size = 1;                    ///< Bytes of an element in the controller's memory.
    quint32 salt = 0;                ///< Makes its patterns its own.
    std::atomic<quint16> floor{0};   ///< Poked: seen before. Written: acknowledged.
    std::atomic<quint16> ceiling{0}; ///< Poked, or handed to the panel, last.

    quint16 next() const
    {
        const auto serial = quint16(ceiling + 1);
        return serial == 0 ? quint16(1) : serial;
    }
    bool overlaps(const Cell& other) const
    {
        return area == other.area && variable.firstUnit() < other.variable.endUnit() &&
               other.variable.firstUnit() < variable.endUnit();
    }
};

std::deque<Cell> cells; // they outlive a campaign as the driver's image does

void makeCell(const CellRow& row, const QString& name)
{
    static const QMap<int, SimulatorArea> areas = {
        {6, SimulatorArea::I},        {7, SimulatorArea::Q},      {8, SimulatorArea::M},
        {9, SimulatorArea::S},        {10, SimulatorArea::SM},    {12, SimulatorArea::V},
        {14, SimulatorArea::Timer},   {18, SimulatorArea::Timer}, {15, SimulatorArea::Counter},
        {19, SimulatorArea::Counter}, {16, SimulatorArea::AIW},   {17, SimulatorArea::AQW}};
    static const QMap<Width, int> sizes = {
        {Width::Bit, 1}, {Width::Byte, 1}, {Width::Word, 2}, {Width::DoubleWord, 4}};
    cells.emplace_back();
    Cell& cell = cells.back();
    QString error;
    if (!parseVariable(name, &cell.variable, &error))
        return complain(error);
    cell.role = row.role;
    cell.watched = row.watched;
    cell.area = areas.value(cell.variable.area->reads);
    cell.size = cell.area == SimulatorArea::Timer     ? 5
                : cell.area == SimulatorArea::Counter ? 3
                                                      : sizes.value(cell.variable.area->width);
    cell.salt = quint32(cells.size()) * 0xC2B2AE35U;
    for (size_t i = 0; i + 1 < cells.size(); ++i)
        require(!cells[i].overlaps(cell), name + QLatin1String(" overlaps another variable"));
}

quint32 element(const Cell& cell, quint16 serial, int index)
{
    const Width width = cell.variable.area->width;
    if (cell.role == Role::Ones || serial == 0)
        return cell.role == Role::Ones ? 1 : 0;
    quint32 value = serial * 0x9E3779B1U ^ quint32(index) * 0x85EBCA6BU ^ cell.salt;
    value = (value ^ value >> 15) * 0x2C1B3C6DU;
    value ^= value >> 13;
    // The serial number itself comes first, in two elements if they are bytes.
    if (index == 0)
        value = serial;
    if (index == 1 && width == Width::Byte)
        value = serial >> 8;
    if (width == Width::Byte)
        return value & 0xFF;
    return width == Width::DoubleWord ? value : value & 0xFFFF;
}

QVector<quint32> pattern(const Cell& cell, quint16 serial)
{
    QVector<quint32> elements;
    for (int i = 0; i < cell.variable.repeat; ++i)
        elements.append(element(cell, serial, i));
    return elements;
}

/// How many bits of `elements` differ from the pattern.
int bitsFrom(const Cell& cell, quint16 serial, const QVector<quint32>& elements)
{
    int bits = 0;
    for (int i = 0; i < int(elements.size()); ++i)
        bits += int(qPopulationCount(elements.at(i) ^ element(cell, serial, i)));
    return bits;
}

quint16 serialOf(const Cell& cell, const QVector<quint32>& elements)
{
    const bool bytes = cell.variable.area->width == Width::Byte;
    return quint16(bytes ? elements.at(0) | elements.at(1) << 8 : elements.at(0));
}

bool isWithin(quint16 serial, quint16 floor, quint16 ceiling)
{
    return quint16(serial - floor) <= quint16(ceiling - floor) && quint16(ceiling - floor) < 0x8000;
}

QString shown(const QVector<quint32>& elements)
{
    QString text;
    for (quint32 value : elements)
        text += QStringLiteral(" %1").arg(value, 0, 16);
    return text;
}

/// Complains unless `elements` is the pattern of a serial number from `floor` to `ceiling`, but for
/// `bitsOff` bits. Returns whether it is.
bool judge(const Cell& cell, const QVector<quint32>& elements, quint16 floor, quint16 ceiling,
           int bitsOff, const char* where)
{
    bool held = false;
    // The changed bit may be one of the serial number's own.
    for (int bit = bitsOff > 0 ? 15 : -1; bit >= -1; --bit) {
        const quint16 serial = quint16(serialOf(cell, elements) ^ (bit < 0 ? 0U : 1U << bit));
        if (bitsFrom(cell, serial, elements) > bitsOff)
            continue;
        if (cell.role == Role::Ones || isWithin(serial, floor, ceiling))
            return true;
        held = true;
    }
    complain(QStringLiteral("%1: %2 shows%3, %4 (%5 to %6)")
                 .arg(QLatin1String(where), cell.variable.label(), shown(elements),
                      QLatin1String(held ? "of another time" : "never held"))
                 .arg(floor)
                 .arg(ceiling));
    return false;
}

/// As the controller keeps it: most significant byte first, timers and counters with their bit on.
QByteArray memoryOf(const Cell& cell, const QVector<quint32>& elements)
{
    const Variable& variable = cell.variable;
    if (cell.role == Role::Ones && !variable.area->numbered)
        return QByteArray(variable.endUnit() - variable.firstUnit(), '\xFF');
    QByteArray bytes;
    for (quint32 value : elements) {
        QByteArray raw(cell.size, '\0');
        for (int i = cell.size - 1; i >= 0; --i, value >>= 8)
            raw[i] = char(value);
        if (variable.area->numbered)
            raw[0] = cell.area == SimulatorArea::Timer ? 0x02 : 0x10;
        bytes += raw;
    }
    return bytes;
}

QVector<quint32> elementsOf(const Cell& cell, const QByteArray& memory)
{
    QVector<quint32> elements;
    for (int i = 0; i < cell.variable.repeat; ++i) {
        if (cell.variable.area->width == Width::Bit) {
            const int bit = cell.variable.bit + i;
            elements.append(uchar(memory.at(bit / 8)) >> bit % 8 & 1U);
            continue;
        }
        quint32 value = 0;
        for (int k = cell.variable.area->numbered ? 1 : 0; k < cell.size; ++k)
            value = value << 8 | uchar(memory.at(i * cell.size + k));
        elements.append(value);
    }
    return elements;
}

// Between the panel and the driver ----------------------------------------------------------

/// Stands in for the driver's entry points and notes what passes. One in a process.
struct Tap {
    DriverLibrary driver;
    DriverLibrary forPanel;
    CallBackFunc panelCallback = nullptr;
    std::mutex mutex;
    std::condition_variable changed; ///< After every transaction and every finished request.
    std::atomic<quint64> good{0}, failed{0};
    std::atomic<quint64> goodCallbacks{0}, badCallbacks{0};
    std::atomic<int> listed{0};
    // The loop's thread only.
    std::function<void(bool good)> onTransaction;
    QMap<int, int> callbacks;          ///< By request.
    QMap<int, ReadBlock> readByLength; ///< By length of the reply.

    quint64 transactions() const
    {
        return good + failed;
    }
    void notify()
    {
        mutex.lock(); // so that no waiter is between its look and its sleep
        mutex.unlock();
        changed.notify_all();
    }
    /// Ends the process, since there is nothing to clean up after a hang, if nothing happens for
    /// long or `what` does not happen whatever else does.
    template <typename Condition>
    void wait(const char* what, const Condition& condition)
    {
        std::unique_lock<std::mutex> lock(mutex);
        const quint64 start = transactions();
        while (!condition()) {
            if (changed.wait_for(lock, LongestSilence) == std::cv_status::no_timeout &&
                transactions() - start < LongestWait)
                continue;
            complain(QStringLiteral("hangs, waits for %1").arg(QLatin1String(what)));
            std::abort();
        }
    }
};

Tap tap;

int noteCallback(int handle, int key, int index, int outcome)
{
    require(++tap.callbacks[index] == 1, QStringLiteral("second callback for read %1").arg(index));
    ++(outcome == 1 ? tap.goodCallbacks : tap.badCallbacks);
    return tap.panelCallback(handle, key, index, outcome);
}

void registerCallback(CallBackFunc function, int argument)
{
    tap.panelCallback = function;
    tap.driver.RegistCallBackFuncIntf(noteCallback, argument);
}

int recreateList(QList<VAR_INFO> variables)
{
    tap.listed = tap.driver.ReCreatReadVarList(variables);
    return tap.listed;
}

Protocol* nextFrame()
{
    Protocol* pending = tap.driver.ComCommunication();
    if (pending && pending->data_len > 0) {
        const ReadBlock block = blockOf(pending->var);
        require(tap.readByLength.value(pending->reply_len, block) == block,
                QStringLiteral("CellRows: two replies of %1 bytes").arg(pending->reply_len));
        tap.readByLength[pending->reply_len] = block;
    }
    return pending;
}

RW_VAR* handReply(QByteArray* reply, int length)
{
    RW_VAR* result = tap.driver.DataCom(reply, length);
    const bool good = result->result == 1 || result->result == 100;
    ++(good ? tap.good : tap.failed);
    if (tap.onTransaction)
        tap.onTransaction(good);
    tap.notify();
    return result;
}

void tapDriver()
{
    QString error;
    require(tap.driver.load(QString(), &error) && tap.forPanel.load(QString(), &error), error);
    tap.forPanel.RegistCallBackFuncIntf = registerCallback;
    tap.forPanel.ReCreatReadVarList = recreateList;
    tap.forPanel.ComCommunication = nextFrame;
    tap.forPanel.DataCom = handReply;
}

// The campaign ------------------------------------------------------------------------------

class Campaign
{
public:
    /// `first`: the process has made no connection yet.
    Campaign(const Phase& phase, quint64 transactions, bool first);
    void run();

private:
    void poke(Cell& cell);
    QVector<quint32> peek(const Cell& cell) const;
    QVector<quint32> image(const Cell& cell) const;
    Cell& pick(std::initializer_list<Role> roles);
    void startLoop();
    void mixTraffic();
    void restartController();
    void read(Cell& cell);
    void write(Cell& cell);
    CommLoop::Done tracked(const CommLoop::Done& done);
    void writeDone(Cell& cell, const QVector<quint32>& values, quint16 serial,
                   const RequestResult& result);
    int freshValues() const;
    void readValues();
    void recover();
    void noteRecovery(bool good);
    void checkFaults();
    void checkTraffic();
    void stopWithRequestsOpen();

    const Phase phase;
    const quint64 target;
    const bool first;
    const int bitsOff; ///< Of a value, at most.
    std::mt19937 random;
    SimulatorThread controller;
    std::unique_ptr<CommLoop> loop;
    QVector<Variable> watched;
    std::atomic<bool> readersStop{false};
    quint64 submitted = 0;
    std::atomic<quint64> ended{0};
    std::atomic<quint64> goodReads{0}, badReads{0}, goodWrites{0}, refusedWrites{0}, looks{0};
    int restarted = 0;

    struct Recovery {
        bool on = false;
        bool done = false;
        int good = 0;
        int failed = 0;
    } recovery; ///< Under tap.mutex.
};

SimulatorOptions controllerOptions(const Phase& phase)
{
    SimulatorOptions options;
    options.liveValues = false;
    options.faults = phase.faults();
    options.seed = seed;
    return options;
}

Campaign::Campaign(const Phase& thePhase, quint64 transactions, bool isFirst)
    : phase(thePhase), target(transactions), first(isFirst), bitsOff(phase.has(Corrupted) ? 1 : 0),
      random(seed), controller(controllerOptions(phase))
{
}

/// A new value, all elements at once as the controller's program would set them.
void Campaign::poke(Cell& cell)
{
    const quint16 serial = cell.next();
    cell.ceiling = serial;
    controller.poke(cell.area, cell.variable.firstUnit(), memoryOf(cell, pattern(cell, serial)));
}

QVector<quint32> Campaign::peek(const Cell& cell) const
{
    const int units = cell.variable.endUnit() - cell.variable.firstUnit();
    const int bytes = cell.variable.area->numbered ? units * cell.size : units;
    return elementsOf(cell, controller.peek(cell.area, cell.variable.firstUnit(), bytes));
}

QVector<quint32> Campaign::image(const Cell& cell) const
{
    return decodeValues(cell.variable, loop->value(cell.variable));
}

Cell& Campaign::pick(std::initializer_list<Role> roles)
{
    for (;;) {
        Cell& cell = cells[random() % cells.size()];
        if (std::find(roles.begin(), roles.end(), cell.role) != roles.end())
            return cell;
    }
}

void Campaign::run()
{
    QString error;
    for (Cell& cell : cells) {
        if (cell.role != Role::Bits)
            poke(cell);
    }
    if (!controller.start(&error))
        return complain(error);
    startLoop();
    std::vector<std::thread> readers;
    for (int i = 0; i < HostReaders; ++i)
        readers.emplace_back([this] { readValues(); });
    mixTraffic();
    recover();
    readersStop = true;
    tap.notify();
    for (std::thread& reader : readers)
        reader.join();
    checkFaults();
    checkTraffic();
    stopWithRequestsOpen();
}

void Campaign::startLoop()
{
    LoopSettings settings;
    settings.controllers[Station] = {QStringLiteral("127.0.0.1"), controller.port()};
    settings.defaultStation = Station;
    settings.timeoutMs = phase.timeoutMs();
    settings.retries = Retries;
    settings.intervalMs = 0;
    settings.pauseMs = 1;
    for (const Cell& cell : cells) {
        if (cell.watched)
            watched.append(cell.variable);
    }
    tap.good = tap.failed = tap.goodCallbacks = tap.badCallbacks = 0;
    tap.onTransaction = [this](bool good) { noteRecovery(good); };
    loop.reset(new CommLoop(tap.forPanel, settings));
    loop->watch(watched);
    loop->setListener([this](const LoopEvent& event) {
        require(event.kind != LoopEvent::LinkLost || freshValues() == 0,
                QStringLiteral("fresh values while the link is down"));
    });
    loop->start();
}

/// One step a transaction, so that a dead link is not flooded with requests.
void Campaign::mixTraffic()
{
    while (tap.transactions() < target && complaints == 0) {
        const quint64 before = tap.transactions();
        const quint32 dice = random() % 8;
        if (dice < 3)
            poke(pick({Role::Poked}));
        else if (dice < 5)
            read(pick({Role::Poked, Role::Written, Role::Ones}));
        else
            write(pick({Role::Written, Role::Bits}));
        if (phase.has(Restart) && before * (Restarts + 1) > target * quint64(restarted + 1))
            restartController();
        tap.wait("a transaction",
                 [&] { return tap.transactions() > before && submitted - ended < MostOpen; });
    }
    tap.wait("the end of a request", [this] { return ended == submitted; });
}

void Campaign::restartController()
{
    controller.stop();
    const quint64 before = tap.failed;
    tap.wait("the link's loss", [before] { return tap.failed > before + Retries; });
    QString error;
    require(controller.start(&error), error);
    ++restarted;
}

/// Wraps a request's completion: it must come once.
CommLoop::Done Campaign::tracked(const CommLoop::Done& done)
{
    ++submitted;
    const auto ends = std::make_shared<std::atomic<int>>(0);
    return [this, done, ends](const RequestResult& result) {
        require(++*ends == 1, QStringLiteral("a request ended twice: ") + result.detail);
        done(result);
        ++ended;
        tap.notify();
    };
}

void Campaign::read(Cell& cell)
{
    // What the controller holds by now is the oldest that a read asked for now may bring.
    const quint16 floor = cell.role == Role::Poked ? cell.ceiling : cell.floor;
    loop->read(cell.variable, tracked([this, &cell, floor](const RequestResult& result) {
                   const bool good = result.fault == Fault::None;
                   ++(good ? goodReads : badReads);
                   if (good)
                       judge(cell, decodeValues(cell.variable, result.data), floor, cell.ceiling,
                             bitsOff, "one-shot read");
               }));
}

void Campaign::write(Cell& cell)
{
    const quint16 serial = cell.next();
    cell.ceiling = serial;
    QVector<quint32> values = pattern(cell, serial);
    if (cell.role == Role::Bits) {
        for (quint32& bit : values)
            bit = random() & 1;
    }
    loop->write(cell.variable, values,
                tracked([this, &cell, values, serial](const RequestResult& result) {
                    writeDone(cell, values, serial, result);
                }));
}

/// A write that was acknowledged is in the controller, since the panel sends none after it before
/// its end and a repetition of the same write changes nothing. One that failed may be there or not:
/// it may have been carried out and only the answer spoiled. So may one that was refused, unless
/// no reply goes astray.
void Campaign::writeDone(Cell& cell, const QVector<quint32>& values, quint16 serial,
                         const RequestResult& result)
{
    const QVector<quint32> held = peek(cell);
    if (result.fault == Fault::Refused) {
        ++refusedWrites;
        require(cell.role == Role::Bits || phase.name != QLatin1String(ItemError) || held != values,
                QStringLiteral("refused write to %1 was carried out").arg(cell.variable.label()));
    }
    if (result.fault != Fault::None)
        return;
    ++goodWrites;
    if (cell.role == Role::Written)
        cell.floor = serial;
    // A spoiled reference may be by chance the next request's, and its write not carried out yet.
    const bool referencesHold = !phase.has(Corrupted) && !phase.has(WrongReference);
    const QVector<quint32> copy = image(cell);
    require(copy == values && (held == values || !referencesHold),
            QStringLiteral("acknowledged write of%1 to %2: controller%3, image%4")
                .arg(shown(values), cell.variable.label(), shown(held), shown(copy)));
}

int Campaign::freshValues() const
{
    int fresh = 0;
    for (int i = 0; i < int(watched.size()); ++i)
        fresh += loop->isFresh(i) ? 1 : 0;
    return fresh;
}

/// What a screen does: looks at its values whenever something may have changed.
void Campaign::readValues()
{
    quint64 seen = 0;
    while (!readersStop) {
        for (Cell& cell : cells) {
            if (cell.role != Role::Poked && cell.role != Role::Written)
                continue;
            quint16 floor = cell.floor;
            const QVector<quint32> elements = image(cell);
            const bool good = judge(cell, elements, floor, cell.ceiling, bitsOff, "image");
            // Time does not run backwards. Should another reader have been here, this can wait.
            if (good && bitsOff == 0 && cell.role == Role::Poked)
                cell.floor.compare_exchange_strong(floor, serialOf(cell, elements));
            ++looks;
        }
        tap.wait("a transaction", [&] { return readersStop || tap.transactions() != seen; });
        seen = tap.transactions();
    }
}

/// The line gets well: all is fresh again after one cycle and a handshake, not counting one reply
/// that may have been on its way. Failures are those of a connection that was lost before; where
/// time-outs are short a pause of the machine may add one.
void Campaign::recover()
{
    QString error;
    require(controller.setFaults({}, &error), error);
    for (Cell& cell : cells) {
        if (cell.role == Role::Poked)
            poke(cell);
    }
    tap.mutex.lock();
    recovery.on = true;
    tap.mutex.unlock();
    tap.wait("fresh values",
             [this] { return recovery.done && freshValues() == int(watched.size()); });
    const int mostFailed = Retries + (phase.timeoutMs() == Patient ? 1 : 2);
    require(recovery.good <= tap.listed + HandshakeFrames + 1 && recovery.failed <= mostFailed,
            QStringLiteral("fresh only after %1 good replies (%2 in a cycle) and %3 failures")
                .arg(recovery.good)
                .arg(tap.listed)
                .arg(recovery.failed));
    for (const Cell& cell : cells) {
        if (cell.role == Role::Written)
            judge(cell, peek(cell), cell.floor, cell.ceiling, 0, "controller");
    }
}

void Campaign::noteRecovery(bool good)
{
    const std::lock_guard<std::mutex> lock(tap.mutex);
    if (!recovery.on || recovery.done)
        return;
    ++(good ? recovery.good : recovery.failed);
    recovery.done = std::all_of(cells.begin(), cells.end(), [this](const Cell& cell) {
        return !cell.watched || image(cell) == peek(cell);
    });
}

/// Every fault that was asked for has struck, and has cost no more than itself.
void Campaign::checkFaults()
{
    constexpr int Sparse = 10; // at least a tenth of what the probability promises
    const QMap<QString, quint64> counts = controller.faultCounts();
    // A pause of the machine looks like a lost reply.
    const quint64 pauses = phase.timeoutMs() == Patient ? 0 : Retries + target / 100;
    quint64 mostFailed = pauses + (first ? 0 : Retries + 1); // the last campaign's link was lost
    quint64 leastFailed = 0;
    QString summary;
    for (const Phase::Strike& strike : phase.strikes) {
        const QString name = QLatin1String(strike.kind->name);
        const quint64 struck = name == QLatin1String(Restart) ? quint64(restarted) : counts[name];
        const quint64 promised = quint64(strike.probability * double(target)) / Sparse;
        const quint64 least = strike.kind->onConnect ? 3 : std::max<quint64>(1, promised);
        require(struck >= least,
                QStringLiteral("%1 struck %2 times, not %3").arg(name).arg(struck).arg(least));
        leastFailed += struck * quint64(strike.kind->leastFailures);
        mostFailed += struck * quint64(strike.kind->mostFailures);
        summary += QStringLiteral(", %1 %2").arg(struck).arg(name);
    }
    require((tap.failed <= mostFailed || phase.has(Restart)) &&
                (tap.failed + pauses >= leastFailed || phase.areTogether()),
            QStringLiteral("%1 failed, not %2 to %3%4")
                .arg(tap.failed)
                .arg(leastFailed)
                .arg(mostFailed)
                .arg(summary));
    std::printf("%s: %llu transactions, %llu failed, %llu reads, %llu writes, %llu values seen%s\n",
                qPrintable(phase.name), tap.transactions(), tap.failed.load(), goodReads.load(),
                goodWrites.load(), looks.load(), qPrintable(summary));
    std::fflush(stdout);
}

/// The driver has reported every good read once, and a bad one at most; with one that the campaign
/// before this left open.
void Campaign::checkTraffic()
{
    constexpr quint64 Sparse = 50;
    require(tap.goodCallbacks == goodReads && tap.badCallbacks <= badReads + (first ? 0 : 1),
            QStringLiteral("%1 reads ended well and %2 badly, with %3 and %4 callbacks")
                .arg(goodReads)
                .arg(badReads)
                .arg(tap.goodCallbacks)
                .arg(tap.badCallbacks));
    require(goodReads >= target / Sparse && goodWrites >= target / Sparse && looks >= target,
            QStringLiteral("hardly any traffic"));
    require(!phase.has(ItemError) || refusedWrites > 0, QStringLiteral("no refusal reported"));
}

/// Nobody waits for ever when the panel is switched off.
void Campaign::stopWithRequestsOpen()
{
    for (quint64 i = 0; i < MostOpen; ++i)
        i % 2 == 0 ? read(pick({Role::Poked})) : write(pick({Role::Written}));
    loop->stop();
    require(ended == submitted, QStringLiteral("%1 requests never ended").arg(submitted - ended));
}

// Command line ------------------------------------------------------------------------------

const QString All = QStringLiteral("all");
const QString AllButCorrupted = QStringLiteral("all-but-corrupted"); // whose values are exact

Phase phaseOf(const QString& name)
{
    Phase phase;
    phase.name = name;
    for (const Kind& kind : Kinds) {
        if (name == QLatin1String(kind.name))
            phase.strikes = {{&kind, kind.probability}};
        else if (name == All || (name == AllButCorrupted && kind.name != Corrupted))
            phase.strikes.append(
                {&kind, kind.probability / (kind.onConnect ? ShareOnConnect : Share)});
    }
    if (phase.strikes.size() == 1 && phase.strikes.first().kind->onConnect) {
        const Kind* breaks = std::find_if(std::begin(Kinds), std::end(Kinds), [](const Kind& kind) {
            return kind.name == CloseMidFrame;
        });
        phase.strikes.append({breaks, BreakForConnect});
    }
    return phase;
}

QStringList allPhases()
{
    QStringList names;
    for (const Kind& kind : Kinds)
        names << QLatin1String(kind.name);
    return names << AllButCorrupted << All;
}

int campaign(const QVector<Phase>& phases, quint64 transactions)
{
    // The simulator's kinds, and restart.
    require(FaultInjector::descriptions().size() + 1 == int(std::size(Kinds)),
            QStringLiteral("the simulator has faults that are not in the table"));
    tapDriver();
    for (const CellRow& row : CellRows) {
        for (const QString& name : QString::fromLatin1(row.names).split(QLatin1Char(' ')))
            makeCell(row, name);
    }
    for (int i = 0; i < int(phases.size()) && complaints == 0; ++i) {
        phaseName = phases.at(i).name;
        Campaign(phases.at(i), transactions, i == 0).run();
    }
    return complaints == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription("Drives the panel and the driver against a controller with "
                                     "faults: " +
                                     allPhases().join(", ") + ".");
    parser.addHelpOption();
    const QCommandLineOption seedOption("seed", "Of all that is random.", "N", "1");
    const QCommandLineOption count("transactions", "With each fault, 1000 or more.", "N", "4000");
    const QCommandLineOption fault("fault", "Repeatable; else every one in turn.", "KIND");
    parser.addOptions({seedOption, count, fault});
    parser.process(application);
    seed = parser.value(seedOption).toUInt();
    const quint64 transactions = std::max(1000ULL, parser.value(count).toULongLong());
    QVector<Phase> phases;
    for (const QString& name : parser.isSet(fault) ? parser.values(fault) : allPhases()) {
        if (!allPhases().contains(name))
            parser.showHelp(2);
        phases.append(phaseOf(name));
    }
    return campaign(phases, transactions);
}
