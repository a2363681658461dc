#include "host/watch_list.h"

#include "host/variable_bounds.h"

#include <algorithm>
#include <limits>
#include <tuple>
#include <utility>

namespace s7200
{

namespace
{

/// Longer than any block in bytes, timers or counters.
constexpr int LongestBlock = 256;
constexpr int MostDoublings = 6;

/// Values and bits of a timer or counter are one area: a write to one changes both.
int writtenTogether(int type)
{
    switch (type) {
    case Type_TV:
        return Type_T;
    case Type_CV:
        return Type_C;
    default:
        return -1;
    }
}

} // namespace

void WatchList::assign(const QVector<Variable>& variables, const QVector<int>& stations, int limit)
{
    m_variables = variables;
    m_entries.clear();
    m_places.clear();
    m_changes.clear();
    m_firstApart = 0;
    for (int i = 0; i < int(variables.size()); ++i) {
        Entry entry;
        entry.station = stations.at(i);
        if (!isInItsArea(variables.at(i))) {
            m_entries.push_back(entry); // never read
            continue;
        }
        for (const ReadBlock& block : readBlocks(variables.at(i), entry.station, limit)) {
            m_places.push_back(
                {block.type, block.station, block.start, i, int(entry.blocks.size())});
            entry.blocks.push_back({block, -1, false});
        }
        m_entries.push_back(entry);
    }
    std::sort(m_places.begin(), m_places.end(), [](const Place& a, const Place& b) {
        return std::tie(a.type, a.station, a.start) < std::tie(b.type, b.station, b.start);
    });
    m_listChanged = true;
}

QVector<ReadBlock> WatchList::cyclicBlocks(int station) const
{
    return blocks(station, false);
}

QVector<ReadBlock> WatchList::apartBlocks(int station) const
{
    return blocks(station, true);
}

QVector<ReadBlock> WatchList::blocks(int station, bool apart) const
{
    QVector<ReadBlock> found;
    QVector<ReadBlock> onTrial;
    const std::size_t first = apart ? m_firstApart : 0;
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        const Entry& entry = m_entries[(first + i) % m_entries.size()];
        if (entry.station != station || entry.setAside || (entry.apartFor > 0) != apart)
            continue;
        for (const Block& block : entry.blocks) {
            QVector<ReadBlock>& list = entry.onTrial ? onTrial : found;
            if (!apart || (!found.contains(block.block) && !onTrial.contains(block.block)))
                list.append(block.block);
        }
    }
    return found + onTrial;
}

/// Calls `visit` with entry and block number for every block that overlaps.
template <typename Visit>
void WatchList::visit(const ReadBlock& block, const Visit& visit)
{
    const auto from = std::make_tuple(block.type, block.station, block.start - LongestBlock);
    auto place = std::lower_bound(m_places.begin(), m_places.end(), from,
                                  [](const Place& a, const auto& wanted) {
                                      return std::tie(a.type, a.station, a.start) < wanted;
                                  });
    for (; place != m_places.end() && place->type == block.type &&
           place->station == block.station && place->start < block.start + block.units;
         ++place) {
        Block& found = m_entries[std::size_t(place->entry)].blocks[std::size_t(place->block)];
        if (block.overlaps(found.block))
            visit(place->entry, found);
    }
}

void WatchList::blockRead(const ReadBlock& block, Micros now, const Fetch& fetch)
{
    visit(block, [&](int index, Block& found) {
        if (!block.covers(found.block))
            return;
        found.fresh = true;
        found.readAt = now;
        readGood(index, now, fetch);
    });
}

/// One block of the variable was read; with all of them fresh there is a new value.
void WatchList::readGood(int index, Micros now, const Fetch& fetch)
{
    Entry& entry = m_entries[std::size_t(index)];
    Micros oldest = now;
    for (const Block& block : entry.blocks) {
        if (!block.fresh)
            return;
        oldest = std::min(oldest, block.readAt);
    }
    entry.readAt = oldest;
    entry.expired = false;
    entry.setAside = entry.onTrial = false;
    entry.detail.clear();
    if (entry.apartFor > 0 && --entry.apartFor == 0)
        m_listChanged = true;
    const QByteArray data = fetch(m_variables.at(index), entry.station);
    if (std::exchange(entry.data, data) != data || entry.told != Quality::Good)
        m_changes.append(index);
    entry.told = Quality::Good;
}

void WatchList::blockWritten(const ReadBlock& block)
{
    const auto mark = [this](int index, Block& found) {
        found.fresh = false;
        touch(index);
    };
    visit(block, mark);
    ReadBlock other = block;
    other.type = writtenTogether(block.type);
    visit(other, mark);
}

void WatchList::linkUp(int station)
{
    for (int i = 0; i < int(m_entries.size()); ++i) {
        Entry& entry = m_entries[std::size_t(i)];
        if (entry.station != station)
            continue;
        entry.hasLink = true;
        entry.linkFailed = false;
        touch(i);
    }
}

void WatchList::linkDown(int station, const Failure& failure)
{
    for (int i = 0; i < int(m_entries.size()); ++i) {
        Entry& entry = m_entries[std::size_t(i)];
        if (entry.station != station)
            continue;
        entry.hasLink = false;
        entry.linkFailed = bool(failure);
        if (!entry.setAside)
            entry.detail = failure.detail;
        for (Block& block : entry.blocks)
            block.fresh = false;
        touch(i);
    }
}

bool WatchList::refused(const ReadBlock& block, bool apart, const Failure& failure, Micros now)
{
    QVector<int> suspects;
    visit(block, [&](int index, Block& found) {
        const bool isApart = m_entries[std::size_t(index)].apartFor > 0;
        if (isApart == apart && (!apart || found.block == block) && !suspects.contains(index))
            suspects.append(index);
    });
    for (int suspect : std::as_const(suspects)) {
        Entry& entry = m_entries[std::size_t(suspect)];
        entry.detail = failure.detail;
        if (apart) {
            entry.setAside = true;
            entry.onTrial = false;
            entry.retryAt = now + RetryRefusedAfter;
            m_firstApart = std::size_t(suspect) + 1;
        } else {
            entry.apartFor = 1 << entry.suspected;
            entry.suspected = std::min(entry.suspected + 1, MostDoublings);
        }
        touch(suspect);
    }
    m_listChanged = m_listChanged || !suspects.isEmpty();
    return !suspects.isEmpty();
}

void WatchList::forgive(int station)
{
    for (Entry& entry : m_entries) {
        if (entry.station == station)
            entry.retryAt = 0;
    }
}

/// It is shown as refused until it is read.
void WatchList::beginTrial(int station, Micros now)
{
    Entry* next = nullptr;
    for (Entry& entry : m_entries) {
        if (entry.station != station)
            continue;
        if (entry.onTrial)
            return;
        if (entry.setAside && entry.retryAt <= now && (!next || entry.retryAt < next->retryAt))
            next = &entry;
    }
    if (!next)
        return;
    next->setAside = false;
    next->onTrial = true;
    next->apartFor = std::max(next->apartFor, 1);
}

bool WatchList::takeListChange()
{
    return std::exchange(m_listChanged, false);
}

Micros WatchList::expire(Micros before, Micros lifetime)
{
    Micros next = std::numeric_limits<Micros>::max();
    for (int i = 0; i < int(m_entries.size()); ++i) {
        Entry& entry = m_entries[std::size_t(i)];
        if (entry.told != Quality::Good)
            continue;
        entry.expired = entry.readAt <= before;
        if (entry.expired)
            touch(i);
        else
            next = std::min(next, entry.readAt + lifetime);
    }
    return next;
}

QVector<int> WatchList::takeChanges()
{
    std::sort(m_changes.begin(), m_changes.end());
    m_changes.erase(std::unique(m_changes.begin(), m_changes.end()), m_changes.end());
    return std::exchange(m_changes, {});
}

void WatchList::touch(int index)
{
    Entry& entry = m_entries[std::size_t(index)];
    const Quality now = quality(index);
    if (std::exchange(entry.told, now) != now)
        m_changes.append(index);
}

Quality WatchList::quality(int index) const
{
    const Entry& entry = m_entries[std::size_t(index)];
    if (entry.setAside || entry.onTrial)
        return Quality::Refused;
    if (!entry.hasLink && entry.linkFailed)
        return Quality::LinkDown;
    if (entry.readAt < 0)
        return Quality::NeverRead;
    const bool fresh = std::all_of(entry.blocks.begin(), entry.blocks.end(),
                                   [](const Block& block) { return block.fresh; });
    return entry.expired || !fresh ? Quality::Stale : Quality::Good;
}

Value WatchList::value(int index, Micros now) const
{
    Value value;
    if (index < 0 || index >= int(m_entries.size()))
        return value;
    const Entry& entry = m_entries[std::size_t(index)];
    value.quality = quality(index);
    value.detail = value.quality == Quality::Good ? QString() : entry.detail;
    if (entry.readAt >= 0) {
        value.elements = decodeValues(m_variables.at(index), entry.data);
        value.ageMs = (now - entry.readAt) / 1000;
    }
    return value;
}

} // namespace s7200
