#ifndef TESTS_SIMULATION_RUN_H
#define TESTS_SIMULATION_RUN_H

#include "tests/simulation_links.h"
#include "tests/simulation_network.h"
#include "tests/simulation_user.h"

namespace s7200::simulation
{

/// What came of a run.
struct Outcome {
    QString wrong; ///< What was found first; empty: nothing.
    Micros lasted = 0;
    quint64 digest = 0; ///< Of all orders, times and news.
    quint64 judged = 0;
    std::array<quint64, FaultCount> faults = {};
    std::array<quint64, 6> states = {};
    std::array<quint64, 5> qualities = {};
    std::array<quint64, CauseCount> causes = {};
    std::array<std::array<quint64, 3>, CauseCount> ends = {};
    std::vector<quint64> struck; ///< Troubles and actions that there were.
    QString options;
    QStringList events; ///< As rows of a table of scripts, if they were asked for.
};

/// One run of a host's link machine, with a real driver, against simulated controllers.
class Run : private LinkOrders, private Receiver
{
public:
    Run(quint64 seed, const std::set<quint64>& spared, bool keepsEvents);

    Outcome carryOut();

private:
    // Of the world to the machine.
    void takeOpened(int station, Micros now) override;
    void takeOpenFailed(int station, Micros now) override;
    void takeBytes(int station, const QByteArray& bytes, Micros now) override;
    void takeClosed(int station, Micros now) override;

    // Of the machine.
    void open(int station) override;
    void close(int station) override;
    void send(int station, const QByteArray& frame) override;
    void wakeAt(Micros time) override;
    void tellLink(const LinkStatus& status) override;
    void tellValues(const QVector<int>& indexes) override;
    void tellCycle() override;

    Moment now() const;
    void happens(const QString& text, const std::function<void()>& event);
    void begin();
    void act(const Action& action);
    void ask(const Action& action);
    void ended(int number, const Result& result);
    void stop();
    void step();
    void judge();
    QString judgeCalm() const;
    Micros calmDeadline() const;
    Micros twoCycles() const;
    Micros wakeDue() const;
    void settleRecord();
    void complain(const QString& wrong);
    void note(const QString& text);
    void digest(const QByteArray& bytes);
    void digest(quint64 number);
    Variable parsed(const QString& text) const;

    const std::set<quint64> m_spared;
    const bool m_keepsEvents;
    Dice m_dice;
    const ControllerSettings m_settings;
    const Micros m_calmFrom; ///< Nothing goes wrong any more.
    const Weather m_weather;
    Agenda m_agenda;
    Record m_record;
    Network m_network;
    ValueJudge m_values;
    RequestJudge m_requests;
    LinkJudge m_links;
    DriverCopy m_driver;
    std::unique_ptr<LinkMachine> m_machine;
    std::vector<Action> m_chained; ///< Waiting for a request to end.

    Micros m_now = 0;
    qint64 m_wallShift = 0;
    Micros m_wake = 0;
    Micros m_late = 0;  ///< So much comes the next wake.
    int m_setAside = 0; ///< Most variables at once, since nothing goes wrong any more.
    int m_connections = 0;
    int m_depth = 0;
    bool m_isEnding = false;
    bool m_isStopped = false;
    QStringList m_told;
    Outcome m_outcome;
};

} // namespace s7200::simulation

#endif
