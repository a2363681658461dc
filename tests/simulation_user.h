#ifndef TESTS_SIMULATION_USER_H
#define TESTS_SIMULATION_USER_H

#include "tests/simulation_dice.h"

#include "host/link_health.h"

#include <s7200host/controller.h>

#include <QStringList>

namespace s7200::simulation
{

/// What somebody does at some time, or what happens to the whole machine.
struct Action {
    enum Kind { Watch, Read, Write, PauseHost, PauseController, SetClock, Stop };
    Kind kind = Watch;
    Micros at = 0;
    quint64 trouble = 0;   ///< Its number, to spare it by.
    QStringList variables; ///< To watch; or the one to read or write.
    QVector<quint32> values;
    int station = 0;
    Micros lasts = 0;
    int shiftMs = 0;        ///< Of the wall clock.
    bool isChained = false; ///< Done as soon as the last request has ended, not at its time.
};

/// The settings of a run, and what its user does, both by chance.
ControllerSettings settingsOfRun(const Dice& dice);

/// In order of time, all before `end`, spared ones left out. The first is a list to watch.
std::vector<Action> script(Dice& dice, const ControllerSettings& settings, Micros end);

} // namespace s7200::simulation

#endif
