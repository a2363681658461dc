#ifndef HOST_DRIVER_LIBRARY_H
#define HOST_DRIVER_LIBRARY_H

#include <siemens_s7_200_cp243/host_interface.h>

#include <QLibrary>
#include <QString>

namespace s7200
{

/// The driver, loaded from its file at run time. The members are its entry points under their own
/// names and documented in driver/host_interface.h.
///
/// There is one driver in a process, however often its file is loaded, and it is never unloaded:
/// it keeps pointers to what its host registered.
class DriverLibrary
{
public:
    /// Loads `file`; an empty name stands for the library beside the program or in ../lib.
    /// False with a one-line `error` if it cannot be loaded or an entry point is missing.
    bool load(const QString& file, QString* error);

    decltype(&::SetComInfo) SetComInfo = nullptr;
    decltype(&::RegistCallBackFuncIntf) RegistCallBackFuncIntf = nullptr;
    decltype(&::FlashLocalRegister) FlashLocalRegister = nullptr;
    decltype(&::ReCreatReadVarList) ReCreatReadVarList = nullptr;
    decltype(&::AddListOnceReadVar) AddListOnceReadVar = nullptr;
    decltype(&::ComCommunication) ComCommunication = nullptr;
    decltype(&::DataCom) DataCom = nullptr;
    decltype(&::GetRegisterData) GetRegisterData = nullptr;
    decltype(&::SetRegisterData) SetRegisterData = nullptr;

private:
    template <typename Function>
    bool resolve(Function* function, const char* name, QString* error);

    QLibrary library;
};

} // namespace s7200

#endif
