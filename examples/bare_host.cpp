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
constexpr int ReconnectMs = 1000;
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
        m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
        if (::connect(m_socket, reinterpret_cast<sockaddr*>(&m_address), sizeof m_address) == 0)
            return true;
        QThread::msleep(ReconnectMs); // do not knock without a pause
        return false;
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
                if (reply.size() < length)
                    break;
                if (length > EmptyTpdu)
                    return reply;
                reply.remove(0, qMax(length, 4)); // a module may send one ahead of the reply
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
};

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
        const RW_VAR* result = DataCom(&reply, reply.size()); // checks, stores, completes
        if (result->result != Result_Good && result->result != Result_WillRetry)
            std::fprintf(stderr, "link lost, code %d\n", result->result);
        if (!cyclicRead || result->result != Result_Good || ++answered < requestsPerRound)
            continue;
        answered = 0; // all that is listed was read: show it, and wait for the next round
        --rounds;
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
    static std::vector<unsigned short> words(55002);
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
