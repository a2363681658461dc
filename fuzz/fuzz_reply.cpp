// Replies of every shape, put to the driver with a request of every kind outstanding.

#include "fuzz/driver_calls.h"

namespace
{

constexpr int MostReplies = 4;

struct Request {
    enum Kind { Cyclic, OneShot, Write, KindCount };
    Kind kind;
    RW_VAR var;
};

/// Settings that decide which way a reply takes.
void chooseSettings(COM_INFO& info, ByteSource& source)
{
    const int flags = source.byte();
    info.per_variable_stations = flags & 1;
    info.remote_access = (flags >> 1) & 1;
    info.link_id = (flags >> 2) & 1;
    info.frame_index = (flags >> 3) & 1;
    info.frame_count = (flags >> 4) & 1;
    info.cycle_complete = (flags >> 5) & 1;
    PLC_driver.link_failed = (flags >> 6) & 1;
    info.retry_limit = source.number();
    info.retry_count = (flags & 0x80) != 0 ? info.retry_limit : 0;
}

Request chooseRequest(ByteSource& source, bool severalStations)
{
    static const char* const Names[] = {"T", "TV", "C", "CV", "V", ""};
    Request request;
    request.kind = Request::Kind(source.below(Request::KindCount));
    RW_VAR& var = request.var;
    var.reg_type = source.number();
    var.address = source.number();
    var.count = source.number();
    // Each element of an absurd count is an entry to look for in a list: too slow to repeat here,
    // hostile_test does it once.
    if (severalStations)
        var.count = qBound(-100, var.count, 300);
    var.name = QString::fromLatin1(Names[source.below(6)]);
    var.station = source.below(3);
    var.host_key = source.below(16);
    const int flags = source.byte();
    var.origin = (request.kind == Request::Write) != ((flags & 0x10) != 0) ? 1 : 0;
    var.link_id = flags & 1;
    if (request.kind == Request::Write)
        var.value = source.bytes(source.byte());
    return request;
}

void queueRequest(Request& request)
{
    if (request.kind == Request::Cyclic)
        AddListReadVar(&request.var);
    else if (request.kind == Request::OneShot)
        AddListOnceReadVar(&request.var, 1);
    else
        AddListWriteVar(&request.var, 1);
}

/// A good reply, or one with some of its bytes changed, cut or lengthened, or any bytes.
QByteArray chooseReply(const Protocol& pending, ByteSource& source, bool* good)
{
    const int kind = source.below(5);
    *good = kind == 0;
    if (kind == 4)
        return source.bytes(source.byte());
    QByteArray reply = goodReply(pending, source);
    if (kind == 0)
        return reply;
    for (int left = source.below(4); left > 0 && !reply.isEmpty(); --left) {
        const int offset = source.byte() % int(reply.size());
        reply[offset] = char(source.byte());
    }
    if (kind == 2)
        return reply.left(source.byte());
    return kind == 3 ? reply + source.bytes(source.byte()) : reply;
}

int chooseLength(const Protocol& pending, const QByteArray& reply, ByteSource& source)
{
    switch (source.below(8)) {
    case 0:
        return 0;
    case 1:
        return pending.reply_len;
    case 2:
        return source.number();
    default:
        return int(reply.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    ByteSource source(data, size);
    DriverFixture& fixture = freshDriver();
    chooseSettings(fixture.info, source);
    Request request = chooseRequest(source, fixture.info.per_variable_stations != 0);
    if (source.flag())
        DriverFixture::connectStation(request.var.station,
                                      static_cast<unsigned short>(qMax(1, source.word())));
    DriverFixture::writeImage(QByteArray(DriverFixture::imageSize(), char(source.byte())));
    queueRequest(request);
    for (int i = 0; i < MostReplies && (i == 0 || !source.isEmpty()); ++i) {
        const Protocol* pending = nextFrame();
        if (!pending)
            break;
        bool good = false;
        const QByteArray reply = chooseReply(*pending, source, &good);
        const int length = chooseLength(*pending, reply, source);
        deliver(reply, length, good && length == int(reply.size()));
    }
    return 0;
}
