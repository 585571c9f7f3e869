// SPDX-License-Identifier: Apache-2.0
#include "config/ini.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/file.h"
#include "base/handles.h"
#include "base/lock.h"
#include "base/text.h"
#include "config/in_place.h"
#include "config/secrets.h"
#include "log/tb_log.h"

namespace {

// One thread at a time. Readers take it as well, or they might meet half of a write.
pthread_mutex_t file_lock = PTHREAD_MUTEX_INITIALIZER;

// Of the file that could not be read last, as its error line has said.
char unreadable[128] = {};

constexpr int END_OF_FILE = 1;  // of next_line, beside 0 and the INI codes
constexpr int TEXT_END = -1;    // of next_byte
constexpr char FORM_FEED = 12;
constexpr char CONTROL_Z = 26;
constexpr char CONTINUED = '+';
constexpr mode_t NEW_FILE_MODE = 0666;  // less the umask
constexpr mode_t DRAFT_MODE = 0600;

struct line_reader {
    std::string whole;      // of the file
    std::string_view rest;  // what is still to be read of it
    int number = 0;         // of the line in hand, from 1
    char text[INI_MAX_LINE] = {};
    std::string_view line;   // in text
    bool continued = false;  // lines that belong to the key line in hand are still to be read
    bool open_end = false;   // the file ended where such a line was due
};

enum class line_kind { skipped, head, key, broken_head, broken_key };

struct entry {
    line_kind kind = line_kind::skipped;
    std::string_view name;
    std::string_view value;  // without the sign that continues it
    bool continued = false;
};

// What the writer has to know of a lookup. Line numbers start at 1; 0 is not met.
struct position {
    int head = 0;
    int key = 0;
    int key_lines = 0;
    bool open_end = false;
};

// TEXT_END at the end.
int next_byte(std::string_view* rest) {
    const size_t start = rest->find_first_not_of('\r');
    if (start == std::string_view::npos) {
        *rest = {};
        return TEXT_END;
    }
    const auto byte = static_cast<unsigned char>((*rest)[start]);
    rest->remove_prefix(start + 1);
    return byte;
}

// 0 or END_OF_FILE.
int next_line(line_reader* in) {
    size_t length = 0;
    std::string_view rest = in->rest;
    int c = next_byte(&rest);
    for (; c != TEXT_END && c != '\n' && c != '\0'; c = next_byte(&rest)) {
        if (length == INI_MAX_LINE) {
            rest = in->rest;
            break;
        }
        in->rest = rest;
        in->text[length++] = static_cast<char>(c);
        if (c == FORM_FEED || c == CONTROL_Z) {
            break;
        }
    }
    in->rest = rest;
    in->line = {in->text, length};
    if (c == TEXT_END && length == 0) {
        return END_OF_FILE;
    }
    in->number++;
    return 0;
}

// One error line when a file turns unreadable, not for each look into it. error 0: it was read.
void complain(const char* path, int error) {
    errno = error;
    if (error == 0 && text_of(unreadable) == path) {
        set_text(unreadable, "");
    } else if (error != 0 && error != ENOENT && text_of(unreadable) != path) {
        set_text(unreadable, path);
        log_unreadable(__func__, __LINE__, path);
    }
    errno = error;
}

// 0, INI_NOT_OPENED or INI_READ_ERROR.
int open_reader(const char* path, line_reader* in) {
    const unique_fd file = open_regular(path, SETTINGS_FILE_LIMIT);
    const bool whole = file && read_open_file(file.get(), SETTINGS_FILE_LIMIT, &in->whole) == 0;
    const int error = whole ? 0 : errno;
    complain(path, error);
    in->rest = in->whole;
    if (whole) {
        return 0;
    }
    return file && error != EFBIG ? INI_READ_ERROR : INI_NOT_OPENED;
}

std::string_view without_leading(std::string_view text, std::string_view blanks) {
    const size_t start = text.find_first_not_of(blanks);
    return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

std::string_view without_trailing(std::string_view text, std::string_view blanks) {
    return text.substr(0, text.find_last_not_of(blanks) + 1);  // npos + 1 is 0
}

std::string_view strip(std::string_view line) {
    return without_trailing(without_leading(line, " "), " ");
}

entry parse_head(std::string_view line) {
    const bool judged = line.size() >= 3;
    const bool broken = judged && !line.ends_with(']');
    return {.kind = broken ? line_kind::broken_head : line_kind::head,
            .name = line.substr(1, judged ? line.size() - 2 : 0),
            .value = {}};
}

entry parse_key(std::string_view line) {
    line = without_leading(line, " \t");
    const size_t equals = line.find('=');
    if (equals == 0 || equals == std::string_view::npos) {
        return {.kind = line_kind::broken_key, .name = {}, .value = {}};
    }
    entry key = {.kind = line_kind::key,
                 .name = without_trailing(line.substr(0, equals), " "),
                 .value = without_leading(line.substr(equals + 1), " \t"),
                 .continued = line.ends_with(CONTINUED)};
    key.value.remove_suffix(key.continued ? 1 : 0);
    return key;
}

entry parse_line(std::string_view raw) {
    const std::string_view line = strip(raw);
    if (line.empty() || line.front() == '#') {
        return {};
    }
    return line.front() == '[' ? parse_head(line) : parse_key(line);
}

// Reads the lines that continue the key line in hand, whatever they look like, onto value when
// there is one. 0 or an INI code.
int read_continuation(line_reader* in, std::string* value) {
    while (in->continued) {
        const int code = next_line(in);
        if (code == END_OF_FILE) {
            in->open_end = true;
            break;
        }
        if (code != 0) {
            return code;
        }
        std::string_view part = strip(in->line);
        in->continued = part.ends_with(CONTINUED);
        part.remove_suffix(in->continued ? 1 : 0);
        if (value != nullptr && value->size() + part.size() > INI_MAX_LINE) {
            return INI_TOO_LONG;
        }
        if (value != nullptr) {
            value->append(part);
        }
    }
    in->continued = false;
    return 0;
}

// The next line that is no comment: a head, a key or a broken key line. 0, END_OF_FILE or an INI
// code.
int next_entry(line_reader* in, entry* out) {
    int code = read_continuation(in, nullptr);
    do {
        if (code == 0) {
            code = next_line(in);
        }
        if (code != 0) {
            return code;
        }
        *out = parse_line(in->line);
    } while (out->kind == line_kind::skipped);
    in->continued = out->continued;
    return out->kind == line_kind::broken_head ? INI_MALFORMED : 0;
}

int find_section(line_reader* in, std::string_view section) {
    for (;;) {
        entry found = {};
        const int code = next_entry(in, &found);
        if (code != 0) {
            return code == END_OF_FILE ? INI_NO_SECTION : code;
        }
        if (found.kind == line_kind::head && found.name == section) {
            return 0;
        }
    }
}

// The next key of the section that the reader is in; INI_NO_KEY at the section's end.
int next_key(line_reader* in, entry* out) {
    const int code = next_entry(in, out);
    if (code == END_OF_FILE || (code == 0 && out->kind == line_kind::head)) {
        return INI_NO_KEY;
    }
    return code == 0 && out->kind == line_kind::broken_key ? INI_MALFORMED : code;
}

int find_key(line_reader* in, std::string_view key, std::string* value, position* place) {
    for (;;) {
        entry found = {};
        int code = next_key(in, &found);
        if (code != 0) {
            return code;
        }
        if (found.name == key) {
            value->assign(found.value);
            place->key = in->number;
            code = read_continuation(in, value);
            place->key_lines = in->number - place->key + 1;
            return code;
        }
    }
}

int look_up_in(line_reader* in, std::string_view section, std::string_view key, std::string* value,
               position* place) {
    int code = find_section(in, section);
    if (code == 0) {
        place->head = in->number;
        code = find_key(in, key, value, place);
    }
    place->open_end = in->open_end;
    return code;
}

int look_up(const char* path, std::string_view section, std::string_view key, std::string* value,
            position* place) {
    line_reader in = {};
    const int code = open_reader(path, &in);
    if (code == INI_NOT_OPENED) {
        log_msg(LOG_FUNCTION, LEVEL_NOTICE, "config", 411, "open config file %s failed", path);
    }
    return code == 0 ? look_up_in(&in, section, key, value, place) : code;
}

// Opens a file that is to be rewritten, created when missing, and reads what it holds. 0,
// INI_NOT_OPENED, INI_NOT_CREATED or INI_READ_ERROR.
int open_for_rewrite(const char* path, unique_fd* file, std::string* old) {
    file->reset(open(path, O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, NEW_FILE_MODE));
    struct stat info = {};
    if (!*file || fstat(file->get(), &info) != 0) {
        return INI_NOT_CREATED;
    }
    if (!S_ISREG(info.st_mode) || info.st_size > static_cast<off_t>(SETTINGS_FILE_LIMIT)) {
        return INI_NOT_OPENED;
    }
    return read_text(file->get(), old) ? 0 : INI_READ_ERROR;
}

// A text that could not be read again is not written. 0 or INI_WRITE_ERROR.
int put_over(const unique_fd& file, const std::string& old, const std::string& text) {
    const bool fits = text.size() <= SETTINGS_FILE_LIMIT;
    return fits && overwrite(file.get(), old, text) ? 0 : INI_WRITE_ERROR;
}

// 0, INI_NOT_OPENED, INI_NOT_CREATED, INI_READ_ERROR or INI_WRITE_ERROR.
int put_in_place(const char* path, const std::string& text) {
    unique_fd file;
    std::string old;
    const int code = open_for_rewrite(path, &file, &old);
    return code == 0 ? put_over(file, old, text) : code;
}

// Carriage returns, which the reader drops, count too.
bool has_line_end(std::string_view text) {
    constexpr char ENDS[] = {'\n', '\r', FORM_FEED, CONTROL_Z};
    return text.find_first_of(std::string_view(ENDS, sizeof ENDS)) != std::string_view::npos;
}

// The pair as the reader takes it back. A closing sign of the value would continue its line; so it
// is doubled, and an empty line ends the value behind it.
std::string key_line(std::string_view key, std::string_view value) {
    const std::string_view text = without_trailing(value, " ");
    const bool doubled = text.ends_with(CONTINUED);
    return joined({key, "=", doubled ? text : value, doubled ? "+\n\n" : "\n"});
}

// Whether the reader would find the pair again, head and key on a line each, and the value as it is
// but for blanks around it.
bool is_storable(std::string_view section, std::string_view key, std::string_view value) {
    return !has_line_end(section) && !has_line_end(key) && !has_line_end(value) &&
           section.size() + 2 <= INI_MAX_LINE && key_line(key, value).find('\n') <= INI_MAX_LINE;
}

int append_pair(const char* path, int looked_up, const position& place, const char* section,
                const std::string& pair) {
    unique_fd file;
    std::string old;
    const int code = open_for_rewrite(path, &file, &old);
    if (code != 0) {
        return code;
    }
    if (looked_up == INI_NOT_OPENED && !old.empty()) {
        return looked_up;  // for the moment, with keys that are not known: no second section
    }
    std::string text = old;
    text += old.empty() || old.ends_with('\n') ? "" : "\n";
    text += place.open_end ? "\n" : "";  // or the head would continue the file's last value
    text += joined({"[", section, "]\n", pair});
    return put_over(file, old, text);
}

// Appends the lines up to number last to text, or passes over them.
int copy_lines(line_reader* in, int last, std::string* text) {
    while (in->number < last) {
        const int code = next_line(in);
        if (code != 0) {
            return code == END_OF_FILE ? 0 : code;
        }
        if (text != nullptr) {
            text->append(in->line) += '\n';
        }
    }
    return 0;
}

// The file's text with the pair in place of the key's lines, or right after the section's head.
int merge_pair(const char* path, const position& place, const std::string& pair,
               std::string* text) {
    line_reader in = {};
    int code = open_reader(path, &in);
    if (code != 0) {
        return code;
    }
    code = copy_lines(&in, place.key > 0 ? place.key - 1 : place.head, text);
    if (code == 0) {
        code = copy_lines(&in, in.number + place.key_lines, nullptr);
    }
    *text += pair;
    return code != 0 ? code : copy_lines(&in, INT_MAX, text);
}

// A temporary file without a name, so that no end of the process leaves it behind; -1 when there
// is none to be had. On a file system that knows no such files it has one for a moment.
unique_fd open_draft() {
    unique_fd file(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, DRAFT_MODE));
    char path[] = "/tmp/tmpconfigXXXXXX";
    if (!file) {
        file.reset(mkostemp(path, O_CLOEXEC));
        if (file) {
            (void)unlink(path);  // made by us just now
        }
    }
    return file;
}

void log_pair(const char* key, const char* value) {
    if (is_secret(key) && !log_shows_secrets()) {
        log_plain(LOG_SYSTEM, LEVEL_ALWAYS, " set %s length %zu", key, strlen(value));
    } else {
        log_plain(LOG_SYSTEM, LEVEL_ALWAYS, " set %s=%s", key, value);
    }
}

int rewrite_file(const char* path, const position& place, const char* key, const char* value) {
    const unique_fd draft = open_draft();
    if (!draft) {
        return INI_NOT_CREATED;
    }
    std::string text;
    const int code = merge_pair(path, place, key_line(key, value), &text);
    if (code != 0) {
        return code;
    }
    if (!write_text(draft.get(), text)) {
        return INI_WRITE_ERROR;
    }
    if (!read_text(draft.get(), &text) || put_in_place(path, text) != 0) {
        return INI_NOT_CREATED;
    }
    log_pair(key, value);
    return 0;
}

int set_pair(const char* path, const char* section, const char* key, const char* value) {
    std::string old;
    position place = {};
    const int code = look_up(path, section, key, &old, &place);
    if (code == INI_NOT_OPENED || code == INI_NO_SECTION) {
        return append_pair(path, code, place, section, key_line(key, value));
    }
    return code == 0 || code == INI_NO_KEY ? rewrite_file(path, place, key, value) : code;
}

// 0, or INI_NO_ROOM with out as it was: a part of a value is another value.
int hand_out(std::string_view value, const char* path, std::string_view key, char* out,
             size_t size) {
    if (value.size() >= size) {
        log_err("ini_get", __LINE__, "%s in %s has %zu characters, at most %zu, not taken",
                std::string(key).c_str(), path, value.size(), size - 1);
        return INI_NO_ROOM;
    }
    copy_text(out, size, value);
    return 0;
}

}  // namespace

int ini_get(const char* path, std::string_view section, std::string_view key, char* out,
            size_t size) {
    const mutex_guard lock(&file_lock);
    std::string value;
    position place = {};
    const int code = look_up(path, section, key, &value, &place);
    return code == 0 ? hand_out(value, path, key, out, size) : code;
}

int ini_get_from(std::string_view text, const char* path, std::string_view section,
                 std::string_view key, char* out, size_t size) {
    line_reader in = {};
    in.rest = text;
    std::string value;
    position place = {};
    const int code = look_up_in(&in, section, key, &value, &place);
    return code == 0 ? hand_out(value, path, key, out, size) : code;
}

bool ini_mentions(const char* path, std::string_view key) {
    const mutex_guard lock(&file_lock);
    line_reader in = {};
    if (open_reader(path, &in) != 0) {
        return errno != ENOENT;  // it may
    }
    while (next_line(&in) == 0) {
        const std::string_view line = without_leading(in.line, " \t");
        if (line == key || (line.starts_with(key) && line.find_first_of(" \t=") == key.size())) {
            return true;
        }
    }
    return false;
}

int ini_set(const char* path, const char* section, const char* key, const char* value) {
    if (!is_storable(section, key, value)) {
        log_msg(LOG_SYSTEM, LEVEL_ALWAYS, __func__, __LINE__,
                "value of %s would not read back as it is, not written", key);
        return INI_WRITE_ERROR;
    }
    const mutex_guard lock(&file_lock);
    const int code = set_pair(path, section, key, value);
    if (code != 0) {
        log_err(__func__, __LINE__, "%s not written to %s, code %d", key, path, code);
    }
    return code;
}

int ini_list_sections(const char* path, std::span<ini_name> names) {
    const mutex_guard lock(&file_lock);
    line_reader in = {};
    const int opened = open_reader(path, &in);
    if (opened != 0) {
        return opened;
    }
    size_t count = 0;
    while (count < names.size()) {
        entry found = {};
        const int code = next_entry(&in, &found);
        if (code == END_OF_FILE) {
            break;
        }
        if (code != 0) {
            return code;
        }
        if (found.kind == line_kind::head) {
            set_text(names[count++].text, found.name);
        }
    }
    return static_cast<int>(count);
}

int ini_list_keys(const char* path, std::string_view section, std::span<ini_name> names) {
    const mutex_guard lock(&file_lock);
    line_reader in = {};
    int code = open_reader(path, &in);
    if (code != 0) {
        return code;
    }
    code = find_section(&in, section);
    size_t count = 0;
    while (code == 0 && count < names.size()) {
        entry found = {};
        code = next_key(&in, &found);
        if (code == 0) {
            set_text(names[count++].text, found.name);
        }
    }
    return code == 0 || code == INI_NO_KEY ? static_cast<int>(count) : code;
}

int replace_file(const char* path, std::string_view text) {
    const mutex_guard lock(&file_lock);
    return put_in_place(path, std::string(text));
}

int copy_file(const char* from, const char* to) {
    const mutex_guard lock(&file_lock);
    line_reader in = {};
    const int code = open_reader(from, &in);
    return code == 0 ? put_in_place(to, in.whole) : code;
}
