// What a host makes of the bytes of a connection: any bytes at all, in any pieces, to any frame.
// Only a well-formed S7 reply may ever count as a refusal.

#include "host/reply_collector.h"
#include "host/reply_judgement.h"
#include "support.h"

using namespace s7200;

namespace
{

SentFrame frameOf(int kind)
{
    static const QByteArray frames[] = {
        QByteArray::fromHex("0300001611E00000000100C00109C1021000C2021100"),
        QByteArray::fromHex("0300001902F08032010000010800080000F0000001000100F0"),
        QByteArray::fromHex("0300001F02F080320100000007000E00000401120A10020002000184000000"),
        QByteArray::fromHex("0300002402F080320100000007000E00050501120A10020001000184000000"
                            "0004000800"),
        QByteArray::fromHex("16010001020000000C00000000020000000000000000A6")};
    static const int replyLengths[] = {22, 27, 27, 22, 29};
    return {frames[kind % 5], replyLengths[kind % 5], kind % 5 == 4};
}

/// Told by the bytes alone, other than judgeReply() does it.
bool isWellFormed(const QByteArray& reply, bool remote)
{
    const auto word = [&](int at) { return uchar(reply.at(at)) << 8 | uchar(reply.at(at + 1)); };
    return reply.size() >= 19 && reply.startsWith('\3') && reply.at(4) == 2 &&
           reply.at(5) == '\xF0' && reply.at(7) == '\x32' &&
           word(2) == int(reply.size()) - (remote ? 2 : 0) && word(2) == 19 + word(13) + word(15);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uchar* data, size_t size)
{
    if (size < 2)
        return 0;
    const SentFrame frame = frameOf(data[0]);
    const int piece = data[1] + 1;
    const QByteArray bytes(reinterpret_cast<const char*>(data) + 2, int(size) - 2);
    ReplyCollector collector(frame.remote);
    collector.append(bytes); // nothing is awaited yet
    collector.begin(frame.bytes);
    std::optional<QByteArray> reply;
    for (int at = 0; at < bytes.size() && !reply; at += piece) {
        collector.append(bytes.mid(at, piece));
        reply = collector.takeReply();
    }
    if (!reply) {
        reply = collector.whatCameInstead();
        require(reply->size() <= bytes.size(), "made of what came");
    }
    require(!collector.takeReply(), "one reply to a frame");
    if (reply->isEmpty())
        return 0;
    const Failure failure = judgeReply(frame, *reply);
    const bool refusal = failure.cause == Cause::Refused || failure.cause == Cause::SetupRefused;
    require(!refusal || isWellFormed(*reply, frame.remote), "a refusal is a whole S7 reply");
    require(bool(judgeBadReply(frame, *reply)), "a bad reply has a reason");
    return 0;
}
