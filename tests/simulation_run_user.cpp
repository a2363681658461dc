// The user's side of a run: what is watched, asked for and done in completions.

#include "tests/simulation_run.h"

#include <utility>

namespace s7200::simulation
{

Variable Run::parsed(const QString& text) const
{
    Variable variable;
    QString error;
    if (!parseVariable(text, &variable, &error))
        qFatal("%s: %s", qPrintable(text), qPrintable(error));
    return variable;
}

void Run::begin()
{
    const std::vector<Action> actions = script(m_dice, m_settings, m_calmFrom);
    happens(QStringLiteral("start"), [&] {
        m_machine->start(now());
        act(actions.front());
    });
    for (std::size_t i = 1; i < actions.size(); ++i) {
        m_agenda.add(actions[i].at, true, [this, action = actions[i]](Micros) {
            if (m_isStopped)
                return;
            if (action.isChained)
                m_chained.push_back(action);
            else
                act(action);
        });
    }
}

void Run::act(const Action& action)
{
    switch (action.kind) {
    case Action::Watch: {
        QVector<Variable> variables;
        for (const QString& text : action.variables)
            variables.append(parsed(text));
        happens(QStringLiteral("watch ") + action.variables.join(QLatin1Char(' ')), [&] {
            m_values.lists(variables, *m_machine, m_now);
            m_machine->watch(variables, now());
            complain(m_values.listed(*m_machine, m_now));
        });
        break;
    }
    case Action::PauseHost:
        m_agenda.pauseHost(std::min(m_now + action.lasts, m_calmFrom));
        m_links.pausedUntil(std::min(m_now + action.lasts, m_calmFrom));
        break;
    case Action::PauseController:
        m_network.pause(action.station, std::min(m_now + action.lasts, m_calmFrom));
        break;
    case Action::SetClock:
        m_wallShift += action.shiftMs;
        break;
    default:
        ask(action);
    }
}

void Run::ask(const Action& action)
{
    RequestPtr request(new Request);
    request->variable = parsed(action.variables.front());
    request->station = m_machine->stationOf(request->variable);
    request->values = action.values;
    const int number = m_requests.asked(request->variable, request->station, request->values);
    request->done = [this, number](const Result& result) { ended(number, result); };
    QString text = QStringLiteral("read ") + action.variables.front();
    if (!action.values.isEmpty()) {
        QStringList values;
        for (quint32 value : action.values)
            values << QString::number(value);
        text = QStringLiteral("write %1=%2").arg(action.variables.front(), values.join(','));
    }
    happens(text, [&] { m_machine->request(std::move(request), now()); });
}

void Run::ended(int number, const Result& result)
{
    note(QStringLiteral("done %1: ").arg(number) + s7200::describe(result.cause) +
         (result.wasSent ? QStringLiteral(", sent") : QString()));
    digest(quint64(number) << 32 | quint64(result.cause) << 1 | quint64(result.wasSent));
    for (quint32 element : result.value.elements)
        digest(element);
    complain(m_requests.done(number, result, m_now));
    if (m_isStopped)
        return;
    for (const Action& action : std::exchange(m_chained, {}))
        act(action);
}

void Run::stop()
{
    m_isEnding = true;
    for (const char* text : {"VW0", "VW2"}) {
        Action action;
        action.kind = Action::Read;
        action.variables << QLatin1String(text);
        ask(action);
    }
    m_isStopped = true;
    m_requests.stopped();
    happens(QStringLiteral("stop"), [&] { m_machine->stop(); });
    complain(m_requests.unended());
    complain(m_links.judgeAtEnd(*m_machine));
}

} // namespace s7200::simulation
