#ifndef S7200HOST_TAG_H
#define S7200HOST_TAG_H

#include <s7200host/export.h>
#include <s7200host/scaling.h>
#include <s7200host/variable.h>

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace s7200
{

/// Where an element stands against the limits of its tag.
enum class Limit { Inside, Low, High };

/// A variable with what people know of it. A variable that was named by its address is a tag
/// without a name.
struct S7200HOST_EXPORT Tag {
    QString name;                    ///< Empty if it was named by its address.
    QString controller;              ///< Its name; empty: none is named.
    Variable variable;               ///< Address and format.
    QString unit;                    ///< For people.
    Scaling scaling;                 ///< Identity for formats hex and binary and for bits.
    int decimals = -1;               ///< Shown; -1: as many as the scaling gives.
    std::optional<Decimal> deadBand; ///< A change of no more than this is none.
    std::optional<Decimal> low;      ///< Less than this is too little.
    std::optional<Decimal> high;     ///< More than this is too much.
    QString comment;                 ///< For people.
    int line = 0;                    ///< Of the file that it stands in, from 1; 0: of none.

    QString label() const;   ///< The name, or the variable's with a format that was given.
    QString address() const; ///< "VW100x4@3/hex".

    /// One element, scaled and with the decimals shown; without the unit.
    QString text(quint32 element) const;
    /// All elements, separated by blanks.
    QString text(const QVector<quint32>& elements) const;
    /// All elements with every place, separated by commas: parseValues() gives the same bits.
    QString exactText(const QVector<quint32>& elements) const;
    /// One element as text() shows it, as a number whatever the notation; NaN if it is none.
    double number(quint32 element) const;

    /// True if an element differs by more than the dead band, or their number does.
    bool hasChanged(const QVector<quint32>& before, const QVector<quint32>& now) const;
    Limit limit(quint32 element) const; ///< Whether an element lies outside low and high.

    /// Reads one value for each element, separated by commas, scaled; 0x and 0b give the bits as
    /// the controller holds them. False with a one-line `error` that says what would be right,
    /// also for a variable that cannot be written.
    bool parseValues(const QString& text, QVector<quint32>* elements, QString* error) const;
};

/// Labels for tags that are shown together: those of one variable in two formats carry the format,
/// and all carry their controller, as in press1:VW100 or VW100@3, unless it is the same for all.
S7200HOST_EXPORT QStringList labelsOf(const QVector<Tag>& tags);

/// Tags by name, as a tag file lists them: CSV in UTF-8 with a header line, separated by commas,
/// semicolons or tabs, columns in any order:
///
///   name, controller, address, format, unit, scale, offset, decimals, deadband, low, high, comment
///
/// Only name and address are required. Names are the same in upper and lower case, and are unique
/// for a controller. A file of more than 16 MiB is not read, and of many faults the first twenty
/// are told and the rest counted.
class S7200HOST_EXPORT TagTable
{
public:
    /// Nothing, with a line for each fault in `errors` ("FILE line 7: ..."), if there is any.
    /// `controllers`: names that the column may hold; null: any.
    static std::optional<TagTable> load(const QString& file, const QStringList* controllers,
                                        QStringList* errors);
    /// The same from the file's contents.
    static std::optional<TagTable> parse(const QByteArray& csv, const QString& file,
                                         const QStringList* controllers, QStringList* errors);

    const QVector<Tag>& tags() const; ///< In the order of the file.

    /// What stands where a variable may: a tag's name, a pattern of names with * and ?, or an
    /// address; each also behind CONTROLLER and a colon, which a tag without a controller then
    /// gets. A name that is also an address is the tag. In the order of the file; empty with a
    /// one-line `error` if nothing is meant. Also works for an empty table.
    QVector<Tag> lookup(const QString& text, QString* error) const;

    /// Reads WHAT=VALUE[,VALUE...], where WHAT is exactly one of what lookup() takes. The format
    /// of a variable without one becomes that of the values, so that they read back as written.
    /// False with a one-line `error`.
    bool parseAssignment(const QString& text, Tag* tag, QVector<quint32>* elements,
                         QString* error) const;

private:
    Q_DECL_HIDDEN QVector<Tag> named(const QString& name, const QString* controller) const;

    QVector<Tag> m_tags;
    QHash<QString, QVector<int>> m_byName; ///< Indexes in m_tags, by name in lower case.
};

} // namespace s7200

#endif
