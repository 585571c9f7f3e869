// SPDX-License-Identifier: Apache-2.0
// DNS replies through a whole look-up, and through each piece of the parser at any offset.
#include "net/dns.h"

#include <arpa/inet.h>

#include "world.h"

namespace {

void parse_pieces(dns_message message, size_t offset) {
    const auto limit = static_cast<int>(message.size());
    char small[9] = {};
    dns_question question = {};
    dns_record record = {};
    const int skipped = dns_skip_name(message, offset);
    const int decoded = dns_decode_name(message, offset, question.name, sizeof question.name);
    require(skipped <= limit && dns_skip_question(message, offset) <= limit, "inside the message");
    require(decoded < 0 || decoded == skipped, "what is decoded is what is skipped");
    (void)dns_decode_name(message, offset, small, sizeof small);
    (void)dns_parse_question(message, offset, &question);
    if (dns_parse_rr(message, offset, &record) >= 0) {
        require(record.offset + record.length <= message.size(), "data inside the message");
    }
    uint8_t wire[64] = {};
    (void)dns_encode_name(question.name, wire, sizeof wire);
}

}  // namespace

void body(fuzz_input& in) {
    const size_t offset = in.byte();
    world.resolves = false;
    world.answer = in.rest();
    char address[IPV4_TEXT_SIZE] = {};
    in_addr parsed = {};
    const bool found = dns_lookup("host.example", &address) == 0 && address[0] != '\0';
    require(!found || inet_pton(AF_INET, address, &parsed) == 1, "an address is dotted IPv4");
    const std::string exact(world.answer);
    parse_pieces({reinterpret_cast<const uint8_t*>(exact.data()), exact.size()}, offset);
}
