// SPDX-License-Identifier: Apache-2.0
// DNS replies through a whole look-up, and through each piece of the parser at any offset.
#include "net/dns.h"

#include <arpa/inet.h>

#include "world.h"

namespace {

void parse_pieces(dns_message message, size_t offset) {
    const auto limit = static_cast<int>(message.size());
    char name[9] = {};
    dns_question question = {};
    dns_record record = {};
    require(dns_skip_name(message, offset) <= limit, "a name inside the message");
    require(dns_skip_question(message, offset) <= limit, "a question inside the message");
    (void)dns_decode_name(message, offset, name, sizeof name);
    (void)dns_parse_question(message, offset, &question);
    if (dns_parse_rr(message, offset, &record) >= 0) {
        require(record.offset + record.length <= message.size(), "data inside the message");
    }
    uint8_t wire[64] = {};
    (void)dns_encode_name(question.name, wire, sizeof wire);
}

void body(fuzz_input& in) {
    const unsigned what = in.byte();
    world.resolves = false;
    world.honest = what % 16 != 15;
    world.answer = in.rest();
    set_dns_servers("192.0.2.1", "", "");
    char address[IPV4_TEXT_SIZE] = {};
    in_addr parsed = {};
    const bool found = dns_lookup("host.example", &address) == 0 && address[0] != '\0';
    require(!found || inet_pton(AF_INET, address, &parsed) == 1, "an address is dotted IPv4");
    const std::string exact(world.answer);
    parse_pieces({reinterpret_cast<const uint8_t*>(exact.data()), exact.size()}, what);
}

}  // namespace

FUZZ_TARGET(body)
