// A program that is itself linked to the driver cannot have copies of it: it is told so, and its
// own driver stays as it was.

#include "core/siemens_s7_200.h"
#include "host/driver_copy.h"
#include <s7200host/controller.h>

#include <QtTest>

using namespace s7200;

class DriverCopyTest : public QObject
{
    Q_OBJECT

private slots:
    void programLinkedToTheDriver()
    {
        unsigned short words[4] = {};
        FlashLocalRegister(nullptr, words, nullptr);
        RW_VAR request;
        AddListOnceReadVar(&request, List_Append);

        ControllerSettings settings;
        settings.endpoint.host = "127.0.0.1";
        Controller controller(settings);
        QString error;
        QVERIFY(!controller.start(&error));
        QVERIFY2(error.contains("linked to"), qPrintable(error));
        QCOMPARE(static_cast<void*>(LW), static_cast<void*>(words));
        QCOMPARE(PLC_driver.once_read_list.size(), 1);
    }
};

QTEST_GUILESS_MAIN(DriverCopyTest)
#include "driver_copy_test.moc"
