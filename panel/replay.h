#ifndef PANEL_REPLAY_H
#define PANEL_REPLAY_H

#include "panel/conversation.h"
#include "panel/driver_desk.h"

#include <functional>
#include <map>
#include <optional>

namespace s7200::panel
{

/// One frame that the driver handed out in a replay, and what became of it.
struct ReplayStep {
    enum Kind {
        Compared,   ///< With the request of the capture.
        NotSent,    ///< While the connection was gone: the capture has no such frame.
        OutOfStep,  ///< The driver would connect anew where the capture goes on.
        NotDrivers, ///< The capture's request is none that this driver can make.
    };
    Kind kind = Compared;
    qint64 number = 0;   ///< Of the request's frame in the capture, or of the next one's.
    QByteArray expected; ///< The driver's frame.
    QByteArray captured; ///< Empty if it was not sent.
    QByteArray reply;    ///< As given to the driver.
    bool late = false;   ///< There was a good reply, but it was asked for again: it came too late.
    int replyLength = 0; ///< That the driver expects.
    int result = -1;     ///< DataCom's; -1: not asked.

    bool isDifferent() const;
    /// First byte that differs; the length of the shorter frame if it is only longer.
    int firstDifference() const;
};

/// Gives a driver the replies of a recorded conversation, one after the other, and compares what it
/// asks for with what was asked for. The driver has no clock, so it takes no time.
class Replay
{
public:
    using Report = std::function<void(const ReplayStep&)>;

    /// With `variables` the driver makes its cyclic list of them, as a controller object does;
    /// without, each request of the capture is handed to it ready-made, which shows whether
    /// references, repeats and handshakes are the driver's. `report` gets every step.
    Replay(DriverDesk& desk, const QVector<Variable>& variables, const Report& report);

    /// A conversation from its beginning. One that was recorded from its middle is entered with
    /// the capture's first reference. Ends after `mostDifferences` frames that differ; true if it
    /// got to the end.
    bool run(const Conversation& conversation, int mostDifferences);

    /// By result code, of all steps.
    const std::map<int, int>& results() const;

private:
    void play(int index);
    bool isDrivers(const QByteArray& request) const;
    void prepare(int index);
    RW_VAR ofStation(RW_VAR request) const;
    bool addRequest(const QByteArray& job);
    void addProbe();
    const Protocol* next(int index);
    bool loseLink(int index);
    bool fallIntoStep(int index);
    int positionInList(const QByteArray& job);
    bool countTo(int reference);
    bool isLate(int index, const Protocol& pending) const;
    void give(ReplayStep step, const Protocol& pending, const QByteArray& reply);
    void tell(const ReplayStep& step);

    DriverDesk& m_desk;
    const QVector<Variable> m_variables;
    const Report m_report;
    Conversation m_conversation;
    bool m_isOpen = false;    ///< The driver holds a request that was handed to it.
    bool m_repeats = false;   ///< It holds a frame that goes out again.
    bool m_outOfStep = false; ///< Its reference may be another than the capture's.
    int m_differences = 0;
    std::map<int, int> m_results;
};

} // namespace s7200::panel

#endif
