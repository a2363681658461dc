#include "tools/soak_peer.h"

#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace s7200::soak
{

namespace
{

constexpr std::size_t MostReads = 20000;
const std::set<quint64> NoneSpared;

} // namespace

struct Peer::Wire {
    Wire(Memory& memory, bool remote) : conversation(memory, remote, 240) {}
    Conversation conversation;
    wire::TpktReassembler requests;
    QByteArray records;
    bool isSilent = false;
    bool hasGap = false; ///< Nothing comes behind it.
};

Micros steadyNow()
{
    timespec time = {};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return Micros(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

void fail(const QString& why)
{
    std::fprintf(stderr, "host_soak: %s\n", qPrintable(why));
    std::_Exit(1); // whatever the other threads are about
}

void Log::addRead(const Asked& asked, const QByteArray& sample, Micros now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_reads.push_back({now, asked, sample});
    if (m_reads.size() > MostReads)
        m_reads.pop_front();
}

void Log::addWrite(const Asked& asked)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_writes.push_back(asked);
}

bool Log::wasRead(const Variable& variable, const Element& element, quint32 value,
                  Micros since) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto read = m_reads.rbegin(); read != m_reads.rend() && read->at >= since; ++read) {
        Span brought = read->asked.span;
        brought.bytes = int(read->sample.size());
        if (brought.covers(element.span) &&
            elementValue(
                variable, element,
                read->sample.mid(element.span.first - brought.first, element.span.bytes)) == value)
            return true;
    }
    return false;
}

bool Log::wasWritten(const Span& span, const QByteArray& bytes) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto write = m_writes.rbegin(); write != m_writes.rend(); ++write) {
        if (write->span.covers(span) && write->data == bytes)
            return true;
    }
    return false;
}

Peer::Peer(int number, bool remote, Micros end, Log& log)
    : m_number(number), m_isRemote(remote), m_dice(quint64(number) + 1, NoneSpared),
      m_weather(m_dice, end), m_memory(quint64(number)), m_log(log)
{
}

void Peer::begin()
{
    m_began = steadyNow();
    m_server = new QTcpServer(this);
    connect(m_server, &QTcpServer::newConnection, this, [this] { accept(); });
    if (!m_server->listen(QHostAddress::LocalHost))
        fail(m_server->errorString());
    m_port = m_server->serverPort();
}

Fault Peer::strike(Chance chance)
{
    const Fault fault = m_weather.strike(m_dice, chance, m_number, m_chances[std::size_t(chance)]++,
                                         steadyNow() - m_began);
    faults += fault == Fault::None ? 0 : 1;
    return fault;
}

int Peer::chosen(int limit)
{
    return m_dice.below(limit, 1000, m_choices++);
}

void Peer::accept()
{
    QTcpSocket* const socket = m_server->nextPendingConnection();
    const auto state = std::make_shared<Wire>(m_memory, m_isRemote);
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QTcpSocket::readyRead, this, [=] { take(socket, state); });
    const Fault fault = strike(Chance::Accept);
    state->isSilent = fault == Fault::SilentAccept || fault == Fault::SwallowConnection;
    if (fault == Fault::RefuseConnection || fault == Fault::ResetAtOnce)
        socket->abort();
    else if (fault == Fault::Banner)
        socket->write("SSH-2.0-dropbear\r\n");
}

void Peer::take(QTcpSocket* socket, const WirePtr& state)
{
    const QByteArray bytes = socket->readAll();
    if (state->isSilent)
        return;
    if (!m_isRemote) {
        state->requests.append(bytes);
        while (const auto request = state->requests.takeFrame())
            arrives(socket, state, *request);
        return;
    }
    state->records += bytes;
    while (!state->records.isEmpty()) {
        const int length = std::max(1, int(quint8(state->records.at(0))));
        if (state->records.size() < length)
            return;
        const QByteArray record = state->records.left(length);
        state->records.remove(0, length);
        arrives(socket, state, record);
    }
}

void Peer::arrives(QTcpSocket* socket, const WirePtr& state, const QByteArray& frame)
{
    const Asked request = asked(frame, m_isRemote);
    const Fault fault = strike(request.kind == Asked::Connect ? Chance::Connect
                               : request.kind == Asked::Setup ? Chance::Setup
                                                              : Chance::Job);
    if (fault == Fault::LostRequest)
        return;
    if (fault == Fault::ResetBefore) {
        socket->abort();
        return;
    }
    const Refusal refusal = fault == Fault::ErrorClass  ? Refusal::Job
                            : fault == Fault::ItemError ? Refusal::Item
                                                        : Refusal::None;
    const Micros now = steadyNow();
    const Answer answer = state->conversation.answer(request, refusal, now);
    if (answer.applied)
        m_log.addWrite(request);
    else if (!answer.sample.isEmpty())
        m_log.addRead(request, answer.sample, now);
    reply(socket, state, answer, fault);
}

void Peer::reply(QTcpSocket* socket, const WirePtr& state, const Answer& answer, Fault fault)
{
    QByteArray bytes = answer.bytes;
    if (isSpoiling(fault) && !(answer.refused && fault == Fault::WrongField))
        bytes = spoiled(fault, bytes, chosen(1000), m_isRemote);
    switch (fault) {
    case Fault::LostReply:
        return;
    case Fault::ResetAfter:
        socket->abort();
        return;
    case Fault::HalfClose:
        socket->disconnectFromHost();
        return;
    case Fault::LateReply:
    case Fault::HeldRequest:
        send(socket, state, bytes, TimeoutMs / 2 + chosen(3 * TimeoutMs));
        return;
    case Fault::Doubled:
        send(socket, state, bytes + bytes, 0);
        return;
    case Fault::DoubledLater:
        send(socket, state, bytes, 1 + chosen(2 * TimeoutMs));
        break;
    case Fault::Split:
        send(socket, state, bytes.left(3), 0);
        bytes = bytes.mid(3);
        break;
    case Fault::Truncated:
    case Fault::TruncatedClose:
        send(socket, state, bytes.left(1 + chosen(int(bytes.size()) - 1)), 0);
        state->hasGap = true;
        return;
    default:
        break;
    }
    send(socket, state, bytes, 0);
}

void Peer::send(QTcpSocket* socket, const WirePtr& state, const QByteArray& bytes, int delayMs)
{
    const auto write = [=] {
        if (!state->hasGap)
            socket->write(bytes);
    };
    if (delayMs == 0)
        write();
    else
        QTimer::singleShot(delayMs, socket, write);
}

} // namespace s7200::soak
