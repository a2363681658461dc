#include "host/watch_list.h"

#include "host/variable_bounds.h"

#include <algorithm>
#include <limits>
#include <map>
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

/// What makes two variables one, however they are shown.
using Identity = std::tuple<const AreaRow*, int, int, int, int>;

Identity identityOf(const Variable& variable, int station)
{
    return {variable.area, variable.address, variable.bit, variable.repeat, station};
}

} // namespace

bool WatchList::isFresh(const std::vector<Block>& blocks)
{
    return !blocks.empty() && std::all_of(blocks.begin(), blocks.end(),
                                          [](const Block& block) { return block.fresh; });
}

void WatchList::assign(const QVector<Variable>& variables, const QVector<int>& stations,
                       const RequestLimits& limits)
{
    const QVector<int> changes = takeChanges();
    const std::vector<Entry> known = std::exchange(m_entries, {});
    std::map<Identity, int> places;
    for (int i = 0; i < int(known.size()); ++i)
        places.emplace(identityOf(m_variables.at(i), known[std::size_t(i)].station), i);
    m_variables = variables;
    m_blockLimit = limits.list(variables);
    m_places.clear();
    m_firstApart = 0;
    for (int i = 0; i < int(variables.size()); ++i) {
        Entry entry;
        entry.station = stations.at(i);
        const auto place = places.find(identityOf(variables.at(i), entry.station));
        if (place != places.end()) {
            entry = known[std::size_t(place->second)];
            if (changes.contains(place->second))
                m_changes.append(i);
        }
        m_entries.push_back(entry);
        if (isInItsArea(variables.at(i))) // else it is never read
            addBlocks(i, limits);
    }
    std::sort(m_places.begin(), m_places.end(), [](const Place& a, const Place& b) {
        return std::tie(a.type, a.station, a.start) < std::tie(b.type, b.station, b.start);
    });
    markUncut(limits);
    m_listChanged = true;
}

/// Cut in another way than before, they are as old as the oldest of those that there were.
void WatchList::addBlocks(int index, const RequestLimits& limits)
{
    const Variable& variable = m_variables.at(index);
    Entry& entry = m_entries[std::size_t(index)];
    const std::vector<Block> old = std::exchange(entry.blocks, {});
    entry.isUncut = false;
    Block state;
    state.fresh = isFresh(old);
    state.isLate = std::any_of(old.begin(), old.end(), [](const Block& b) { return b.isLate; });
    const int most = std::min(m_blockLimit, limits.read(variable.area->reads));
    for (const ReadBlock& block : readBlocks(variable, entry.station, most)) {
        // The driver cuts words at twice its limit: a limit for a single counter halves double
        // words.
        entry.isUncut =
            entry.isUncut || (!variable.area->numbered && block.units > 2 * m_blockLimit);
        const std::size_t number = entry.blocks.size();
        m_places.push_back({block.type, block.station, block.start, index, int(number)});
        const bool isSame = number < old.size() && old[number].block == block;
        entry.blocks.push_back(isSame ? old[number] : state);
        if (isSame)
            continue;
        Block& added = entry.blocks.back();
        added.block = block;
        added.readAt = entry.readAt;
        if (variable.hasStatusBits())
            added.bits = entry.data.mid(block.start - variable.address, block.units);
    }
}

/// The analogue inputs, or outputs, of a station are one request of the driver's or none.
void WatchList::markUncut(const RequestLimits& limits)
{
    std::map<std::pair<int, int>, ReadBlock> spans;
    const auto isAnalog = [this](std::size_t i) {
        return isInItsArea(m_variables.at(int(i))) && m_variables.at(int(i)).isAnalog();
    };
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        if (!isAnalog(i))
            continue;
        const ReadBlock own = extentOf(m_variables.at(int(i)), m_entries[i].station);
        ReadBlock& span = spans.emplace(std::make_pair(own.type, own.station), own).first->second;
        const int end = std::max(span.start + span.units, own.start + own.units);
        span.start = std::min(span.start, own.start);
        span.units = end - span.start;
    }
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        if (!isAnalog(i))
            continue;
        const int type = m_variables.at(int(i)).area->reads;
        const ReadBlock& span = spans.at({type, m_entries[i].station});
        m_entries[i].isUncut = !limits.mergesAnalog(span.units, m_blockLimit);
    }
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
        const bool isApart = entry.isUncut || entry.apartFor > 0;
        if (entry.station != station || entry.setAside || isApart != apart)
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

void WatchList::blockRead(const Sample& sample, Micros now, const Fetch& fetch)
{
    visit(sample.block, [&](int index, Block& found) {
        if (!sample.block.covers(found.block))
            return;
        found.fresh = true;
        found.isLate = sample.isLate;
        found.readAt = sample.time;
        found.bits = sample.bits.mid(found.block.start - sample.block.start, found.block.units);
        readGood(index, now - sample.lifetime, fetch);
    });
}

/// One block of the variable was read; with all of them fresh there is a new value, as old as the
/// oldest of them. `before`: what was read then or earlier is not current any more.
void WatchList::readGood(int index, Micros before, const Fetch& fetch)
{
    Entry& entry = m_entries[std::size_t(index)];
    if (!isFresh(entry.blocks))
        return;
    entry.readAt = entry.blocks.front().readAt;
    entry.expired = false;
    QByteArray data;
    for (const Block& block : entry.blocks) {
        if (block.readAt.steady < entry.readAt.steady)
            entry.readAt = block.readAt;
        entry.expired = entry.expired || block.isLate || block.readAt.steady <= before;
        data += block.bits;
    }
    entry.setAside = entry.onTrial = false;
    entry.detail.clear();
    if (entry.apartFor > 0 && --entry.apartFor == 0)
        m_listChanged = true;
    if (!m_variables.at(index).hasStatusBits())
        data = fetch(m_variables.at(index), entry.station);
    const Quality now = quality(index);
    if (std::exchange(entry.data, data) != data || entry.told != now)
        m_changes.append(index);
    entry.told = now;
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
        if (!entry.setAside && !entry.onTrial)
            entry.detail.clear(); // of the last link
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
        const Entry& entry = m_entries[std::size_t(index)];
        const bool isApart = entry.isUncut || entry.apartFor > 0;
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
        entry.expired = entry.readAt.steady <= before;
        if (entry.expired)
            touch(i);
        else
            next = std::min(next, entry.readAt.steady + lifetime);
    }
    return next;
}

QVector<int> WatchList::takeChanges()
{
    std::sort(m_changes.begin(), m_changes.end());
    m_changes.erase(std::unique(m_changes.begin(), m_changes.end()), m_changes.end());
    return std::exchange(m_changes, {});
}

void WatchList::addChanges(const QVector<int>& indexes)
{
    m_changes += indexes;
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
    if (entry.readAt.steady < 0)
        return Quality::NeverRead;
    return entry.expired || !isFresh(entry.blocks) ? Quality::Stale : Quality::Good;
}

Value WatchList::value(int index, Micros now) const
{
    Value value;
    if (index < 0 || index >= int(m_entries.size()))
        return value;
    const Entry& entry = m_entries[std::size_t(index)];
    value.quality = quality(index);
    value.detail = value.quality == Quality::Good ? QString() : entry.detail;
    if (entry.readAt.steady >= 0) {
        value.elements = decodeValues(m_variables.at(index), entry.data);
        value.timeMs = entry.readAt.wallMs;
        value.ageMs = (now - entry.readAt.steady) / 1000;
    }
    return value;
}

} // namespace s7200
