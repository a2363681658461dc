#ifndef HOST_DRIVER_COPY_H
#define HOST_DRIVER_COPY_H

#include <siemens_s7_200_cp243/host_interface.h>

#include <QString>

namespace s7200
{

struct ControllerSettings;

/// What a driver for this controller is to be given by SetComInfo.
COM_INFO comInfoFor(const ControllerSettings& settings);

/// A driver of one's own: a private copy of the library file, loaded with local binding, with its
/// own lists, image and stations. The members are its entry points under their own names,
/// documented in host_interface.h; valid from load() to the object's end, like everything that
/// they have returned or been given.
///
/// Any number in a process, in any threads. Loading takes a lock.
class DriverCopy
{
public:
    DriverCopy() = default;
    ~DriverCopy();

    /// Loads a copy of `file`. False with a one-line `error` if that fails, an entry point is
    /// missing, or the copy shares its state with another driver of the process.
    bool load(const QString& file, QString* error);

    decltype(&::SetComInfo) SetComInfo = nullptr;
    decltype(&::RegistCallBackFuncIntf) RegistCallBackFuncIntf = nullptr;
    decltype(&::FlashLocalRegister) FlashLocalRegister = nullptr;
    decltype(&::ReCreatReadVarList) ReCreatReadVarList = nullptr;
    decltype(&::AddListReadVar) AddListReadVar = nullptr;
    decltype(&::AddListOnceReadVar) AddListOnceReadVar = nullptr;
    decltype(&::AddListWriteVar) AddListWriteVar = nullptr;
    decltype(&::ComCommunication) ComCommunication = nullptr;
    decltype(&::DataCom) DataCom = nullptr;
    decltype(&::GetRegisterData) GetRegisterData = nullptr;
    decltype(&::SetRegisterData) SetRegisterData = nullptr;

private:
    Q_DISABLE_COPY(DriverCopy)

    template <typename Symbol>
    bool resolve(Symbol* symbol, const char* name, QString* error);
    bool isSeparate(QString* error);

    void* m_library = nullptr;
    void* m_object = nullptr; ///< Its PLC_driver.
};

} // namespace s7200

#endif
