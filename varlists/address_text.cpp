#include "varlists/Func_Initi.h"

#include "core/checked_int.h"
#include "core/guard.h"
#include "core/register_properties.h"

#include <QStringList>

using namespace cp243;

namespace
{

constexpr int InvalidAddress = -1;

bool isBitType(int regType)
{
    return regType >= Type_I && regType <= Type_V;
}

} // namespace

int StringAddressToInt(int regType, QString text)
{
    if (!isBitType(regType)) {
        bool valid = false;
        const int number = text.toInt(&valid);
        return valid ? number : InvalidAddress;
    }
    if (!text.contains(QLatin1Char('.')))
        return InvalidAddress;
    // Any bit number will do, and a part that is none counts as 0. Deliberate: docs/oddities.md,
    // Values.
    const QStringList parts = text.split(QLatin1Char('.'));
    const qint64 address = qint64(parts.at(0).toInt()) * 8 + parts.at(1).toInt();
    return fitsInt(address) ? int(address) : InvalidAddress;
}

int PLCAddressChangeIntef(int regType, QString text)
{
    return guarded(InvalidAddress, [&] { return StringAddressToInt(regType, text); });
}

void setReg_type(RW_VAR* var)
{
    if (const RegisterTypeInfo* type = registerTypeInfo(var->reg_type))
        var->reg_type = type->wordType;
}
