// What tarn-receive does with a packet: the check and both printed forms.
#include "receive_packet.h"
#include "receive_print.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    check_packet({bytes, size}, "secret");
    const received_packet packet = check_packet({bytes, size}, "");
    if (!packet.fault.empty()) return 0;
    report_as_json(packet.document);
    report_as_text(packet.document);
    return 0;
}
