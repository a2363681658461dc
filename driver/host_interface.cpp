#include <siemens_s7_200_cp243/host_interface.h>

#include "core/guard.h"
#include "core/siemens_s7_200.h"

#include <QMutexLocker>

void* LB = nullptr;
unsigned short* LW = nullptr;
void* RWI = nullptr;

void SetComInfo(COM_INFO* info)
{
    Q_ASSERT(info);
    PLC_driver.com_info = info;
    info->unused13 = 0;
    info->link_down = 1;
}

void RegistCallBackFuncIntf(CallBackFunc callback, int arg)
{
    PLC_driver.call_back = callback;
    PLC_driver.call_back_arg = arg;
}

void FlashLocalRegister(void* bits, void* words, void* third)
{
    LB = bits;
    LW = static_cast<unsigned short*>(words);
    RWI = third;
}

void EnableEthernet(int station, int enable)
{
    QMutexLocker lock(&PLC_driver.station_mutex);
    cp243::guarded(0, [=] {
        if (station < 0)
            PLC_driver.disabled_stations.clear();
        else if (enable == 0)
            PLC_driver.disabled_stations.insert(station, 0);
        else if (enable == 1)
            PLC_driver.disabled_stations.remove(station);
        return 0;
    });
}

int QueryFinishFlag()
{
    return 1;
}
