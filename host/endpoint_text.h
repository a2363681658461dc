#ifndef HOST_ENDPOINT_TEXT_H
#define HOST_ENDPOINT_TEXT_H

#include <QString>

namespace s7200
{

// What people call controllers, in files and on the command line.

/// What is wrong with a controller's name; empty: nothing.
QString faultOfName(const QString& name);

/// False for what can be no host's name and no address, such as one with a port behind it.
bool isHost(const QString& text);

} // namespace s7200

#endif
