#ifndef PANEL_DISPLAY_H
#define PANEL_DISPLAY_H

#include <QString>
#include <QStringList>

/// Shows lines that change: on a terminal in place, above a status line and a line for typing;
/// otherwise each line as it changes. Values go to standard output, the rest to standard error.
class Display
{
public:
    /// `quietStatus`: no status line on standard error, since something else is written there.
    explicit Display(bool quietStatus);

    /// True if show() draws in place.
    bool isInPlace() const;

    /// The number of lines stays the same from call to call.
    void show(const QStringList& lines, const QString& status);

    /// A line on standard error, not to be overwritten.
    void message(const QString& text);

    /// To be called when the user has finished a typed line.
    void lineTyped();

    /// Leaves the terminal as the next program expects it. False if standard output is broken.
    bool end();

private:
    void draw();
    void redraw();
    QString clipped(const QString& text) const;

    bool inPlace;
    bool statusInPlace; ///< Status line on a terminal while the values go elsewhere.
    bool prompts;       ///< Lines are typed.
    QStringList shown;  ///< As given.
    QString shownStatus;
    int rows = 0; ///< Lines of values drawn; 0: nothing drawn yet.
    int columns = 0;
};

#endif
