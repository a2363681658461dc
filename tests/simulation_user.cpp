#include "tests/simulation_user.h"

#include "tests/simulation_values.h"

#include <algorithm>

namespace s7200::simulation
{

namespace
{

enum DecisionKind : quint64 { Setting = 300, ActionKind, ActionTime, Which, HowMany, Number, Pace };
constexpr quint64 FirstTrouble = quint64(1) << 48; ///< Of actions.

constexpr Micros Ms = 1000;

const char* const Variables[] = {
    "VW0",    "VW2",  "VD4/float", "VB9",  "V0.3",      "V0.5x6",  "MW0",    "MB7x3", "IW4",
    "QD0",    "SMW0", "SMB34",     "T37",  "T38x3",     "TV37",    "TV0x60", "C5",    "CV4x3",
    "CV0x80", "AIW0", "AIW2x4",    "AQW6", "VW100x150", "VB301x7", "VD20x4", "V9.7",  "M0.1"};
const char* const Writables[] = {"VW0",  "VW2",       "VD4",     "VB9",    "V0.3", "V0.5x6",
                                 "MW0",  "MB7x3",     "QD0",     "SMB34",  "TV37", "CV4x3",
                                 "AQW6", "VW100x150", "VB301x7", "VD20x4", "V9.7", "M0.1"};
/// What no controller here has: always refused.
const char* const Absent[] = {"IB200", "QW300x2", "SMW2000"};

template <std::size_t Size>
QString oneOf(const char* const (&texts)[Size], const Dice& dice, quint64 number, quint64 detail)
{
    return QLatin1String(texts[dice.below(int(Size), Which, number, detail)]);
}

QString atStation(QString text, const ControllerSettings& settings, const Dice& dice,
                  quint64 number, quint64 detail)
{
    if (settings.stations.isEmpty())
        return text;
    const int station = dice.below(40, Which, number, detail + 1000) == 0
                            ? UnknownStation
                            : settings.stations.keys().at(dice.below(int(settings.stations.size()),
                                                                     Which, number, detail + 2000));
    const int format = int(text.indexOf('/'));
    return text.insert(format < 0 ? int(text.size()) : format, QStringLiteral("@%1").arg(station));
}

void chooseWatched(Action* action, const Dice& dice, const ControllerSettings& settings,
                   quint64 number)
{
    const int count = dice.below(9, HowMany, number);
    for (int i = 0; i < count; ++i) {
        const bool absent = dice.below(60, Which, number, quint64(500 + i)) == 0;
        const QString text = absent ? oneOf(Absent, dice, number, quint64(i))
                                    : oneOf(Variables, dice, number, quint64(i));
        const QString whole = atStation(text, settings, dice, number, quint64(i));
        if (!action->variables.contains(whole) && !whole.contains(QStringLiteral("@99")))
            action->variables << whole;
    }
}

void chooseWrite(Action* action, const Dice& dice, const ControllerSettings& settings,
                 quint64 number)
{
    const QString text = oneOf(Writables, dice, number, 0);
    action->variables << atStation(text, settings, dice, number, 0);
    Variable variable;
    QString error;
    if (!parseVariable(text, &variable, &error))
        qFatal("%s", qPrintable(error));
    const int bits = variable.area->width == Width::Bit          ? 1
                     : variable.area->width == Width::Byte       ? 8
                     : variable.area->width == Width::DoubleWord ? 32
                                                                 : 16;
    for (int i = 0; i < variable.repeat; ++i) {
        const quint64 value = mixed(quint64(dice.below(1 << 30, Number, number, quint64(i))));
        action->values.append(quint32(value >> (64 - bits)));
    }
}

void chooseKind(Action* action, const Dice& dice, const ControllerSettings& settings,
                quint64 number, Micros end)
{
    const int one = dice.below(100, ActionKind, number);
    if (one < 20) {
        chooseWatched(action, dice, settings, number);
    } else if (one < 50) {
        action->kind = Action::Read;
        action->variables << atStation(dice.below(25, Which, number) == 0
                                           ? oneOf(Absent, dice, number, 0)
                                           : oneOf(Variables, dice, number, 0),
                                       settings, dice, number, 0);
    } else if (one < 88) {
        action->kind = Action::Write;
        chooseWrite(action, dice, settings, number);
    } else if (one < 97) {
        action->kind = one < 92 ? Action::PauseHost : Action::PauseController;
        static constexpr int Longest[] = {50, 500, 3000, 20000, 180000};
        action->lasts =
            (1 + dice.below(Longest[dice.below(5, HowMany, number)], Number, number)) * Ms;
        action->lasts = std::min(action->lasts, end - action->at);
        const QList<int> stations = settings.stations.keys();
        action->station = stations.isEmpty()
                              ? settings.defaultStation
                              : stations.at(dice.below(int(stations.size()), Which, number));
    } else {
        action->kind = Action::SetClock;
        action->shiftMs = dice.below(7200000, Number, number) - 3600000;
    }
    action->isChained = (action->kind == Action::Read || action->kind == Action::Write ||
                         action->kind == Action::Watch) &&
                        dice.below(4, Pace, number) == 0;
}

} // namespace

ControllerSettings settingsOfRun(const Dice& dice)
{
    auto choose = [&dice, number = quint64(0)](std::initializer_list<int> values) mutable {
        return *(values.begin() + dice.below(int(values.size()), Setting, number++));
    };
    ControllerSettings settings;
    settings.timeoutMs = choose({100, 300, 300, 1000, 1000, 2000});
    settings.retries = choose({0, 0, 1, 2, 3});
    settings.intervalMs = choose({0, 20, 100, 200, 500, 500, 1000, 1000, 5000});
    settings.blockLimit = choose({0, 0, 0, 0, 0, 4, 20});
    settings.probe = choose({0, 1, 1, 1, 1, 1, 1, 1}) != 0;
    const int mode = choose({0, 0, 0, 1, 2});
    settings.remoteAccess = mode == 1;
    if (mode == 2) {
        settings.stations = {{2, {}}, {3, {}}};
        if (choose({0, 1}) != 0)
            settings.stations.insert(7, {});
    }
    return settings;
}

std::vector<Action> script(Dice& dice, const ControllerSettings& settings, Micros end)
{
    std::vector<Action> actions;
    Action first;
    chooseWatched(&first, dice, settings, 0);
    actions.push_back(first);
    static constexpr int Paces[] = {100, 1000, 5000, 20000};
    const int pace = Paces[dice.below(4, Pace)];
    Micros at = 0;
    for (quint64 number = 1; number < 400; ++number) {
        // Often at the same time as the last one.
        at += dice.below(3, ActionTime, number) == 0 ? 0
                                                     : dice.below(pace, ActionTime, number, 1) * Ms;
        if (at >= end)
            break;
        Action action;
        action.at = at;
        action.trouble = FirstTrouble + number;
        chooseKind(&action, dice, settings, number, end);
        if (dice.strikes(action.trouble))
            actions.push_back(action);
    }
    return actions;
}

} // namespace s7200::simulation
