// Controllers over real sockets, for minutes, against peers of this process that spoil, delay and
// drop what they answer, and whose memory changes all the time. What is shown as good must have
// been there since its time; what is told as written must have arrived. Afterwards, with peers in
// good health, everything has to be good again.

#include "tools/soak_peer.h"

#include <s7200host/controller.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <cstdio>

using namespace s7200;
using namespace s7200::soak;

namespace
{

constexpr int Controllers = 8;      // every fourth by remote access
constexpr Micros CalmSeconds = 150; // what was set aside is tried again within 60 s, one by one
const std::set<quint64> NoneSpared;

const char* const Variables[] = {"VW0",   "VD4",    "VB9",  "V0.3",      "MW0",    "MB7x3",
                                 "IW4",   "QD0",    "SMW0", "T37",       "TV0x60", "C5",
                                 "CV4x3", "AIW2x4", "AQW6", "VW100x150", "VD20x4", "M0.1"};
const char* const Writables[] = {"VW400", "VD404x3", "MW40", "QW20", "AQW8", "TV100x2", "VW410x9"};

/// A controller with the peer that it talks to, and who uses it.
class Pair : public QObject
{
public:
    Pair(int number, Micros end)
        : m_peer(new Peer(number, number % 4 == 3, end, m_log)),
          m_dice(quint64(1000 + number), NoneSpared)
    {
        m_peer->moveToThread(&m_thread);
        QObject::connect(&m_thread, &QThread::finished, m_peer, &QObject::deleteLater);
        m_thread.start();
        QMetaObject::invokeMethod(
            m_peer, [this] { m_peer->begin(); }, Qt::BlockingQueuedConnection);
        ControllerSettings settings;
        settings.name = QString::number(number);
        settings.endpoint = {QStringLiteral("127.0.0.1"), m_peer->port()};
        settings.timeoutMs = TimeoutMs;
        settings.intervalMs = 50;
        settings.remoteAccess = number % 4 == 3;
        m_controller.reset(new Controller(settings));
        QString error;
        watchAnew();
        if (!m_controller->start(&error))
            fail(error);
        QObject::connect(m_controller.get(), &Controller::valuesChanged, this, [this] { judge(); });
    }
    ~Pair() override
    {
        m_controller.reset();
        m_thread.quit();
        m_thread.wait();
    }

    void act()
    {
        const int one = chosen(20);
        if (one == 0)
            watchAnew();
        else if (one < 3)
            write();
        else if (one < 5)
            read();
        judge();
    }

    /// Every value that counts as current, as it is now.
    void judge()
    {
        for (int i = 0; i < int(m_controller->watched().size()); ++i) {
            const Micros before = steadyNow();
            const Value value = m_controller->value(i);
            if (value.quality == Quality::Good)
                judgeValue(m_controller->watched().at(i), value, before);
        }
    }

    bool isGood() const
    {
        for (int i = 0; i < int(m_controller->watched().size()); ++i) {
            if (m_controller->value(i).quality != Quality::Good)
                return false;
        }
        return m_open == 0;
    }
    QString name() const
    {
        return m_controller->name();
    }
    quint64 faults() const
    {
        return m_peer->faults;
    }

    quint64 judged = 0;
    quint64 written = 0;

private:
    int chosen(int limit)
    {
        return m_dice.below(limit, 2000, m_choices++);
    }

    static Variable parsed(const QString& text)
    {
        Variable variable;
        QString error;
        if (!parseVariable(text, &variable, &error))
            fail(error);
        return variable;
    }

    void watchAnew()
    {
        QStringList list;
        for (int i = 2 + chosen(6); i > 0; --i)
            list << QLatin1String(Variables[chosen(int(std::size(Variables)))]);
        list.removeDuplicates();
        QString error;
        if (!m_controller->watch(list, &error))
            fail(error);
    }

    void judgeValue(const Variable& variable, const Value& value, Micros before)
    {
        ++judged;
        const Micros since = before - (value.ageMs + 1) * 1000;
        for (int i = 0; i < variable.repeat; ++i) {
            if (!m_log.wasRead(variable, elementOf(variable, i), value.elements.at(i), since))
                fail(QStringLiteral(
                         "controller %1: %2, element %3 is %4, %5 ms old, and was not there")
                         .arg(name(), variable.label())
                         .arg(i)
                         .arg(value.elements.at(i))
                         .arg(value.ageMs));
        }
    }

    void read()
    {
        const Variable variable =
            parsed(QLatin1String(Variables[chosen(int(std::size(Variables)))]));
        ++m_open;
        m_controller->read(variable, [this, variable](const Result& result) {
            --m_open;
            if (result && result.value.quality == Quality::Good)
                judgeValue(variable, result.value, steadyNow() - 20000);
        });
    }

    /// Each value is written once, so that the log tells what has become of it.
    void write()
    {
        const Variable variable =
            parsed(QLatin1String(Writables[chosen(int(std::size(Writables)))]));
        QVector<quint32> values;
        const quint32 mask = variable.area->width == Width::DoubleWord ? 0xFFFFFFFF : 0xFFFF;
        for (int i = 0; i < variable.repeat; ++i)
            values.append(quint32(mixed(++m_values)) & mask);
        ++m_open;
        m_controller->write(variable, values, [this, variable, values](const Result& result) {
            --m_open;
            ++written;
            const bool arrived = hasArrived(variable, values);
            if (result && !arrived)
                fail(variable.label() + QStringLiteral(": told as written and never arrived"));
            if (!result && !result.wasSent && arrived && variable.repeat > 1)
                fail(variable.label() + QStringLiteral(": told as not sent and has arrived"));
        });
    }

    bool hasArrived(const Variable& variable, const QVector<quint32>& values) const
    {
        const QByteArray bytes = bytesOfValues(variable, values);
        return m_log.wasWritten(spanOf(variable), bytes);
    }

    Log m_log;
    Peer* m_peer;
    QThread m_thread;
    Dice m_dice;
    std::unique_ptr<Controller> m_controller;
    quint64 m_choices = 0;
    quint64 m_values = 0;
    int m_open = 0;
};

class Soak
{
public:
    explicit Soak(int seconds) : m_end(steadyNow() + Micros(seconds) * 1000000)
    {
        for (int i = 0; i < Controllers; ++i)
            m_pairs.emplace_back(new Pair(i, Micros(seconds) * 1000000));
        m_timer.callOnTimeout([this] { step(); });
        m_timer.start(10);
    }

private:
    void step()
    {
        const Micros now = steadyNow();
        bool good = true;
        for (const auto& pair : m_pairs) {
            now < m_end ? pair->act() : pair->judge();
            good = good && pair->isGood();
        }
        if (now < m_end)
            return;
        if (good) {
            report();
            QCoreApplication::exit(0);
        } else if (now > m_end + CalmSeconds * 1000000) {
            fail(QStringLiteral("not everything was good again in %1 s").arg(CalmSeconds));
        }
    }

    void report() const
    {
        quint64 judged = 0;
        quint64 written = 0;
        quint64 faults = 0;
        for (const auto& pair : m_pairs) {
            judged += pair->judged;
            written += pair->written;
            faults += pair->faults();
        }
        std::printf(
            "%llu values and %llu writes judged, %llu faults; all good again after %.1f s\n",
            static_cast<unsigned long long>(judged), static_cast<unsigned long long>(written),
            static_cast<unsigned long long>(faults), double(steadyNow() - m_end) / 1e6);
    }

    const Micros m_end;
    std::vector<std::unique_ptr<Pair>> m_pairs;
    QTimer m_timer;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Controllers against peers with faults, over real sockets; every value and write is judged "
        "by what the peers have said and done. Ends with status 1 at the first that is false.");
    parser.addHelpOption();
    parser.addOption({"minutes", "How long. Default: 10", "M", "10"});
    parser.process(application);
    bool ok = false;
    const double minutes = parser.value("minutes").toDouble(&ok);
    if (!ok || minutes <= 0)
        fail(QStringLiteral("--minutes takes a number above 0"));
    Soak soak(int(60 * minutes + 0.5));
    return QCoreApplication::exec();
}
