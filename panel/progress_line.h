#ifndef PANEL_PROGRESS_LINE_H
#define PANEL_PROGRESS_LINE_H

#include <QElapsedTimer>
#include <QString>
#include <QTimer>

namespace s7200::panel
{

/// "42 of 100 read" on standard error while something takes longer than a second, if that is a
/// terminal; gone without a trace when the object is. Needs a running event loop.
class ProgressLine
{
public:
    /// `what`: "read".
    ProgressLine(const QString& what, int total);
    ~ProgressLine();
    Q_DISABLE_COPY(ProgressLine)

    void advance();

private:
    void draw();

    const QString m_what;
    const int m_total;
    int m_done = 0;
    bool m_drawn = false;
    QElapsedTimer m_since;
    QTimer m_timer;
};

} // namespace s7200::panel

#endif
