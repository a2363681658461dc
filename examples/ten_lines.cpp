#include <s7200host/controller.h>

#include <QCoreApplication>
#include <QDebug>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList words = application.arguments();
    s7200::ControllerSettings settings;
    settings.endpoint = {words.value(1), words.value(2).toUShort()};
    s7200::Controller controller(settings);
    controller.watch(QStringList{"VW0", "Q0.0"});
    QObject::connect(&controller, &s7200::Controller::cycleDone,
                     [&] { qInfo() << "VW0 =" << controller.value(0).elements.value(0); });
    QObject::connect(&controller, &s7200::Controller::linkChanged, [&] {
        const s7200::LinkStatus link = controller.link();
        qInfo().noquote() << controller.name() << describe(link.state) << link.detail;
    });
    QString error = "it takes HOST and PORT, 1 to 65535, as in: ten_lines 192.168.0.5 102";
    if (words.size() != 3 || settings.endpoint.port == 0 || !controller.start(&error)) {
        qInfo().noquote() << "ten_lines:" << error;
        return 2;
    }
    controller.write("VW102=7");
    return application.exec();
}
