// SPDX-License-Identifier: Apache-2.0
// A minimal DNS client for IPv4 addresses (RFC 1035), the fall-back when the system's resolver
// finds nothing. Owns the server table and the query counter; look-ups of several threads share
// only the counter. Every read stays inside the message, and pointer loops are refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

constexpr size_t DNS_HEADER_SIZE = 12;
constexpr size_t DNS_MESSAGE_SIZE = 512;
constexpr size_t DNS_NAME_SIZE = 256;
constexpr size_t IPV4_TEXT_SIZE = 16;

struct dns_header {
    uint32_t id = 0;
    uint32_t qr = 0;
    uint32_t opcode = 0;
    uint32_t aa = 0;
    uint32_t tc = 0;
    uint32_t rd = 0;
    uint32_t ra = 0;
    uint32_t rcode = 0;
    uint32_t qdcount = 0;
    uint32_t ancount = 0;
    uint32_t nscount = 0;
    uint32_t arcount = 0;
};

struct dns_question {
    char name[DNS_NAME_SIZE] = {};
    uint16_t type = 0;
    uint16_t klass = 0;
};

struct dns_record {
    char name[DNS_NAME_SIZE] = {};
    uint16_t type = 0;
    uint16_t klass = 0;
    uint32_t ttl = 0;
    uint16_t length = 0;            // of the data
    const uint8_t* data = nullptr;  // inside the message
    size_t offset = 0;              // of the data in the message
};

using dns_message = std::span<const uint8_t>;

// Dotted addresses of up to three servers; a null leaves its entry. Main thread, at start.
void set_dns_servers(const char* first, const char* second, const char* third);

// Asks each server once, 3 seconds each, for an address of host; the last A record of the first
// answer that speaks of host wins. 0 (out untouched when that held no A record) or -1.
[[nodiscard]] int dns_lookup(const char* host, char (*out)[IPV4_TEXT_SIZE]);

// The address in the reply to a query with this id. Only records of the queried name count, and of
// the aliases (CNAME) that lead from it, each before what it leads to; upper and lower case are the
// same. The last A record wins. 0 (out untouched when there was none), or -1 for a bad reply and
// for one that does not speak of the name.
[[nodiscard]] int dns_take_address(dns_message reply, uint32_t id, dns_message query,
                                   char (*out)[IPV4_TEXT_SIZE]);

// The pieces. Results are bytes written or used, -1 when there is no room or the message is bad.
int dns_pack_header(const dns_header& header, uint8_t* out, size_t room);
int dns_unpack_header(dns_message message, dns_header* header);
int dns_encode_name(const char* name, uint8_t* out, size_t room);
int dns_pack_question(const dns_question& question, uint8_t* out, size_t room);
int dns_decode_name(dns_message message, size_t offset, char* out, size_t room);
int dns_skip_name(dns_message message, size_t offset);
int dns_skip_question(dns_message message, size_t offset);
int dns_parse_question(dns_message message, size_t offset, dns_question* question);
int dns_parse_rr(dns_message message, size_t offset, dns_record* record);
char* dns_format_ipv4(const uint8_t address[4], char (*out)[IPV4_TEXT_SIZE]);
