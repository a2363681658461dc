#ifndef PANEL_STANDARD_INPUT_H
#define PANEL_STANDARD_INPUT_H

#include <QByteArray>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

namespace s7200::panel
{

/// Standard input as it comes, in the event loop; its end, which ends nothing, as no bytes. A
/// terminal is read only in the foreground.
class StandardInput
{
public:
    explicit StandardInput(const std::function<void(const QByteArray&)>& handler);

private:
    void read();

    std::function<void(const QByteArray&)> m_handler;
    std::unique_ptr<QSocketNotifier> m_notifier;
    QTimer m_pause; ///< Runs in the background.
};

/// Cuts bytes into lines, without outer blanks; empty ones are left out.
class LineCutter
{
public:
    QStringList feed(const QByteArray& bytes);
    QString rest() const; ///< Of a line that has not ended.

private:
    QByteArray m_rest;
    bool m_tooLong = false; ///< The line in m_rest, which is left out.
};

} // namespace s7200::panel

#endif
