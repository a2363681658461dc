#include "simulator/item_text.h"

namespace s7200::sim
{

namespace
{

constexpr int MostBytesShown = 16;
constexpr const char* AreaNames[] = {"I", "Q", "M", "S", "SM", "V", "AI", "AQ", "T", "C"};

QString widthLetter(int elementBytes)
{
    switch (elementBytes) {
    case 1:
        return QStringLiteral("B");
    case 2:
        return QStringLiteral("W");
    case 4:
        return QStringLiteral("D");
    default:
        return QString();
    }
}

QString hexNumber(const QByteArray& bytes)
{
    const QString digits = QString::fromLatin1(bytes.left(MostBytesShown).toHex());
    return QStringLiteral("0x") + digits +
           QLatin1String(bytes.size() > MostBytesShown ? "..." : "");
}

} // namespace

QString ItemText::name() const
{
    if (!known)
        return QStringLiteral("unknown area");
    const QString areaName = QLatin1String(AreaNames[size_t(area)]);
    if (ControllerMemory::elementSize(area) > 1)
        return areaName + QString::number(address);
    const QString byteNumber = QString::number(address / 8);
    if (isBit)
        return areaName + byteNumber + QLatin1Char('.') + QString::number(address % 8);
    return areaName + widthLetter(elementBytes) + byteNumber;
}

QString ItemText::line(ItemCode returnCode, JobError jobError) const
{
    QString text = (isWrite ? QStringLiteral("write ") : QStringLiteral("read ")) + name();
    if (count != 1)
        text += QStringLiteral(" x %1").arg(count);
    if (isWrite)
        text += QStringLiteral(" = ") + hexNumber(data);
    if (jobError != JobError::None)
        return text + QStringLiteral(" refused: ") + describe(jobError);
    if (returnCode != ItemCode::Success)
        return text + QStringLiteral(" refused: ") + describe(returnCode);
    return text + QStringLiteral(" -> ok");
}

} // namespace s7200::sim
