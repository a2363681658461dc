#include "panel/keyboard.h"

#include <QTextBoundaryFinder>

namespace s7200::panel
{

namespace
{

constexpr int LongestLine = 1000;
constexpr int LongestSequence = 16;
constexpr char Escape = 0x1b;
constexpr char CtrlD = 0x04;
constexpr char CtrlL = 0x0c;
constexpr char CtrlU = 0x15;
constexpr char CtrlW = 0x17;
constexpr char Backspace = 0x08;
constexpr char Delete = 0x7f;

/// How many bytes a letter has that begins with this one.
int lettersBytes(char first)
{
    const auto byte = uchar(first);
    return byte < 0xC0 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

/// Where the last letter begins, the marks on it included.
int lastLetter(const QString& text)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    finder.toEnd();
    return qMax(0, int(finder.toPreviousBoundary()));
}

} // namespace

QVector<Key> Keyboard::feed(const QByteArray& bytes)
{
    QVector<Key> keys;
    for (const char byte : bytes)
        feedByte(byte, &keys);
    return keys;
}

const QString& Keyboard::typed() const
{
    return m_typed;
}

void Keyboard::clear()
{
    m_typed.clear();
    m_letter.clear();
}

bool Keyboard::isInSequence() const
{
    return !m_sequence.isEmpty();
}

void Keyboard::endEscape()
{
    m_sequence.clear();
    clear();
}

void Keyboard::feedByte(char byte, QVector<Key>* keys)
{
    if (!m_sequence.isEmpty()) {
        // ESC [ or ESC O, parameters, and a last byte from 0x40 on.
        const bool begins = m_sequence.size() == 1;
        if (!begins || byte == '[' || byte == 'O') {
            m_sequence += byte;
            if (!begins && (byte >= 0x40 || m_sequence.size() > LongestSequence))
                endSequence(keys);
            return;
        }
        endEscape(); // no letter may be lost: the rest could name another variable
    }
    if (byte == Escape) {
        m_sequence = QByteArray(1, byte);
        return;
    }
    if ((uchar(byte) < 0x20 || byte == Delete) && m_letter.isEmpty()) {
        control(byte, keys);
        return;
    }
    if (byte == ' ' && m_typed.isEmpty()) {
        keys->append(Key{Key::PageDown, {}});
        return;
    }
    m_letter += byte;
    if (m_letter.size() < lettersBytes(m_letter.at(0)))
        return;
    if (m_typed.size() < LongestLine)
        m_typed += QString::fromUtf8(m_letter);
    m_letter.clear();
    keys->append(Key{Key::Edited, {}});
}

void Keyboard::control(char byte, QVector<Key>* keys)
{
    switch (byte) {
    case '\r':
    case '\n':
        keys->append(Key{Key::Line, m_typed.trimmed()});
        m_typed.clear();
        return;
    case CtrlD:
        if (m_typed.isEmpty())
            keys->append(Key{Key::Leave, {}});
        return;
    case CtrlL:
        keys->append(Key{Key::Redraw, {}});
        return;
    case Backspace:
    case Delete:
        m_typed.truncate(lastLetter(m_typed));
        break;
    case CtrlU:
        m_typed.clear();
        break;
    case CtrlW:
        m_typed.truncate(m_typed.trimmed().lastIndexOf(QLatin1Char(' ')) + 1);
        break;
    default:
        return;
    }
    keys->append(Key{Key::Edited, {}});
}

void Keyboard::endSequence(QVector<Key>* keys)
{
    const struct {
        const char* sequence; ///< Behind ESC and its [ or O.
        Key::Kind kind;
    } rows[] = {
        {"A", Key::Up},      {"B", Key::Down},      {"H", Key::Home}, {"F", Key::End},
        {"1~", Key::Home},   {"7~", Key::Home},     {"4~", Key::End}, {"8~", Key::End},
        {"5~", Key::PageUp}, {"6~", Key::PageDown},
    };
    const QByteArray sequence = m_sequence.mid(2);
    m_sequence.clear();
    for (const auto& row : rows) {
        if (sequence == row.sequence)
            keys->append(Key{row.kind, {}});
    }
}

} // namespace s7200::panel
