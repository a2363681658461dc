#ifndef S7200HOST_VALUE_H
#define S7200HOST_VALUE_H

#include <s7200host/export.h>

#include <QString>
#include <QVector>
#include <QtGlobal>

namespace s7200
{

/// How far a value can be trusted.
enum class Quality {
    Good,      ///< Read in time, and not written since.
    Stale,     ///< Not read for three intervals, or for three times as long as reading everything
               ///< takes if that is more; or written and not yet read back.
    NeverRead, ///< Not read since the controller object was started or the variable listed.
    Refused,   ///< The controller refuses to give it; tried again now and then.
    LinkDown,  ///< The link is not up; the elements are those read last, if any.
};

/// "good", "stale", "never read", "refused", "link down".
S7200HOST_EXPORT QString describe(Quality quality);

/// What is known of a variable.
struct Value {
    QVector<quint32> elements; ///< Right-aligned, as decodeValues() gives them; empty: never read.
    /// Of the reading, since 1970-01-01 UTC; 0: never read. It is when the request was sent, the
    /// first time if it had to be repeated, and of several requests the earliest: no element is
    /// older. It stays what it was then, however the clock is set.
    qint64 timeMs = 0;
    qint64 ageMs = -1; ///< Since the reading, the time of a suspended machine included; -1: never.
    Quality quality = Quality::NeverRead; ///< Whether it may be shown as current.
    QString detail;                       ///< Why it was refused or the link is down, for people.
};

} // namespace s7200

#endif
