#ifndef VARLISTS_FUNC_INITI_H
#define VARLISTS_FUNC_INITI_H

/// Address texts, the cyclic list and its grouping, the write queue and one-shot reads. The
/// exported list functions are declared in host_interface.h.

#include <siemens_s7_200_cp243/export.h>
#include <siemens_s7_200_cp243/host_interface.h>

#include <QList>
#include <QString>

/// Numeric address of a text: byte * 8 + bit for types 0 to 5, else the decimal number (which may
/// be negative: callers treat any negative result as invalid). -1 when the text does not convert.
CP243_EXPORT int StringAddressToInt(int regType, QString text);

/// Folds bit, byte and double-word types onto the word type of the same area, in place.
CP243_EXPORT void setReg_type(RW_VAR* var);

/// Cuts the range of `total` units at var->address into pieces of `piece` and appends a copy of
/// `var` for each to `target`; `var` is left holding the last piece. `piece` 0 is one piece. Makes
/// as many pieces as it is asked for: the list calls bound the total before they cut it.
CP243_EXPORT void WhetherGroup(int total, int piece, RW_VAR* var, QList<RW_VAR>* target);

/// Stable ascending sort by address.
CP243_EXPORT void Bubble_Sort(QList<RW_VAR>* list);

#endif
