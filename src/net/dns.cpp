// SPDX-License-Identifier: Apache-2.0
#include "net/dns.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"
#include "log/tb_log.h"
#include "net/transport.h"

namespace {

constexpr size_t SERVERS = 3;
constexpr size_t SERVER_SIZE = 100;
constexpr uint16_t DNS_PORT = 53;
constexpr int ANSWER_SECONDS = 3;
constexpr uint16_t TYPE_A = 1;
constexpr uint16_t TYPE_CNAME = 5;
constexpr uint16_t CLASS_IN = 1;
constexpr size_t QUESTION_TAIL = 4;  // type and class
constexpr size_t RECORD_TAIL = 10;   // type, class, TTL and data length
constexpr size_t ADDRESS_SIZE = 4;
constexpr uint8_t POINTER_BITS = 0xC0;
constexpr int MAX_POINTERS = 64;   // of one name; an honest one has a few
constexpr size_t MAX_LABEL = 255;  // what a length byte can say

char servers[SERVERS][SERVER_SIZE] = {};
std::atomic<uint32_t> last_id = 0;

// What one look-up needs room for.
struct workspace {
    uint8_t query[DNS_MESSAGE_SIZE] = {};
    uint8_t reply[DNS_MESSAGE_SIZE] = {};
    dns_question question = {};
};

bool holds(dns_message message, size_t offset, size_t count) {
    return offset <= message.size() && count <= message.size() - offset;
}

uint32_t get_number(dns_message message, size_t offset, size_t bytes) {
    uint32_t value = 0;
    for (size_t i = 0; i < bytes; i++) {
        value = value << 8 | message[offset + i];
    }
    return value;
}

uint16_t get_16(dns_message message, size_t offset) {
    return static_cast<uint16_t>(get_number(message, offset, 2));
}

void put_16(uint8_t* out, uint32_t value) {
    out[0] = static_cast<uint8_t>(value >> 8);
    out[1] = static_cast<uint8_t>(value);
}

bool is_pointer(uint8_t length) {
    return (length & POINTER_BITS) == POINTER_BITS;
}

// A place in a name that is being walked. used counts its bytes up to and with the first pointer.
struct name_cursor {
    size_t at = 0;
    size_t used = 0;
    int pointers = 0;
};

// Steps on to the next label and sets its length, 0 at the end of the name. False when the name
// leaves the message or goes round in circles.
bool next_label(dns_message message, name_cursor* cursor, size_t* length) {
    while (holds(message, cursor->at, 1) && is_pointer(message[cursor->at])) {
        if (!holds(message, cursor->at, 2) || ++cursor->pointers > MAX_POINTERS) {
            return false;
        }
        if (cursor->pointers == 1) {
            cursor->used += 2;
        }
        cursor->at = get_16(message, cursor->at) & 0x3FFFU;
    }
    if (!holds(message, cursor->at, 1)) {
        return false;
    }
    *length = message[cursor->at++];
    if (!holds(message, cursor->at, *length)) {
        return false;
    }
    if (cursor->pointers == 0) {
        cursor->used += 1 + *length;
    }
    return true;
}

int build_query(const char* host, uint32_t id, workspace* work) {
    const dns_header header = {.id = id, .rd = 1, .qdcount = 1};
    set_text(work->question.name, host);
    work->question.type = TYPE_A;
    work->question.klass = CLASS_IN;
    const int head = dns_pack_header(header, work->query, sizeof work->query);
    const int tail = dns_pack_question(work->question, work->query + head,
                                       sizeof work->query - static_cast<size_t>(head));
    return tail < 0 ? FAILED : head + tail;
}

unique_fd connect_server(const char* server) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(DNS_PORT);
    if (inet_pton(AF_INET, server, &address.sin_addr) != 1) {
        return {};
    }
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd ||
        connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return {};
    }
    return fd;
}

// The reply to one query, empty when none came.
dns_message ask(const char* server, dns_message query, workspace* work) {
    memset(work->reply, 0, sizeof work->reply);
    const unique_fd fd = connect_server(server);
    if (!fd) {
        return {};
    }
    // A query that was not sent shows as an answer that does not come.
    (void)send(fd.get(), query.data(), query.size(), MSG_NOSIGNAL);
    if (wait_readable(fd.get(), ANSWER_SECONDS) != 0) {
        return {};
    }
    const ssize_t count = recv(fd.get(), work->reply, sizeof work->reply, MSG_DONTWAIT);
    return {work->reply, count < 0 ? 0 : static_cast<size_t>(count)};
}

bool is_answer(const dns_header& header, uint32_t id) {
    return header.id == id && header.qr == 1 && header.rcode == 0 && header.ancount >= 1;
}

bool skip_questions(dns_message reply, uint32_t count, size_t* offset) {
    for (uint32_t i = 0; i < count; i++) {
        const int length = dns_skip_question(reply, *offset);
        if (length < 0) {
            return false;
        }
        *offset += static_cast<size_t>(length);
    }
    return true;
}

// Takes one record of the name that is being followed, which an alias exchanges. 0 or -1.
int take_record(dns_message reply, const dns_record& record, char (*name)[DNS_NAME_SIZE],
                char (*out)[IPV4_TEXT_SIZE]) {
    if (record.type == TYPE_CNAME) {
        return dns_decode_name(reply, record.offset, *name, sizeof *name) < 0 ? FAILED : 0;
    }
    if (record.type == TYPE_A) {
        dns_format_ipv4(record.data, out);
    }
    return 0;
}

}  // namespace

void set_dns_servers(const char* first, const char* second, const char* third) {
    const char* const given[SERVERS] = {first, second, third};
    for (size_t i = 0; i < SERVERS; i++) {
        if (given[i] != nullptr) {
            set_text(servers[i], given[i]);
        }
    }
}

int dns_lookup(const char* host, char (*out)[IPV4_TEXT_SIZE]) {
    const std::unique_ptr<workspace> work(new (std::nothrow) workspace);
    if (work == nullptr) {
        log_err(__func__, __LINE__, "dns_lookup fail, havn't enough memory");
        return FAILED;
    }
    const uint32_t id = (last_id.fetch_add(1) + 1) & 0xFFFFU;
    const int length = build_query(host, id, work.get());
    if (length < 0) {
        return FAILED;
    }
    const dns_message query(work->query, static_cast<size_t>(length));
    for (const auto& server : servers) {
        if (dns_take_address(ask(server, query, work.get()), id, query, out) == 0) {
            return 0;
        }
    }
    return FAILED;
}

int dns_take_address(dns_message reply, uint32_t id, dns_message query,
                     char (*out)[IPV4_TEXT_SIZE]) {
    char name[DNS_NAME_SIZE] = {};
    char address[IPV4_TEXT_SIZE] = {};
    dns_header header = {};
    size_t offset = DNS_HEADER_SIZE;
    if (dns_decode_name(query, offset, name, sizeof name) < 0 ||
        dns_unpack_header(reply, &header) < 0 || !is_answer(header, id) ||
        !skip_questions(reply, header.qdcount, &offset)) {
        return FAILED;
    }
    int result = FAILED;  // while nothing speaks of the name
    for (uint32_t i = 0; i < header.ancount; i++) {
        dns_record record = {};
        const int length = dns_parse_rr(reply, offset, &record);
        if (length < 0 || (record.type == TYPE_A && record.length < ADDRESS_SIZE)) {
            return FAILED;
        }
        if (record.klass == CLASS_IN && strcasecmp(record.name, name) == 0) {
            result = take_record(reply, record, &name, &address);
            if (result != 0) {
                return FAILED;
            }
        }
        offset += static_cast<size_t>(length);
    }
    if (result == 0 && !is_empty(address)) {
        set_text(*out, address);
    }
    return result;
}

int dns_pack_header(const dns_header& header, uint8_t* out, size_t room) {
    if (room < DNS_HEADER_SIZE) {
        return FAILED;
    }
    put_16(out, header.id);
    out[2] = static_cast<uint8_t>((header.qr & 1U) << 7 | (header.opcode & 0xFU) << 3 |
                                  (header.aa & 1U) << 2 | (header.tc & 1U) << 1 | (header.rd & 1U));
    out[3] = static_cast<uint8_t>((header.ra & 1U) << 7 | (header.rcode & 0xFU));
    put_16(out + 4, header.qdcount);
    put_16(out + 6, header.ancount);
    put_16(out + 8, header.nscount);
    put_16(out + 10, header.arcount);
    return DNS_HEADER_SIZE;
}

int dns_unpack_header(dns_message message, dns_header* header) {
    if (message.size() < DNS_HEADER_SIZE) {
        return FAILED;
    }
    const uint32_t query_flags = message[2];
    const uint32_t answer_flags = message[3];
    *header = {.id = get_16(message, 0),
               .qr = query_flags >> 7,
               .opcode = query_flags >> 3 & 0xFU,
               .aa = query_flags >> 2 & 1U,
               .tc = query_flags >> 1 & 1U,
               .rd = query_flags & 1U,
               .ra = answer_flags >> 7,
               .rcode = answer_flags & 0xFU,
               .qdcount = get_16(message, 4),
               .ancount = get_16(message, 6),
               .nscount = get_16(message, 8),
               .arcount = get_16(message, 10)};
    return DNS_HEADER_SIZE;
}

int dns_encode_name(const char* name, uint8_t* out, size_t room) {
    std::string_view rest(name);
    size_t written = 0;
    while (!rest.empty()) {
        const std::string_view label = rest.substr(0, rest.find('.'));
        if (label.size() > MAX_LABEL || room < written + label.size() + 2) {
            return FAILED;
        }
        out[written++] = static_cast<uint8_t>(label.size());  // over 63 is let through
        written = static_cast<size_t>(std::copy(label.begin(), label.end(), out + written) - out);
        rest.remove_prefix(std::min(label.size() + 1, rest.size()));
    }
    if (room < written + 1) {
        return FAILED;
    }
    out[written++] = 0;
    return static_cast<int>(written);
}

int dns_pack_question(const dns_question& question, uint8_t* out, size_t room) {
    const int length = dns_encode_name(question.name, out, room);
    if (length < 0 || room - static_cast<size_t>(length) < QUESTION_TAIL) {
        return FAILED;
    }
    put_16(out + length, question.type);
    put_16(out + length + 2, question.klass);
    return length + static_cast<int>(QUESTION_TAIL);
}

int dns_decode_name(dns_message message, size_t offset, char* out, size_t room) {
    name_cursor cursor = {.at = offset};
    size_t written = 0;
    size_t length = 0;
    while (next_label(message, &cursor, &length)) {
        const size_t dot = written > 0 && length > 0 ? 1 : 0;
        if (written + dot + length + 1 >= room) {
            return FAILED;
        }
        if (length == 0) {
            out[written] = '\0';
            return static_cast<int>(cursor.used);
        }
        if (dot == 1) {
            out[written++] = '.';
        }
        std::copy_n(message.begin() + static_cast<ptrdiff_t>(cursor.at), length, out + written);
        written += length;
        cursor.at += length;
    }
    return FAILED;
}

int dns_skip_name(dns_message message, size_t offset) {
    for (size_t at = offset; holds(message, at, 1);) {
        const uint8_t length = message[at++];
        if (is_pointer(length)) {
            return holds(message, at, 1) ? static_cast<int>(at + 1 - offset) : FAILED;
        }
        if (length == 0) {
            return static_cast<int>(at - offset);
        }
        at += length;
    }
    return FAILED;
}

int dns_skip_question(dns_message message, size_t offset) {
    const int length = dns_skip_name(message, offset);
    if (length < 0 || !holds(message, offset + static_cast<size_t>(length), QUESTION_TAIL)) {
        return FAILED;
    }
    return length + static_cast<int>(QUESTION_TAIL);
}

int dns_parse_question(dns_message message, size_t offset, dns_question* question) {
    const int length = dns_decode_name(message, offset, question->name, sizeof question->name);
    const size_t tail = offset + static_cast<size_t>(std::max(length, 0));
    if (length < 0 || !holds(message, tail, QUESTION_TAIL)) {
        return FAILED;
    }
    question->type = get_16(message, tail);
    question->klass = get_16(message, tail + 2);
    return length + static_cast<int>(QUESTION_TAIL);
}

int dns_parse_rr(dns_message message, size_t offset, dns_record* record) {
    const int length = dns_decode_name(message, offset, record->name, sizeof record->name);
    const size_t tail = offset + static_cast<size_t>(std::max(length, 0));
    if (length < 0 || !holds(message, tail, RECORD_TAIL)) {
        return FAILED;
    }
    record->type = get_16(message, tail);
    record->klass = get_16(message, tail + 2);
    record->ttl = get_number(message, tail + 4, 4);
    record->length = get_16(message, tail + 8);
    record->offset = tail + RECORD_TAIL;
    if (!holds(message, record->offset, record->length)) {
        return FAILED;
    }
    record->data = message.data() + record->offset;
    return length + static_cast<int>(RECORD_TAIL) + record->length;
}

char* dns_format_ipv4(const uint8_t address[4], char (*out)[IPV4_TEXT_SIZE]) {
    format_text(*out, "%d.%d.%d.%d", address[0], address[1], address[2], address[3]);
    return *out;
}
