#include "host/driver_library.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace s7200
{

namespace
{

const char* const FileName = "libSiemens_S7_200_cp243.so.1";

QString defaultFile()
{
    const QString directory = QCoreApplication::applicationDirPath();
    const QString beside = directory + QLatin1Char('/') + QLatin1String(FileName);
    if (QFileInfo::exists(beside))
        return beside;
    return directory + QStringLiteral("/../lib/") + QLatin1String(FileName);
}

} // namespace

template <typename Function>
bool DriverLibrary::resolve(Function* function, const char* name, QString* error)
{
    *function = reinterpret_cast<Function>(library.resolve(name));
    if (!*function)
        *error = QStringLiteral("%1 has no %2").arg(library.fileName(), QLatin1String(name));
    return *function != nullptr;
}

bool DriverLibrary::load(const QString& file, QString* error)
{
    library.setFileName(file.isEmpty() ? defaultFile() : QFileInfo(file).absoluteFilePath());
    if (!QFileInfo::exists(library.fileName())) {
        *error = QStringLiteral("no driver library %1").arg(library.fileName());
        return false;
    }
    if (!library.load()) {
        *error = library.errorString().simplified();
        return false;
    }
    return resolve(&SetComInfo, "SetComInfo", error) &&
           resolve(&RegistCallBackFuncIntf, "RegistCallBackFuncIntf", error) &&
           resolve(&FlashLocalRegister, "FlashLocalRegister", error) &&
           resolve(&ReCreatReadVarList, "ReCreatReadVarList", error) &&
           resolve(&AddListOnceReadVar, "AddListOnceReadVar", error) &&
           resolve(&ComCommunication, "ComCommunication", error) &&
           resolve(&DataCom, "DataCom", error) &&
           resolve(&GetRegisterData, "GetRegisterData", error) &&
           resolve(&SetRegisterData, "SetRegisterData", error);
}

} // namespace s7200
