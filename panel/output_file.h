#ifndef PANEL_OUTPUT_FILE_H
#define PANEL_OUTPUT_FILE_H

#include <QByteArray>
#include <QString>
#include <QtGlobal>

namespace s7200::panel
{

/// Where records go: standard output, or a file that grows at its end, so that another program may
/// cut it, or move it away and have it reopened. Every write reaches the system at once.
class OutputFile
{
public:
    OutputFile() = default; ///< Standard output.
    ~OutputFile();
    Q_DISABLE_COPY(OutputFile)

    /// Creates the file, or opens it to append to it, on a new line if the last one has no end.
    /// False with a one-line `error`.
    bool open(const QString& file, QString* error);

    /// Opens the file of that name anew, which is another one if it was moved away; the old one
    /// stays if that fails. Does nothing for standard output.
    bool reopen(QString* error);

    /// `header` goes before `lines` where a file begins: at the first write to standard output, and
    /// whenever the file is empty. The first failure is reported once and ends the event loop with
    /// ExitOutput; false then and ever after, and nothing of that write is left in the file.
    bool write(const QByteArray& header, const QByteArray& lines);

private:
    bool isAtStart() const;
    bool fail(int errorNumber);

    QString m_name;
    int m_descriptor = -1; ///< -1: standard output.
    bool m_begun = false;
    bool m_endsTorn = false; ///< The file, at its opening.
    bool m_failed = false;
};

} // namespace s7200::panel

#endif
