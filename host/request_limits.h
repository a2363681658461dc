#ifndef HOST_REQUEST_LIMITS_H
#define HOST_REQUEST_LIMITS_H

#include <s7200host/variable.h>

#include <QVector>

namespace s7200
{

/// How much one request may carry: what fits the PDU that the controller has granted, and what the
/// user has set.
///
/// One limit serves reads and writes of a kind, since the driver knows but one: a write job has 28
/// bytes beside its data, a read reply 18. A timer takes 5 bytes, a counter 3, each of them.
class RequestLimits
{
public:
    static constexpr int UsualPdu = 240; ///< What the module grants, in bytes.
    /// What a read job takes itself; the reply with one counter, timer or double word is shorter.
    static constexpr int SmallestPdu = 24;

    /// `wanted`: bytes, timers or counters, as the user has set it; 0: nothing. `remote`: a read of
    /// bytes by a forwarding record asks for twice its count.
    explicit RequestLimits(int wanted = 0, bool remote = false, int pdu = UsualPdu);

    /// Bytes, timers or counters of one read, by its register type. At least one element of
    /// whatever width, so a double word: should that not fit, the controller says so.
    int read(int type) const;

    /// Words, timers or counters of one write.
    int write(int type) const;

    /// The driver's block length limit for single requests.
    int single() const;

    /// The same for a cyclic list of `variables`, of which those outside their areas do not count.
    /// The driver merges neighbours up to it whatever their kind takes in a reply.
    int list(const QVector<Variable>& variables) const;

    /// True if all analogue inputs, or outputs, of a list with that limit may be read at once,
    /// being so many bytes from the first to the last: the driver cannot cut them.
    bool mergesAnalog(int bytes, int listLimit) const;

private:
    int fitting(int type) const;

    int m_wanted;
    bool m_isRemote;
    int m_pdu;
};

} // namespace s7200

#endif
