#include "core/siemens_s7_200.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

Siemens_S7_200 PLC_driver;
QMap<int, PLC_CHECK> map_list;

Siemens_S7_200::Siemens_S7_200()
    : com_info(nullptr), call_back(nullptr), call_back_arg(0), request_kind(NoRequestYet),
      write_turns(0), once_read_turns(0), cycle_count(0), read_seq(-1), write_seq(-1),
      link_failed(0), spare_flag(0), I_area(), Q_area(), M_area(), S_area(), SM_area(), V_area(),
      AIW_area(), AQW_area(), TV_area(), CV_area(), T_bits(), C_bits()
{
}

Siemens_S7_200::~Siemens_S7_200() = default;

void passRetValue(const RW_VAR& from, RW_VAR& to)
{
    to = from;
    to.value.clear();
}

// Host and driver share these records across the library boundary, built by different compilers:
// positions and order are pinned here.
namespace
{

constexpr std::size_t word(int index)
{
    return std::size_t(index) * sizeof(int);
}

static_assert(sizeof(int) == 4, "the shared records are made of 32-bit words");
static_assert(sizeof(COM_INFO) == word(19), "COM_INFO has 19 words");
static_assert(offsetof(COM_INFO, unused0) == word(0), "word 0");
static_assert(offsetof(COM_INFO, unused3) == word(3), "word 3");
static_assert(offsetof(COM_INFO, block_length_limit) == word(4), "word 4");
static_assert(offsetof(COM_INFO, unused5) == word(5), "word 5");
static_assert(offsetof(COM_INFO, default_station) == word(6), "word 6");
static_assert(offsetof(COM_INFO, retry_limit) == word(7), "word 7");
static_assert(offsetof(COM_INFO, retry_count) == word(8), "word 8");
static_assert(offsetof(COM_INFO, per_variable_stations) == word(9), "word 9");
static_assert(offsetof(COM_INFO, link_down) == word(10), "word 10");
static_assert(offsetof(COM_INFO, frame_count) == word(11), "word 11");
static_assert(offsetof(COM_INFO, frame_index) == word(12), "word 12");
static_assert(offsetof(COM_INFO, unused13) == word(13), "word 13");
static_assert(offsetof(COM_INFO, remote_access) == word(14), "word 14");
static_assert(offsetof(COM_INFO, link_id) == word(15), "word 15");
static_assert(offsetof(COM_INFO, communication_mode) == word(16), "word 16");
static_assert(offsetof(COM_INFO, cycle_complete) == word(17), "word 17");
static_assert(offsetof(COM_INFO, host_handle) == word(18), "word 18");

static_assert(offsetof(VAR_INFO, reg_type) == 1 && offsetof(VAR_INFO, station) == 2 &&
                  offsetof(VAR_INFO, unused3) == 3 && offsetof(VAR_INFO, unused4) == 4 &&
                  offsetof(VAR_INFO, address_text) == 8 &&
                  offsetof(VAR_INFO, name) == 8 + sizeof(QString) &&
                  offsetof(VAR_INFO, count) == 8 + 2 * sizeof(QString) &&
                  sizeof(VAR_INFO::count) == word(1),
              "VAR_INFO: four bytes, a word, two texts, a word");

constexpr std::size_t RequestTexts = word(6);
constexpr std::size_t RequestTail = RequestTexts + 2 * sizeof(QString);
static_assert(offsetof(RW_VAR, host_key) == word(0) && offsetof(RW_VAR, host_index) == word(1) &&
                  offsetof(RW_VAR, origin) == word(2) && offsetof(RW_VAR, remote) == word(3) &&
                  offsetof(RW_VAR, link_id) == word(4) && offsetof(RW_VAR, result) == word(5),
              "RW_VAR words 1 to 6");
static_assert(offsetof(RW_VAR, name) == RequestTexts &&
                  offsetof(RW_VAR, address_text) == RequestTexts + sizeof(QString),
              "RW_VAR texts 7 and 8");
static_assert(offsetof(RW_VAR, reg_type) == RequestTail &&
                  offsetof(RW_VAR, address) == RequestTail + word(1) &&
                  offsetof(RW_VAR, station) == RequestTail + word(2) &&
                  offsetof(RW_VAR, count) == RequestTail + word(3) &&
                  offsetof(RW_VAR, reserved1) == RequestTail + word(4) &&
                  offsetof(RW_VAR, reserved2) == RequestTail + word(5) &&
                  offsetof(RW_VAR, value) == RequestTail + word(6),
              "RW_VAR words 9 to 14 and the value");

constexpr std::size_t FrameWords = sizeof(QByteArray);
static_assert(offsetof(Protocol, frame) == 0 && offsetof(Protocol, frame_len) == FrameWords &&
                  offsetof(Protocol, reply_len) == FrameWords + word(1) &&
                  offsetof(Protocol, data_offset) == FrameWords + word(2) &&
                  offsetof(Protocol, data_len) == FrameWords + word(3) &&
                  offsetof(Protocol, var) == FrameWords + word(4) &&
                  offsetof(Protocol, extra1) == FrameWords + word(4) + sizeof(RW_VAR) &&
                  offsetof(Protocol, extra3) == FrameWords + word(6) + sizeof(RW_VAR),
              "Protocol: frame, four words, request, three words");
static_assert(sizeof(PLC_CHECK) == 4 && offsetof(PLC_CHECK, pdu_ref) == 2,
              "PLC_CHECK: a byte and a 16-bit word");
static_assert(offsetof(EXTENDVAR, station) == word(0) && offsetof(EXTENDVAR, reg_type) == word(1) &&
                  offsetof(EXTENDVAR, address) == word(2),
              "EXTENDVAR: three words before the value");

// The status byte of a timer or counter write may index past T_bits into C_bits (Func_Write).
static_assert(offsetof(Siemens_S7_200, com_info) == 0, "the settings pointer comes first");
static_assert(offsetof(Siemens_S7_200, C_bits) ==
                  offsetof(Siemens_S7_200, T_bits) + sizeof(Siemens_S7_200::T_bits),
              "C_bits follows T_bits");

} // namespace
