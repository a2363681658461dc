// A bare host: links the driver library, shows VW0 of one controller over and over, and writes
// VW102 once. Usage: bare_host ADDRESS PORT [ROUNDS]

#include <siemens_s7_200_cp243/host_interface.h>

#include <QElapsedTimer>
#include <QThread>

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int ReplyTimeMs = 1000;
constexpr int RoundMs = 500;
constexpr int IdleMs = 10;
constexpr int FirstPauseMs = 200; ///< Between attempts to connect; doubled,
constexpr int LongestPauseMs = 10000;
constexpr int EmptyTpdu = 7; // TPKT and data header without content

/// The host's side of the wire: one TCP connection, one frame out, one TPKT (RFC 1006) in.
class Connection
{
public:
    explicit Connection(const sockaddr_in& address) : m_address(address) {}
    ~Connection()
    {
        close();
    }

    /// All is well: the next attempt to connect need not wait long.
    void roundDone()
    {
        m_pauseMs = FirstPauseMs;
    }

    /// The reply to a frame; empty if there is none in time.
    QByteArray exchange(const QByteArray& frame)
    {
        // A module takes one connection request a connection: every handshake gets a new one.
        const bool connectionRequest = quint8(frame.at(5)) == 0xE0;
        if (connectionRequest && !open())
            return {};
        dropLateBytes();
        if (::send(m_socket, frame.constData(), size_t(frame.size()), MSG_NOSIGNAL) !=
            ssize_t(frame.size()))
            return {};
        return receive();
    }

private:
    bool open()
    {
        close();
        // Do not knock without a pause, whatever the last attempt failed for.
        if (m_attempted) {
            QThread::msleep(quint64(m_pauseMs));
            m_pauseMs = qMin(2 * m_pauseMs, LongestPauseMs);
        }
        m_attempted = true;
        m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
        return ::connect(m_socket, reinterpret_cast<sockaddr*>(&m_address), sizeof m_address) == 0;
    }

    void close()
    {
        if (m_socket >= 0)
            ::close(m_socket);
        m_socket = -1;
    }

    /// What comes after its time would be taken for the reply to the next frame.
    void dropLateBytes()
    {
        char bytes[512];
        while (::recv(m_socket, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
        }
    }

    QByteArray receive()
    {
        QElapsedTimer time;
        time.start();
        QByteArray reply;
        for (;;) {
            // Bytes 2 and 3 of a TPKT are its length, most significant byte first.
            while (reply.size() >= 4) {
                const int length = quint8(reply.at(2)) << 8 | quint8(reply.at(3));
                if (quint8(reply.at(0)) != 3 || length < EmptyTpdu)
                    return reply; // no TPKT: the driver says no to it
                if (reply.size() < length)
                    break;
                if (length > EmptyTpdu)
                    return reply;
                reply.remove(0, length); // a module may send one ahead of the reply
            }
            pollfd readable = {m_socket, POLLIN, 0};
            const int left = ReplyTimeMs - int(time.elapsed());
            char bytes[512];
            if (left <= 0 || ::poll(&readable, 1, left) <= 0)
                return {};
            const ssize_t got = ::recv(m_socket, bytes, sizeof bytes, 0);
            if (got <= 0)
                return {};
            reply.append(bytes, int(got));
        }
    }

    sockaddr_in m_address;
    int m_socket = -1;
    int m_pauseMs = FirstPauseMs;
    bool m_attempted = false;
};

/// Says what a link does, once for each change.
void report(int result)
{
    static int last = Result_Good;
    if (result != Result_WillRetry && result != last) {
        last = result;
        std::fprintf(stderr, result == Result_Good ? "link up\n" : "link lost, code %d\n", result);
    }
}

void showValue()
{
    QByteArray value;
    GetRegisterData("VW", Type_VW, "0", 0, value, 1);
    std::printf("VW0 = %d\n", quint8(value.at(0)) | quint8(value.at(1)) << 8);
    std::fflush(stdout);
}

/// One thread alternates two calls, until that many rounds are done.
void communicate(Connection& connection, int requestsPerRound, int rounds)
{
    QElapsedTimer sinceRound;
    sinceRound.start();
    int answered = 0;
    while (rounds > 0) {
        Protocol* pending = ComCommunication(); // what to send, or null
        if (!pending) {
            QThread::msleep(IdleMs); // nothing to do: do not spin
            continue;
        }
        // Look before DataCom: afterwards the record may be gone.
        const bool cyclicRead = pending->frame_len == 31 && pending->var.host_index == -1;
        QByteArray reply = connection.exchange(pending->frame);
        const RW_VAR* result = DataCom(&reply, int(reply.size())); // checks, stores, completes
        if (result->result != Result_Good) {
            answered = 0; // what was read before is no part of a round of now
            report(result->result);
            continue;
        }
        if (!cyclicRead || ++answered < requestsPerRound)
            continue;
        answered = 0; // all that is listed was read: show it, and wait for the next round
        --rounds;
        connection.roundDone();
        report(Result_Good);
        showValue();
        QThread::msleep(quint64(qMax(qint64(0), RoundMs - sinceRound.elapsed())));
        sinceRound.start();
    }
}

} // namespace

int main(int argc, char** argv)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    if (argc < 3 || ::inet_pton(AF_INET, argv[1], &address.sin_addr) != 1) {
        std::fprintf(stderr, "Usage: bare_host ADDRESS PORT [ROUNDS]\n");
        return 2;
    }
    address.sin_port = htons(quint16(std::atoi(argv[2])));
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 1000000;

    // Settings, callback, local registers, in this order. All three live as long as the library.
    static COM_INFO info = {};
    info.block_length_limit = 106;
    info.default_station = 2;
    info.retry_limit = 3;
    info.communication_mode = Mode_WriteThrough;
    SetComInfo(&info);
    RegistCallBackFuncIntf(nullptr, 0);
    static std::vector<unsigned short> words(LocalWordCount);
    FlashLocalRegister(nullptr, words.data(), nullptr);

    // What is read over and over: VW0.
    VAR_INFO shown;
    shown.reg_type = Type_VW;
    shown.address_text = "0";
    shown.name = "VW";
    shown.count = 1;
    const int requests = ReCreatReadVarList({shown});

    // VW102 = 7, least significant byte first. The frame goes out in the loop below.
    QByteArray seven("\x07\x00", 2);
    SetRegisterData("VW", Type_VW, "102", 0, &seven, 1, 0, 0);

    Connection connection(address);
    communicate(connection, requests, rounds);
    return 0;
}
