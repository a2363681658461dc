#ifndef PANEL_WATCH_RUN_H
#define PANEL_WATCH_RUN_H

#include "panel/change_filter.h"
#include "panel/link_board.h"
#include "panel/output_file.h"
#include "panel/record_writer.h"
#include "panel/session.h"
#include "panel/standard_input.h"
#include "panel/watch_screen.h"

#include <QElapsedTimer>
#include <QTimer>

namespace s7200::panel
{

/// The own options of `watch`.
struct WatchOptions {
    int count = 0;         ///< Rounds; 0: no limit.
    qint64 durationMs = 0; ///< 0: no limit.
    qint64 heartbeatMs = 0;
    bool changes = false;
    bool waits = false;  ///< Also for controllers that are off at the start.
    bool writes = false; ///< Takes standard input even if it is no terminal.
    bool readOnly = false;
    bool records = false; ///< Lines rather than a screen, also on a terminal.
    QString outputFile;   ///< Empty: standard output.
    RecordFormat format = RecordFormat::Text;
    QVector<Condition> conditions;
};

/// One run of `watch`: brings together what the controllers tell, the screen or the records, and
/// what is typed.
class WatchRun
{
public:
    WatchRun(CommandLine& line, const WatchOptions& options, const QVector<Item>& items);
    int run();

private:
    struct Target {
        QVector<int> rows; ///< By index in the controller's watched().
        bool cycled = false;
    };

    void enterScreen();
    bool openOutput();
    bool openSession();
    void addLinks(int index);
    void connectController(int index);
    void startTimers();

    void hearLink(int controller, const LinkStatus& status);
    void hearValues(int controller, const QVector<int>& indexes);
    void hearCycle(int controller);
    void take(int row, bool sample);
    void record(int row, qint64 nowMs);
    void sayRefusal(int row);
    void finishRound();
    void overdue();
    void tick();
    void lookAtConditions();
    void endInTime();

    void takeInput(const QByteArray& bytes);
    void takeLine(const QString& line);
    void writeTyped(const QString& text);
    bool takeSignal(int number);
    void say(const QString& text);
    QStringList statusLines();

    int statusAtEnd() const;
    void report(int status) const;
    qint64 elapsed() const;

    CommandLine& m_line;
    const WatchOptions m_options;
    QVector<WatchedRow> m_rows;
    QVector<int> m_indexes;    ///< By row: in its controller's watched().
    QVector<qint64> m_refused; ///< By row: when a refusal was last said; -1: never.
    QVector<int> m_conditions; ///< Rows of the options' conditions.
    QVector<Target> m_targets; ///< By controller.
    QVector<int> m_intervals;  ///< Of those that are watched, milliseconds.
    RecordWriter m_writer;
    ChangeFilter m_filter;
    OutputFile m_output;
    bool m_writesRecords = false;
    bool m_wantsScreen = false;
    bool m_hadScreen = false;
    WatchScreen m_screen;
    LineCutter m_cutter;
    std::unique_ptr<StandardInput> m_input;
    LinkBoard m_board;
    QElapsedTimer m_sinceStart;
    QElapsedTimer m_sinceDraw;
    QElapsedTimer m_sinceRate;
    quint64 m_requestsAtRate = 0;
    double m_rate = 0;
    int m_rounds = 0;
    int m_openWrites = 0;  ///< Typed and not yet answered.
    bool m_leaves = false; ///< Once they are.
    bool m_saidConnecting = false;
    QTimer m_overdue;
    QTimer m_tick;
    QTimer m_lifetime;
    std::unique_ptr<Session> m_session; ///< Goes first: its controllers call the others.
};

} // namespace s7200::panel

#endif
