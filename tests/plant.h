#ifndef TESTS_PLANT_H
#define TESTS_PLANT_H

#include "host/link_machine.h"
#include "simulator/faulty_replies.h"
#include "simulator/s7_request_handler.h"
#include "tests/parsed.h"
#include "wire/frame_trace.h"

#include <deque>

namespace s7200
{

using wire::FrameTrace;

inline decltype(&::DataCom) realDataCom = nullptr;
inline QVector<int> resultsOfHost; ///< What DataCom told the last plant's host.

inline RW_VAR* recordingDataCom(QByteArray* reply, int length)
{
    RW_VAR* record = realDataCom(reply, length);
    resultsOfHost.append(record->result);
    return record;
}

/// A host's link machine and a controller with faults, joined without sockets or a clock, and what
/// passes between them in a trace.
class Plant : private LinkOrders
{
public:
    Plant(const QStringList& faults, const QString& traceFile)
        : m_machine(m_driver, settings(), *this, 1)
    {
        QString error;
        m_trace = FrameTrace::open(traceFile, FrameTrace::KeepExisting, &error);
        const QString library = findDriver(QString(), &error);
        if (!m_trace || !m_driver.load(library, &error) || !m_faults.setFaults(faults, &error))
            qFatal("%s", qPrintable(error));
        realDataCom = m_driver.DataCom;
        m_driver.DataCom = recordingDataCom;
        resultsOfHost.clear();
    }

    static ControllerSettings settings()
    {
        ControllerSettings settings;
        settings.localTsap = 0x0102;
        settings.remoteTsap = 0x0301;
        return settings;
    }

    /// Until so many frames were sent; every fifth time a read or write is asked for besides.
    void run(const QVector<Variable>& watched, int frames, bool requests)
    {
        m_machine.start({m_now, 0});
        m_machine.watch(watched, {m_now, 0});
        for (int turn = 0; int(sent.size()) < frames; ++turn) {
            if (requests && turn % 5 == 0)
                ask(turn / 5);
            if (m_events.empty()) {
                m_now = std::max(m_now, m_wakeAt);
                m_machine.timePassed({m_now, 0});
                continue;
            }
            const auto event = m_events.front();
            m_events.pop_front();
            event();
        }
    }

    QMap<QString, quint64> faultCounts() const
    {
        return m_faults.counts();
    }

    QVector<QByteArray> sent;

private:
    void ask(int number)
    {
        static const char* const Texts[] = {"Q0.3=1", "VW100=7", "VD40x3=1,2,3", "TV37=5",
                                            "AQW2=9", "CV3=4",   "VB9=255",      "SMD36=70000"};
        const QString text = QLatin1String(Texts[number % 8]);
        RequestPtr request(new Request);
        QString error;
        if (!parseAssignment(text, &request->variable, &request->values, &error))
            qFatal("%s", qPrintable(error));
        if (number % 3 == 0)
            request->values.clear(); // a read
        request->station = settings().defaultStation;
        m_machine.request(std::move(request), {m_now, 0});
    }

    void open(int) override
    {
        m_isOpen = true;
        m_handler.reset(new sim::S7RequestHandler(&m_memory));
        m_replies.reset(new sim::FaultyReplies(m_handler.get(), &m_faults));
        const auto fault = m_faults.choose(sim::FaultMoment::Accept);
        m_faults.count(fault);
        m_silent = fault == sim::FaultKind::SilentAccept;
        later([this] {
            m_traceId = m_trace->newConnection();
            m_machine.opened(2, {m_now, 0});
        });
        if (fault == sim::FaultKind::RefuseConnection)
            closeByController();
    }

    void close(int) override
    {
        ++m_connection; // what is under way is lost
        if (m_isOpen)
            m_trace->closeConnection(m_traceId, FrameTrace::ToController);
        m_isOpen = false;
    }

    void send(int, const QByteArray& frame) override
    {
        sent.append(frame);
        m_trace->record(m_traceId, FrameTrace::ToController, frame);
        m_handler->append(frame);
        while (const auto request = m_silent ? std::nullopt : m_handler->takeRequest()) {
            const sim::FaultyReplies::Answer answer = m_replies->serve(*request);
            for (const QByteArray& piece : answer.pieces)
                bring(piece);
            if (answer.closes)
                closeByController();
        }
    }

    void bring(const QByteArray& bytes)
    {
        later([this, bytes] {
            m_trace->record(m_traceId, FrameTrace::FromController, bytes);
            m_machine.received(2, bytes, {m_now, 0});
        });
    }

    void closeByController()
    {
        later([this] {
            m_isOpen = false;
            m_trace->closeConnection(m_traceId, FrameTrace::FromController);
            m_machine.closed(2, {m_now, 0});
        });
    }

    /// Of this connection only.
    void later(const std::function<void()>& event)
    {
        const int connection = m_connection;
        m_events.push_back([this, connection, event] {
            if (connection == m_connection)
                event();
        });
    }

    void wakeAt(Micros time) override
    {
        m_wakeAt = time;
    }
    void tellLink(const LinkStatus&) override {}
    void tellValues(const QVector<int>&) override {}
    void tellCycle() override {}

    DriverCopy m_driver;
    LinkMachine m_machine;
    std::unique_ptr<FrameTrace> m_trace;
    sim::FaultInjector m_faults{7};
    sim::ControllerMemory m_memory;
    std::unique_ptr<sim::S7RequestHandler> m_handler;
    std::unique_ptr<sim::FaultyReplies> m_replies;
    std::deque<std::function<void()>> m_events;
    Micros m_now = 1;
    Micros m_wakeAt = 1;
    int m_connection = 0;
    int m_traceId = -1;
    bool m_isOpen = false;
    bool m_silent = false;
};

} // namespace s7200

#endif
