#ifndef HOST_WATCH_LIST_H
#define HOST_WATCH_LIST_H

#include "host/link_health.h"
#include "host/request_limits.h"
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

    /// Replaces the list. `stations`: of each variable. What is known of a variable stays: its
    /// reading, and whether it is refused.
    void assign(const QVector<Variable>& variables, const QVector<int>& stations,
                const RequestLimits& limits);

    /// The driver's block length limit for the cyclic list.
    int blockLimit() const
    {
        return m_blockLimit;
    }

    const QVector<Variable>& variables() const
    {
        return m_variables;
    }

    /// To be read in the cyclic list, and apart: those on trial last, and first those that come
    /// behind the one that was refused last.
    QVector<ReadBlock> cyclicBlocks(int station) const;
    QVector<ReadBlock> apartBlocks(int station) const;

    /// What a reply brought. `lifetime`: after so long it is not current any more. `isLate`: which
    /// is the case on arrival.
    struct Sample {
        ReadBlock block;
        QByteArray bits; ///< Of timers or counters, one byte each; empty for other types.
        Moment time;     ///< It is no newer.
        Micros lifetime = 0;
        bool isLate = false;
    };
    void blockRead(const Sample& sample, Micros now, const Fetch& fetch);
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
    /// Those were taken, but will not be told: they are changes still.
    void addChanges(const QVector<int>& indexes);

    Quality quality(int index) const;
    Value value(int index, Micros now) const;

private:
    struct Block {
        ReadBlock block;
        Moment readAt = {-1, 0};
        QByteArray bits;     ///< See Sample.
        bool fresh = false;  ///< Read since the link came up, and not written since.
        bool isLate = false; ///< Too old when it came.
    };
    struct Entry {
        int station = 0;
        std::vector<Block> blocks;
        QByteArray data;         ///< Host encoding; empty: never read.
        Moment readAt = {-1, 0}; ///< Of the oldest block.
        bool hasLink = false;
        bool linkFailed = false; ///< Not just not yet up.
        bool expired = false;
        bool setAside = false;
        bool onTrial = false; ///< Was set aside and is being tried again.
        bool isUncut = false; ///< Apart for good: the driver could not cut what it would merge.
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

    static bool isFresh(const std::vector<Block>& blocks);
    void addBlocks(int index, const RequestLimits& limits);
    void markUncut(const RequestLimits& limits);
    template <typename Visit>
    void visit(const ReadBlock& block, const Visit& visit);
    void readGood(int index, Micros before, const Fetch& fetch);
    QVector<ReadBlock> blocks(int station, bool apart) const;
    void touch(int index);

    QVector<Variable> m_variables;
    int m_blockLimit = 0;
    std::vector<Entry> m_entries;
    std::vector<Place> m_places; ///< Of all blocks, in order.
    QVector<int> m_changes;
    bool m_listChanged = false;
    std::size_t m_firstApart = 0; ///< Behind the one that was refused last.
};

} // namespace s7200

#endif
