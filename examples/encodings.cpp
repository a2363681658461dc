// What values look like in the host's byte arrays: each is written into the driver's image and read
// out again. No controller is needed.

#include <siemens_s7_200_cp243/host_interface.h>

#include <cstdio>

namespace
{

int wrong = 0;

/// Writes and reads `count` elements; `hex` are the bytes of the host's array.
void example(const char* what, int type, const char* address, int count, const char* hex)
{
    QByteArray bytes = QByteArray::fromHex(hex);
    QByteArray back;
    if (SetRegisterData("", type, address, 0, &bytes, count, 0, 0) == 0 ||
        GetRegisterData("", type, address, 0, back, count) == 0 || back != bytes) {
        std::printf("%s: wrong, %s\n", what, back.toHex().constData());
        ++wrong;
    }
}

} // namespace

int main()
{
    COM_INFO info = {};
    info.communication_mode = Mode_ImageOnly; // host writes stay in the image
    SetComInfo(&info);

    example("M10.3 on", Type_M, "10.3", 1, "01");
    example("M10.3 to M10.6", Type_M, "10.3", 4, "01 00 00 01");
    example("VW100 = 4660 (0x1234)", Type_VW, "100", 1, "34 12");
    example("VW102 = -2, VW104 = 1", Type_VW, "102", 2, "FE FF 01 00");
    example("VB7 = 171 (0xAB)", Type_VB, "7", 1, "AB 00");
    example("VD4 = 305419896 (0x12345678)", Type_VD, "4", 2, "78 56 34 12");
    example("VD8 = 3.14159274, a float", Type_VD, "8", 2, "DB 0F 49 40");
    example("VD12 = 1 and VD16 = 2", Type_VD, "12", 4, "01 00 00 00 02 00 00 00");
    example("TV37 = 300", Type_TV, "37", 1, "2C 01");
    example("CV5 = 7", Type_CV, "5", 1, "07 00");
    example("AQW0 = 16000", Type_AQW, "0", 1, "80 3E");
    return wrong;
}
