#ifndef HOST_WATCH_LIST_H
#define HOST_WATCH_LIST_H

#include "host/link_health.h"
#include "host/request_plan.h"

#include <s7200host/value.h>

#include <functional>
#include <vector>

namespace s7200
{

/// The watched variables: which of their values are fresh and how old they are, which the
/// controller refuses, and when those are to be tried again.
///
/// A read that is refused takes the link down with it, and the driver reads neighbours together. So
/// after a refusal all variables of that read are suspects and are read apart, each on its own,
/// where a good reading clears them; who is refused apart as well is set aside for a while. Then
/// one at a time is put on trial, since each refusal costs a connection.
class WatchList
{
public:
    /// Current bytes of a variable in the driver's image, host encoding.
    using Fetch = std::function<QByteArray(const Variable&, int station)>;

    static constexpr Micros RetryRefusedAfter = 60 * 1000 * 1000;

    /// Replaces everything. `stations`: of each variable.
    void assign(const QVector<Variable>& variables, const QVector<int>& stations, int limit);

    const QVector<Variable>& variables() const
    {
        return m_variables;
    }

    /// To be read in the cyclic list, and apart: those on trial last, and first those that come
    /// behind the one that was refused last.
    QVector<ReadBlock> cyclicBlocks(int station) const;
    QVector<ReadBlock> apartBlocks(int station) const;

    void blockRead(const ReadBlock& block, Micros now, const Fetch& fetch);
    void blockWritten(const ReadBlock& block);

    /// The link of a station is up, or not (any more) because of `failure`.
    void linkUp(int station);
    void linkDown(int station, const Failure& failure);

    /// The read of `block`, in the cyclic list or apart, was refused. False if that concerns no
    /// variable.
    bool refused(const ReadBlock& block, bool apart, const Failure& failure, Micros now);

    /// All that are set aside are due for a trial: the connection is a new one.
    void forgive(int station);
    /// Puts one of those that are due on trial, unless one is already.
    void beginTrial(int station, Micros now);

    /// True once after the cyclic list has become another.
    bool takeListChange();

    /// Marks what has not been read since `before` as stale; returns when the next may be.
    Micros expire(Micros before, Micros lifetime);

    /// Values and qualities that are others than when this was last called.
    QVector<int> takeChanges();

    Quality quality(int index) const;
    Value value(int index, Micros now) const;

private:
    struct Block {
        ReadBlock block;
        Micros readAt = -1;
        bool fresh = false; ///< Read since the link came up, and not written since.
    };
    struct Entry {
        int station = 0;
        std::vector<Block> blocks;
        QByteArray data; ///< Host encoding; empty: never read.
        Micros readAt = -1;
        bool hasLink = false;
        bool linkFailed = false; ///< Not just not yet up.
        bool expired = false;
        bool setAside = false;
        bool onTrial = false; ///< Was set aside and is being tried again.
        int apartFor = 0;     ///< Good readings apart before it joins the others again.
        int suspected = 0;    ///< How often, in all.
        Micros retryAt = 0;
        QString detail; ///< Of the refusal, or of the link.
        Quality told = Quality::NeverRead;
    };
    struct Place {
        int type;
        int station;
        int start;
        int entry;
        int block;
    };

    template <typename Visit>
    void visit(const ReadBlock& block, const Visit& visit);
    void readGood(int index, Micros now, const Fetch& fetch);
    QVector<ReadBlock> blocks(int station, bool apart) const;
    void touch(int index);

    QVector<Variable> m_variables;
    std::vector<Entry> m_entries;
    std::vector<Place> m_places; ///< Of all blocks, in order.
    QVector<int> m_changes;
    bool m_listChanged = false;
    std::size_t m_firstApart = 0; ///< Behind the one that was refused last.
};

} // namespace s7200

#endif
