// What tarn-receive does with a packet: the check, both printed forms and the line protocol.
#include "line_protocol.h"
#include "receive_packet.h"
#include "receive_print.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const receive_secrets unchecked;
    static const receive_secrets one(std::string("secret"));
    check_packet({bytes, size}, one);
    const received_packet packet = check_packet({bytes, size}, unchecked);
    if (!packet.fault.empty()) return 0;
    report_as_json(packet.document);
    report_as_text(packet.document);
    std::string lines;
    append_lines(head_of(packet.document), packet.document, "", lines);
    return 0;
}
