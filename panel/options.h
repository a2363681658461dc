#ifndef PANEL_OPTIONS_H
#define PANEL_OPTIONS_H

#include "host/comm_loop.h"
#include <s7200host/variable.h>

#include <QString>
#include <QStringList>
#include <QVector>

using namespace s7200;

/// What the program's exit status says.
enum ExitStatus {
    ExitGood = 0,
    ExitUsage = 2,
    ExitNoConnection = 3,
    ExitNoAnswer = 4,
    ExitRefused = 5,    ///< Refused by the controller, or an invalid reply.
    ExitSomeFailed = 6, ///< Some of several variables, not all.
};

/// The exit status that a fault alone gives.
ExitStatus exitStatusOf(Fault fault);

/// The exit status after several variables, `faults` having one entry for each: that of the first
/// when all have failed.
ExitStatus exitStatusOf(const QVector<Fault>& faults);

struct Assignment {
    Variable variable;
    QVector<quint32> values;
};

struct PanelOptions {
    QString library;       ///< Empty: where it usually is.
    QString traceFile;     ///< Empty: none; "-": standard error.
    bool embedded = false; ///< No controller given: one is simulated for each station.
    LoopSettings loop;
    int count = 0;      ///< Refreshes, 0: no limit.
    int durationMs = 0; ///< 0: no limit.
    bool verify = false;
    QVector<Variable> variables;
    QVector<Assignment> assignments;
};

/// Reads the command line of `command` ("watch", "read" or "write"); `arguments` begin with the
/// program's name. False with an `error` of one line, or, if it is empty, with the `help` asked
/// for.
bool parseOptions(const QString& command, const QStringList& arguments, PanelOptions* options,
                  QString* help, QString* error);

/// What stands in the way of carrying out a write with these settings; empty if nothing.
QString writeObjection(const Assignment& assignment, const LoopSettings& settings);

#endif
