#ifndef S7200HOST_CONTROLLER_H
#define S7200HOST_CONTROLLER_H

#include <s7200host/export.h>
#include <s7200host/link.h>
#include <s7200host/value.h>
#include <s7200host/variable.h>

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>

namespace s7200
{

namespace wire
{
class FrameTrace;
}

/// Where a controller listens.
struct Endpoint {
    QString host;       ///< A name, or an IPv4 or IPv6 address.
    quint16 port = 102; ///< Registered for RFC 1006.

    /// "host:port", an IPv6 address in brackets.
    S7200HOST_EXPORT QString text() const;
};

/// All that may be set of a controller; the endpoint must be.
struct ControllerSettings {
    QString name;      ///< For messages and records; the endpoint's text if empty.
    Endpoint endpoint; ///< Where it listens.
    /// Transport service access points (ISO 8073), two bytes each: the first names the kind of
    /// connection, the second the module's place. 0 in either: the driver's defaults for both.
    quint16 localTsap = 0x1000;  ///< This side's, "calling".
    quint16 remoteTsap = 0x1100; ///< The controller's, "called".
    int timeoutMs = 1000;        ///< For a connection, name look-up included, and for each reply.
    int retries = 3;             ///< Failed replies before the driver declares the link down.
    int intervalMs = 500;        ///< From the start of one cycle to that of the next.
    /// Most bytes, timers or counters of one read, words of one write; 0: what the PDU has room
    /// for that the controller grants.
    int blockLimit = 0;
    bool probe = true;         ///< With nothing to watch, read the status word to keep the link.
    bool remoteAccess = false; ///< Forwarding records in place of S7 jobs.
    /// Several stations behind one driver, each with an endpoint of its own; a variable's station
    /// chooses. Empty: one station, `endpoint`. A dead station costs the others time, so prefer an
    /// object for each.
    QMap<int, Endpoint> stations;
    int defaultStation = 2;            ///< The driver's station number of variables without one.
    QString driverFile;                ///< Empty: the installed library, see findDriver().
    wire::FrameTrace* trace = nullptr; ///< Of this project's own programs; null for others.
};

/// How a request ended.
struct Result {
    Cause cause = Cause::None; ///< None: it was carried out.
    QString detail;            ///< What happened, for people.
    Value value;               ///< Of a read.
    bool wasSent = false;      ///< Of a write: a part of it, at least, so that it may have been
                               ///< carried out although it failed.

    /// True if it was carried out.
    explicit operator bool() const
    {
        return cause == Cause::None;
    }
};

/// One controller with a driver of its own: connects, keeps the link up, reads what is watched once
/// an interval, reads and writes on request. Any number may live in one thread.
///
/// Non-blocking: everything happens in the event loop of the object's thread, which is also the
/// only thread that may call its functions, and on which completions and signals come, never
/// before the function that asks for them has returned, stop() excepted. They may call any
/// function, run an event loop and delete the object. Between start() and stop() it cannot be moved
/// to another thread.
///
/// Requests that are open when the object ends are told so then, from within the destructor: delete
/// it, or stop() it, before what its completions use, and leave it alone in those.
class S7200HOST_EXPORT Controller : public QObject
{
    Q_OBJECT
public:
    /// Called once, when a request has ended.
    using Done = std::function<void(const Result&)>;

    /// Does nothing yet: see start().
    explicit Controller(const ControllerSettings& settings, QObject* parent = nullptr);
    ~Controller() override; ///< Stops, without a signal.

    const ControllerSettings& settings() const; ///< As given.
    QString name() const;                       ///< Of the settings, or the endpoint's text.

    /// Loads a copy of the driver and begins to connect; it goes on until stop(). False with a
    /// one-line `error` if no host is set or the driver cannot be loaded. Starting twice changes
    /// nothing.
    bool start(QString* error = nullptr);

    /// Closes the connection. Open requests end as Cause::Stopped before it returns.
    void stop();

    /// Replaces the variables that are read cyclically; may be called before start(). What is known
    /// of those that were watched before stays, and a change that was not yet told is told by the
    /// new index.
    void watch(const QVector<Variable>& variables);

    /// The same from texts such as "VW100". False with a one-line `error`, and nothing changed, if
    /// one is wrong.
    bool watch(const QStringList& variables, QString* error = nullptr);

    const QVector<Variable>& watched() const; ///< In the order given.

    /// What is known of the watched variable of that index; never read for any other index.
    Value value(int index) const;

    /// Reads a variable once. A request waits while the link is being brought up, in as many
    /// attempts as the retries allow where somebody listens; without a TCP connection, or with the
    /// TSAPs or setup communication refused, it fails with the first one. While the link is Down it
    /// fails at once.
    void read(const Variable& variable, const Done& done);

    /// Writes a variable, one value an element, right-aligned; done when the controller has
    /// acknowledged all of it or refused a part. Writes are carried out in the order given; as
    /// reads they are not kept for longer than said above.
    void write(const Variable& variable, const QVector<quint32>& values, const Done& done = {});

    /// The same from a text such as "VW100=7". False with a one-line `error`, and nothing sent, if
    /// it is wrong.
    bool write(const QString& assignment, const Done& done = {}, QString* error = nullptr);

    /// Of the default station unless another is named.
    LinkStatus link(int station = -1) const;

    const LinkStatistics& statistics() const; ///< Of all stations together.

Q_SIGNALS:
    /// A link has come up, was lost, or fails for another reason than before; each trouble is told
    /// once, and that it is Down. Further attempts only count: see link(). A link that a refused
    /// variable has cost is Waiting with Cause::Refused, and comes back at once.
    void linkChanged(const s7200::LinkStatus& status);

    /// Value or quality of watched variables has changed, by index in watched().
    void valuesChanged(const QVector<int>& indexes);

    /// All watched variables were read, except those whose quality is Refused and those of stations
    /// whose link is not up. Not told of a cycle that a refusal has cut short: the link comes back
    /// at once, and all is read anew.
    void cycleDone();

    /// A controller has granted another PDU than before, or than the usual 240 bytes: what is read
    /// and written is cut to fit it.
    void pduChanged(int station, int bytes);

private:
    class Q_DECL_HIDDEN Private;
    std::unique_ptr<Private> d;
};

/// The driver library's file: `file` itself if not empty, else the one beside the program, in
/// ../lib or ../lib/TRIPLET as installed, in the build tree, or where the system's loader looks.
/// Empty with a one-line `error` if there is none.
S7200HOST_EXPORT QString findDriver(const QString& file, QString* error);

} // namespace s7200

#endif
