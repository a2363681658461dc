#include "simulator/fault_injector.h"

#include "simulator/s7_replies.h"

#include <QtEndian>

#include <algorithm>

namespace s7200::sim
{

using namespace wire;

namespace
{

constexpr unsigned momentBit(FaultMoment moment)
{
    return 1U << unsigned(moment);
}

constexpr unsigned OnAccept = momentBit(FaultMoment::Accept);
constexpr unsigned OnConnect = momentBit(FaultMoment::Connect);
constexpr unsigned OnJob = momentBit(FaultMoment::Job);
constexpr unsigned OnSetup = momentBit(FaultMoment::Setup);
constexpr unsigned OnS7 = OnSetup | OnJob;
constexpr unsigned OnReply = OnConnect | OnS7;

constexpr int GarbageLength = 22; // as long as the confirm it replaces

struct KindRow {
    FaultKind kind;
    unsigned moments;
    const char* name;
    const char* effect;
};

constexpr KindRow Kinds[] = {
    {FaultKind::Lost, OnReply, "lost", "no reply"},
    {FaultKind::Late, OnReply, "late", "reply sent when the next request has come, before its own"},
    {FaultKind::Doubled, OnReply, "doubled", "reply sent twice"},
    {FaultKind::Truncated, OnReply, "truncated", "end of the reply missing"},
    {FaultKind::Corrupted, OnReply, "corrupted", "one bit of the reply changed"},
    {FaultKind::WrongReference, OnJob, "wrong-reference", "PDU reference one too high"},
    {FaultKind::WrongLength, OnJob, "wrong-length", "one byte more, all length fields with it"},
    {FaultKind::ErrorClass, OnJob, "error-class", "job not done, error class set"},
    {FaultKind::ItemError, OnJob, "item-error", "job not done, item return code 0x0A"},
    {FaultKind::EmptyTpduFirst, OnS7, "empty-tpdu-first", "a data TPDU without data first"},
    {FaultKind::Split, OnReply, "split", "reply sent byte by byte"},
    {FaultKind::Coalesced, OnReply, "coalesced", "previous reply once more in the same segment"},
    {FaultKind::RefuseConnection, OnAccept, "refuse-connection", "connection closed at once"},
    {FaultKind::CloseMidFrame, OnReply, "close-mid-frame", "half a reply, then closed"},
    {FaultKind::SilentAccept, OnAccept, "silent-accept", "connection accepted, never answered"},
    {FaultKind::GarbageConfirm, OnConnect, "garbage-confirm", "random bytes as connection confirm"},
    {FaultKind::Banner, OnConnect, "banner", "a line of text as connection confirm"},
    {FaultKind::RefuseSetup, OnSetup, "refuse-setup", "setup communication refused: error class"},
    {FaultKind::Disconnect, OnReply, "disconnect", "a disconnect request in the reply's place"},
};

const KindRow* findKind(FaultKind kind)
{
    for (const KindRow& row : Kinds) {
        if (row.kind == kind)
            return &row;
    }
    return nullptr;
}

const KindRow* findKind(const QString& name)
{
    for (const KindRow& row : Kinds) {
        if (name == QLatin1String(row.name))
            return &row;
    }
    return nullptr;
}

QString kindNames()
{
    QStringList names;
    for (const KindRow& row : Kinds)
        names.append(QLatin1String(row.name));
    return names.join(QStringLiteral(", "));
}

void addToWord(QByteArray& bytes, int offset, int amount)
{
    if (bytes.size() < offset + 2)
        return;
    char* word = bytes.data() + offset;
    qToBigEndian(quint16(qFromBigEndian<quint16>(word) + amount), word);
}

/// One byte more at the TPKT's end, believed by every length field on the way.
QByteArray withWrongLength(QByteArray reply)
{
    const int end = qFromBigEndian<quint16>(reply.constData() + TpktLengthOffset);
    const bool hasItemLength = end >= PayloadOffset;
    const bool countsBits = hasItemLength && reply.at(ItemDataSizeOffset) == char(DataSize::Bits);
    reply.insert(end, '\0');
    addToWord(reply, TpktLengthOffset, 1);
    addToWord(reply, DataLengthOffset, 1);
    if (hasItemLength)
        addToWord(reply, ItemLengthOffset, countsBits ? 8 : 1);
    return reply;
}

} // namespace

FaultInjector::FaultInjector(quint32 seed) : m_random(seed) {}

bool FaultInjector::setFaults(const QStringList& texts, QString* error)
{
    std::vector<Rule> parsed;
    for (const QString& text : texts) {
        Rule rule;
        if (!parseRule(text, &rule, error))
            return false;
        parsed.push_back(rule);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rules = parsed;
    return true;
}

bool FaultInjector::parseRule(const QString& text, Rule* rule, QString* error)
{
    const int colon = int(text.indexOf(QLatin1Char(':')));
    const KindRow* row = findKind(text.left(colon));
    if (row == nullptr) {
        *error = QStringLiteral("unknown fault \"%1\"; right are: %2")
                     .arg(text.left(colon), kindNames());
        return false;
    }
    rule->kind = row->kind;
    if (colon < 0)
        return true;
    const QString parameter = text.mid(colon + 1);
    bool good = false;
    if (parameter.startsWith(QLatin1String("every "))) {
        rule->every = parameter.mid(6).toInt(&good);
        good = good && rule->every >= 1;
    } else if (parameter.startsWith(QLatin1String("address "))) {
        good = (row->moments & OnJob) != 0 && parsePlace(parameter.mid(8), rule);
    } else {
        rule->probability = parameter.toDouble(&good);
        good = good && rule->probability >= 0 && rule->probability <= 1;
    }
    if (!good) {
        *error = QStringLiteral("fault \"%1\": after the colon comes a probability from 0 to 1 or "
                                "\"every N\" with N from 1")
                     .arg(text);
        if ((row->moments & OnJob) != 0)
            *error += QStringLiteral(" or \"address A\", A being a variable inside its area, such "
                                     "as VW100 or T37, or a byte address or number from 0");
    }
    return good;
}

bool FaultInjector::parsePlace(const QString& text, Rule* rule)
{
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    if (isNumber)
        rule->number = number;
    else
        rule->place = MemoryRange::parse(text);
    return isNumber ? number >= 0 : rule->place.has_value();
}

bool FaultInjector::isAimedAt(const Rule& rule, const MemoryRange& touched)
{
    if (rule.number >= 0)
        return touched.touches(touched.elementOfSameArea(rule.number));
    return !rule.place || touched.touches(*rule.place);
}

FaultKind FaultInjector::choose(FaultMoment moment, const MemoryRange& touched)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    FaultKind chosen = FaultKind::None;
    for (Rule& rule : m_rules) {
        const bool fits =
            (findKind(rule.kind)->moments & momentBit(moment)) != 0 && isAimedAt(rule, touched);
        if (fits && strikes(rule) && chosen == FaultKind::None)
            chosen = rule.kind;
    }
    return chosen;
}

bool FaultInjector::strikes(Rule& rule)
{
    if (rule.every == 0)
        return double(m_random()) < rule.probability * 4294967296.0;
    if (++rule.seen < rule.every)
        return false;
    rule.seen = 0;
    return true;
}

QByteArray FaultInjector::spoil(FaultKind kind, const QByteArray& reply)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    QByteArray spoiled = reply;
    switch (kind) {
    case FaultKind::Truncated:
    case FaultKind::CloseMidFrame:
        spoiled.truncate(1 + below(int(reply.size()) - 1));
        break;
    case FaultKind::Corrupted: {
        const int bit = below(int(reply.size()) * 8);
        spoiled[bit / 8] = char(spoiled.at(bit / 8) ^ 1 << bit % 8);
        break;
    }
    case FaultKind::WrongReference:
        addToWord(spoiled, PduReferenceOffset, 1);
        break;
    case FaultKind::WrongLength:
        return withWrongLength(reply);
    case FaultKind::Banner:
        return "220 ready\r\n";
    case FaultKind::Disconnect:
        return disconnectRequest(1, DisconnectReason::NotSpecified);
    case FaultKind::GarbageConfirm:
        spoiled = QByteArray(GarbageLength, '\0');
        for (char& byte : spoiled)
            byte = char(below(256));
        spoiled[0] = char(spoiled.at(0) | 0x80); // never a TPKT
        break;
    default:
        break;
    }
    return spoiled;
}

int FaultInjector::below(int limit)
{
    return int(m_random() % quint32(std::max(limit, 1)));
}

void FaultInjector::count(FaultKind kind)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_injected[name(kind)];
}

QMap<QString, quint64> FaultInjector::counts() const
{
    // Entry by entry: data shared with the caller would be released without the lock.
    const std::lock_guard<std::mutex> lock(m_mutex);
    QMap<QString, quint64> copy;
    for (auto it = m_injected.begin(); it != m_injected.end(); ++it)
        copy.insert(it.key(), it.value());
    return copy;
}

QString FaultInjector::name(FaultKind kind)
{
    const KindRow* row = findKind(kind);
    return row != nullptr ? QString::fromLatin1(row->name) : QString();
}

QStringList FaultInjector::descriptions()
{
    QStringList lines;
    for (const KindRow& row : Kinds)
        lines.append(QString::fromLatin1(row.name).leftJustified(19) + QLatin1String(row.effect));
    return lines;
}

} // namespace s7200::sim
