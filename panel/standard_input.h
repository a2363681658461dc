#ifndef PANEL_STANDARD_INPUT_H
#define PANEL_STANDARD_INPUT_H

#include <QByteArray>
#include <QSocketNotifier>
#include <QString>

#include <functional>
#include <memory>

namespace s7200::panel
{

/// Standard input as it comes, in the event loop. Its end ends nothing.
class StandardInput
{
public:
    explicit StandardInput(const std::function<void(const QByteArray&)>& handler);

private:
    void read();

    std::function<void(const QByteArray&)> m_handler;
    std::unique_ptr<QSocketNotifier> m_notifier;
};

/// Cuts bytes into lines, without outer blanks; empty ones are left out.
class LineCutter
{
public:
    QStringList feed(const QByteArray& bytes);

private:
    QByteArray m_rest;
};

} // namespace s7200::panel

#endif
