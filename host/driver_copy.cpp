#include "host/driver_copy.h"

#include <s7200host/controller.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryFile>

#include <dlfcn.h>

#include <mutex>

namespace s7200
{

namespace
{

const char* const FileName = "libSiemens_S7_200_cp243.so.1";

/// The file that copies are made of, read once, and the drivers that are loaded.
struct Shelf {
    std::mutex mutex;
    QString file;
    QDateTime modified;
    QByteArray bytes;
    QSet<void*> objects; ///< PLC_driver of every copy.
};

Shelf& shelf()
{
    static Shelf* const one = new Shelf; // outlives static objects that own copies
    return *one;
}

bool readFile(Shelf& shelf, const QString& name, QString* error)
{
    const QDateTime modified = QFileInfo(name).lastModified();
    if (shelf.file == name && shelf.modified == modified)
        return true;
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("driver library %1: %2").arg(name, file.errorString());
        return false;
    }
    shelf.bytes = file.readAll();
    shelf.file = name;
    shelf.modified = modified;
    return true;
}

/// Opens a copy in `directory`. The copy is gone from there when this returns.
void* openCopy(const Shelf& shelf, const QString& directory, QString* error)
{
    QTemporaryFile copy(directory + QStringLiteral("/s7200-driver-XXXXXX"));
    if (!copy.open() || copy.write(shelf.bytes) != shelf.bytes.size() || !copy.flush()) {
        *error = QStringLiteral("no copy of the driver library in %1: %2")
                     .arg(directory, copy.errorString());
        return nullptr;
    }
    void* const library =
        dlopen(QFile::encodeName(copy.fileName()).constData(), RTLD_NOW | RTLD_LOCAL);
    if (!library) // the loader names the copy, which nobody knows
        *error = QStringLiteral("driver library %1 cannot be loaded as a copy in %2: %3")
                     .arg(shelf.file, directory,
                          QString::fromLocal8Bit(dlerror()).simplified().remove(
                              copy.fileName() + QStringLiteral(": ")));
    return library;
}

/// True in a program that is linked to a driver: all references of a copy would bind to that one,
/// and loading the copy would construct it anew.
bool programHasDriver()
{
    void* const program = dlopen(nullptr, RTLD_LAZY);
    const bool found = program && dlsym(program, "PLC_driver");
    if (program)
        dlclose(program);
    return found;
}

} // namespace

DriverCopy::~DriverCopy()
{
    if (!m_library)
        return;
    const std::lock_guard<std::mutex> lock(shelf().mutex);
    shelf().objects.remove(m_object);
    dlclose(m_library);
}

bool DriverCopy::load(const QString& file, QString* error)
{
    const std::lock_guard<std::mutex> lock(shelf().mutex);
    if (programHasDriver()) {
        *error = QStringLiteral("the program is linked to the driver library, so there can be no "
                                "copies of it: link libs7200host alone");
        return false;
    }
    if (!readFile(shelf(), QFileInfo(file).absoluteFilePath(), error))
        return false;
    // A temporary directory may be mounted so that nothing in it can be executed.
    for (const QString& directory :
         {QDir::tempPath(), QStringLiteral("/var/tmp"), QStringLiteral("/dev/shm")}) {
        QString reason;
        m_library = openCopy(shelf(), directory, &reason);
        if (m_library)
            break;
        if (error->isEmpty())
            *error = reason;
    }
    if (!m_library)
        return false;
    error->clear();
    return resolve(&SetComInfo, "SetComInfo", error) &&
           resolve(&RegistCallBackFuncIntf, "RegistCallBackFuncIntf", error) &&
           resolve(&FlashLocalRegister, "FlashLocalRegister", error) &&
           resolve(&ReCreatReadVarList, "ReCreatReadVarList", error) &&
           resolve(&AddListReadVar, "AddListReadVar", error) &&
           resolve(&AddListOnceReadVar, "AddListOnceReadVar", error) &&
           resolve(&AddListWriteVar, "AddListWriteVar", error) &&
           resolve(&ComCommunication, "ComCommunication", error) &&
           resolve(&DataCom, "DataCom", error) &&
           resolve(&GetRegisterData, "GetRegisterData", error) &&
           resolve(&SetRegisterData, "SetRegisterData", error) && isSeparate(error);
}

template <typename Symbol>
bool DriverCopy::resolve(Symbol* symbol, const char* name, QString* error)
{
    *symbol = reinterpret_cast<Symbol>(dlsym(m_library, name));
    if (!*symbol)
        *error =
            QStringLiteral("driver library %1 has no %2").arg(shelf().file, QLatin1String(name));
    return *symbol != nullptr;
}

/// Its data must lie where no other copy's do.
bool DriverCopy::isSeparate(QString* error)
{
    if (!resolve(&m_object, "PLC_driver", error))
        return false;
    if (!shelf().objects.contains(m_object)) {
        shelf().objects.insert(m_object);
        return true;
    }
    m_object = nullptr;
    *error =
        QStringLiteral("driver library %1 cannot be loaded as a copy of its own").arg(shelf().file);
    return false;
}

COM_INFO comInfoFor(const ControllerSettings& settings)
{
    COM_INFO info = {};
    info.block_length_limit = settings.blockLimit;
    info.default_station = settings.defaultStation;
    info.retry_limit = settings.retries;
    info.per_variable_stations = settings.stations.isEmpty() ? 0 : 1;
    info.remote_access = settings.remoteAccess ? 1 : 0;
    info.link_id = 1; // the same in all requests: a reply to another link's is not stored
    info.communication_mode = Mode_WriteThrough;
    return info;
}

QString findDriver(const QString& file, QString* error)
{
    const QString name = QLatin1String(FileName);
    const QString program = QCoreApplication::applicationDirPath();
    QStringList tried{file};
    if (file.isEmpty()) {
        tried = QStringList{
            program + QLatin1Char('/') + name,
            program + QStringLiteral("/../lib/") + name,
#ifdef S7200_LIBDIR_FROM_BINDIR
            program + QLatin1Char('/') + QLatin1String(S7200_LIBDIR_FROM_BINDIR) +
                QLatin1Char('/') + name,
#endif
        };
        // Beside this library, which is where both are built and installed.
        Dl_info self = {};
        if (dladdr(reinterpret_cast<void*>(&findDriver), &self) != 0)
            tried << QFileInfo(QFile::decodeName(self.dli_fname)).absolutePath() +
                         QLatin1Char('/') + name;
        // Where the loader finds it, that is the file: it is asked and let go of again.
        if (void* const library = dlopen(FileName, RTLD_LAZY | RTLD_LOCAL)) {
            Dl_info info = {};
            if (dladdr(dlsym(library, "ComCommunication"), &info) != 0)
                tried << QFile::decodeName(info.dli_fname);
            dlclose(library);
        }
        // Once there are copies it answers with one of them, whose file is gone.
        const std::lock_guard<std::mutex> lock(shelf().mutex);
        if (!shelf().file.isEmpty())
            tried << shelf().file;
    }
    for (const QString& candidate : std::as_const(tried)) {
        if (QFileInfo(candidate).isFile())
            return QFileInfo(candidate).absoluteFilePath();
    }
    *error = file.isEmpty() ? QStringLiteral("no driver library %1 beside the program, in ../lib "
                                             "or where the system's loader looks")
                                  .arg(name)
                            : QStringLiteral("no driver library %1").arg(file);
    return QString();
}

} // namespace s7200
