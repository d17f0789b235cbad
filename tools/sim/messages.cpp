/*
 * The tools' one table of notify messages: names by msg_id and the kind of value each carries.
 * Used by the console's callback, the demonstration's summary and the tests' recorder checks.
 * Pure functions; any thread.
 */
#include "sim/messages.h"

#include <errno.h>
#include <stdlib.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

#include "src/supervision/resend.h"

#define ATCMD_STR_(x) #x
#define ATCMD_STR(x) ATCMD_STR_(x)

namespace atcmd_tools {

namespace {

struct MessageRow {
    int msg_id;  // the id the row stands for, checked against its place below
    const char *name;
    ValueKind kind;
    size_t ints;  // how many integers `data` points to, for ValueKind::Ints
};

// Indexed by msg_id (the keyword table's row); a row's name is its message id's (AT_MSG_<name>).
// Rows without a value of their own carry one integer, which is what the module's parsers hand
// up for single-number answers.
#define ROW(name, kind, ints) {AT_MSG_##name, #name, ValueKind::kind, ints}
constexpr MessageRow kRows[] = {
    ROW(REBOOT, Ints, 1),          ROW(UPGRADE, None, 0),
    ROW(RECOVERY, None, 0),        ROW(SHUTDOWN, None, 0),
    ROW(POWEROFF, Ints, 1),        ROW(RESET, Ints, 1),
    ROW(STARTUP, None, 0),         ROW(BTMAC, Text, 0),
    ROW(BLEMAC, Text, 0),          ROW(BAT, Ints, 6),
    ROW(STATE, Ints, 1),           ROW(VER, VerBlock, 0),
    ROW(HALL, Ints, 3),            ROW(SN, Text, 0),
    ROW(SID, Text, 0),             ROW(TYPE, Text, 0),
    ROW(USBSTATE, Ints, 2),        ROW(SCREEN, Ints, 1),
    ROW(WIFICON, Ints, 1),         ROW(MICMODE, Ints, 1),
    ROW(WIFI, Ints, 1),            ROW(BT, Ints, 1),
    ROW(TIME, None, 0),            ROW(OK, None, 0),
    ROW(ERROR, Ints, 1),           ROW(SLEEP, None, 0),
    ROW(BATCG, Ints, 6),           ROW(BKL, Ints, 1),
    ROW(MODE, Ints, 1),            ROW(ACC, Ints, 3),
    ROW(LIGHT, Ints, 1),           ROW(HALLCG, Ints, 3),
    ROW(TEST, Ints, 1),            ROW(HRM, Ints, 2),
    ROW(DTR, Text, 0),             ROW(PTEST, None, 0),
    ROW(MMI1, Text, 0),            ROW(PT, Text, 0),
    ROW(WT, None, 0),
};
#undef ROW

constexpr bool rows_in_message_id_order() {
    for (size_t id = 0; id < sizeof kRows / sizeof kRows[0]; ++id) {
        if (kRows[id].msg_id != static_cast<int>(id)) return false;
    }
    return true;
}
static_assert(sizeof kRows / sizeof kRows[0] == AT_MSG_COUNT,
              "kRows (the tools' message table): one row per message id, AT_MSG_COUNT rows");
static_assert(rows_in_message_id_order(), "kRows (the tools' message table): rows in message-id order");

struct ErrorName {
    int32_t code;
    const char *name;
    const char *meaning;
};

// Negative error numbers the module sends with msg_id ERROR; any other value is the accessory's.
constexpr ErrorName kErrorNames[] = {
    {-ETIMEDOUT, "ETIMEDOUT", "no answer after " ATCMD_STR(ATCMD_MAX_RESENDS) " resends"},
    {-ENXIO, "ENXIO", "serial line does not work"},
};

const ErrorName &error_name(int32_t code) {
    static constexpr ErrorName kCode = {0, "accessory error code", ""}, kValue = {0, "accessory error value", ""};
    for (const ErrorName &e : kErrorNames) {
        if (e.code == code) return e;
    }
    return code < 0 ? kCode : kValue;
}

std::string error_text(int32_t code) {
    const ErrorName &e = error_name(code);
    return e.meaning[0] != '\0' ? std::string(e.name) + " (" + e.meaning + ")" : e.name;
}

std::string ints_text(const std::vector<int32_t> &ints) {
    std::string out;
    for (size_t i = 0; i < ints.size(); ++i) {
        if (i) out += ",";
        out += std::to_string(ints[i]);
    }
    return out;
}

std::string value_text(const DecodedMessage &m) {
    if (!m.has_data) return "(no data)";
    if (m.kind == ValueKind::None) return "(value not decoded)";
    if (m.msg_id == AT_MSG_ERROR && m.ints.size() == 1) {
        return std::to_string(m.ints[0]) + " " + error_text(m.ints[0]);
    }
    if (m.msg_id == AT_MSG_USBSTATE && m.ints.size() == 2) {
        return "connected " + std::to_string(m.ints[0]) + " status " + std::to_string(m.ints[1]);
    }
    if (m.kind == ValueKind::Ints) return ints_text(m.ints);
    std::string out;
    for (size_t i = 0; i < m.texts.size(); ++i) out += (i ? " | " : "") + m.texts[i];
    return "\"" + out + "\"";
}

}  // namespace

const char *message_name(uint16_t msg_id) { return msg_id < AT_MSG_COUNT ? kRows[msg_id].name : ""; }

int message_id(const std::string &name) {
    const char *bare = name.c_str() + (name.rfind("+", 0) == 0 ? 1 : 0);
    for (int id = 0; id < AT_MSG_COUNT; ++id) {
        if (strcasecmp(bare, kRows[id].name) == 0) return id;
    }
    return -1;
}

bool record_from_line(const std::string &line, AtCmder_t *cmd) {
    const bool request = line.rfind("AT", 0) == 0;
    const size_t key_at = request ? 2 : 0;
    const size_t key_end = line.find_first_of("=?#\r", key_at);
    const std::string keyword = line.substr(key_at, key_end - key_at);
    const char mark = key_end < line.size() ? line[key_end] : '\r';
    cmd->type = !request ? AT_TYPE_RESPONSE : mark == '?' ? AT_TYPE_QUERY : mark == '=' ? AT_TYPE_SET : AT_TYPE_EXEC;
    const int id = message_id(keyword);
    cmd->cmd_id = static_cast<uint8_t>(id < 0 ? 0 : id);
    cmd->dest = AT_NODE_ACCESSORY;
    const size_t hash = line.find('#'), amp = line.find('&');
    if (hash != std::string::npos) cmd->seq_num = static_cast<uint16_t>(atoi(line.c_str() + hash + 1));
    if (amp != std::string::npos) cmd->flag = static_cast<uint8_t>(atoi(line.c_str() + amp + 1));
    return id >= 0;
}

DecodedMessage decode_message(const AT_CMD_CbMsg_t *msg) {
    DecodedMessage m;
    m.msg_id = msg->msg_id;
    m.seq_num = msg->seq_num;
    m.has_data = msg->data != nullptr;
    m.name = msg->msg_id < AT_MSG_COUNT ? kRows[msg->msg_id].name : "#" + std::to_string(msg->msg_id);
    // An unknown id is shown without its data: its size is not known.
    m.kind = msg->msg_id < AT_MSG_COUNT ? kRows[msg->msg_id].kind : ValueKind::None;
    if (!m.has_data) return m;
    if (m.kind == ValueKind::Ints) {
        const auto *ints = static_cast<const int32_t *>(msg->data);
        m.ints.assign(ints, ints + kRows[msg->msg_id].ints);
    } else if (m.kind == ValueKind::Text) {
        const auto *text = static_cast<const char *>(msg->data);
        m.texts.emplace_back(text, strnlen(text, AT_LINE_BUF_SIZE));
    } else if (m.kind == ValueKind::VerBlock) {
        const auto *block = static_cast<const char *>(msg->data);
        constexpr int offsets[] = CORVEL_VER_SLOT_OFFSETS;
        constexpr int sizes[] = CORVEL_VER_SLOT_SIZES;
        for (int i = 0; i < CORVEL_VER_ITEMS; ++i) {
            m.texts.emplace_back(block + offsets[i], strnlen(block + offsets[i], sizes[i]));
        }
    }
    return m;
}

size_t message_data_size(const AT_CMD_CbMsg_t *msg) {
    if (msg->data == nullptr || msg->msg_id >= AT_MSG_COUNT) return 0;
    const MessageRow &row = kRows[msg->msg_id];
    switch (row.kind) {
    case ValueKind::Ints: return row.ints * sizeof(int32_t);
    case ValueKind::Text: return std::min<size_t>(strnlen(static_cast<const char *>(msg->data), AT_LINE_BUF_SIZE) + 1, AT_LINE_BUF_SIZE);
    case ValueKind::VerBlock: return CORVEL_VER_BLOCK_SIZE;
    case ValueKind::None: break;
    }
    return 0;
}

std::string message_text(const DecodedMessage &m) {
    return m.name + " (msg_id " + std::to_string(m.msg_id) + ") seq " + std::to_string(m.seq_num) +
           ": " + value_text(m);
}

std::string json_escape(const std::string &s) {
    std::string out;
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7f) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string message_json(const DecodedMessage &m) {
    std::string value = "null";
    if (m.has_data && m.kind == ValueKind::Ints) {
        value = "[" + ints_text(m.ints) + "]";
    } else if (m.has_data && m.kind == ValueKind::Text) {
        value = "\"" + json_escape(m.texts[0]) + "\"";
    } else if (m.has_data && m.kind == ValueKind::VerBlock) {
        value = "[";
        for (size_t i = 0; i < m.texts.size(); ++i) {
            value += (i ? ",\"" : "\"") + json_escape(m.texts[i]) + "\"";
        }
        value += "]";
    }
    std::string error;  // an ERROR's number by name
    if (m.msg_id == AT_MSG_ERROR && m.ints.size() == 1) {
        const ErrorName &e = error_name(m.ints[0]);
        error = ",\"error\":{\"number\":" + std::to_string(m.ints[0]) + ",\"name\":\"" + e.name +
                "\",\"meaning\":\"" + e.meaning + "\"}";
    }
    return "{\"event\":\"message\",\"msg_id\":" + std::to_string(m.msg_id) + ",\"name\":\"" +
           m.name + "\",\"seq_num\":" + std::to_string(m.seq_num) + ",\"value\":" + value + error + "}";
}

}  // namespace atcmd_tools
