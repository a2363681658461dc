#ifndef PANEL_KEYBOARD_H
#define PANEL_KEYBOARD_H

#include <QByteArray>
#include <QString>
#include <QVector>

namespace s7200::panel
{

/// What a key means on the screen.
struct Key {
    enum Kind { Line, Leave, Redraw, Up, Down, PageUp, PageDown, Home, End, Edited };
    Kind kind;
    QString line; ///< Of Line: what was typed before Enter, without outer blanks.
};

/// Turns a terminal's bytes into keys and a line being typed. Knows nothing of a terminal.
class Keyboard
{
public:
    /// Bytes as they come, in pieces of any size.
    QVector<Key> feed(const QByteArray& bytes);

    const QString& typed() const; ///< Not yet ended by Enter.
    void clear();

    /// True from ESC on until it is clear which key it was.
    bool isInSequence() const;
    /// Nothing more has come for a while: it was the key ESC, which clears what was typed.
    void endEscape();

private:
    void feedByte(char byte, QVector<Key>* keys);
    void endSequence(QVector<Key>* keys);
    void control(char byte, QVector<Key>* keys);

    QString m_typed;
    QByteArray m_letter;   ///< Bytes of a letter (UTF-8) that is not whole.
    QByteArray m_sequence; ///< Of a key beyond letters, from ESC on.
};

} // namespace s7200::panel

#endif
