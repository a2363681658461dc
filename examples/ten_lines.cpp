#include <s7200host/controller.h>

#include <QCoreApplication>
#include <QDebug>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    s7200::ControllerSettings settings;
    settings.endpoint = {QString(argv[1]), quint16(atoi(argv[2]))};
    s7200::Controller controller(settings);
    controller.watch(QStringList{"VW0", "Q0.0"});
    QObject::connect(&controller, &s7200::Controller::cycleDone,
                     [&] { qInfo() << "VW0 =" << controller.value(0).elements.value(0); });
    controller.start();
    controller.write("VW102=7");
    return application.exec();
}
