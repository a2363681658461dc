// What of libs7200host's interface its names do not tell: the layout of the public types, as
// compiled into programs. From its debug information the binary interface is described.

#include <s7200host/controller_file.h>
#include <s7200host/value_file.h>

using namespace s7200;

/// Names every public type that is no part of another one.
Q_DECL_EXPORT void hostTypes(const Controller&, const ControllerSettings&, const Result&,
                             const LinkStatistics&, const LinkStatus&, const Scaling::Inverse&,
                             const TagTable&, const TagValue&, Limit)
{
}
