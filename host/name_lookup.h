#ifndef HOST_NAME_LOOKUP_H
#define HOST_NAME_LOOKUP_H

#include <QHostAddress>
#include <QList>
#include <QObject>

#include <memory>

namespace s7200
{

/// Looks host names up without ever holding anybody up: neither the event loop nor, should a name
/// server stay silent, the end of the program. One name at a time; the answer comes as a signal on
/// the object's thread.
class NameLookup : public QObject
{
    Q_OBJECT
public:
    explicit NameLookup(QObject* parent = nullptr);
    ~NameLookup() override;

    /// Begins. A look-up of the same name that is still under way goes on, and an answer that came
    /// after it was given up is taken.
    void start(const QString& name);

    /// Gives the answer up. The look-up itself cannot be ended and goes on by itself.
    void abandon();

Q_SIGNALS:
    void found(const QList<QHostAddress>& addresses); ///< Empty: there is no such name.

private:
    struct Shared;
    void tell();

    std::shared_ptr<Shared> m_shared;
    bool m_wanted = false;
};

} // namespace s7200

#endif
