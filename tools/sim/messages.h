/*
 * How the tools read a notify message: the keyword name of each msg_id and what its `data`
 * points to (integers, a text, the version block, or nothing), decoded into a plain value that
 * can be printed as text or as a JSON object; and how they read an AT line into a record.
 * Pure functions; any thread.
 */
#ifndef ATCMD_TOOLS_SIM_MESSAGES_H
#define ATCMD_TOOLS_SIM_MESSAGES_H

#include <stdint.h>

#include <string>
#include <vector>

#include <atcmdprocess/atcmdprocess.h>

namespace atcmd_tools {

enum class ValueKind { None, Ints, Text, VerBlock };

struct DecodedMessage {
    uint16_t msg_id = 0;
    uint16_t seq_num = 0;
    std::string name;            // "VER", "BATCG", ... ("#<id>" when the id is unknown)
    ValueKind kind = ValueKind::None;
    bool has_data = false;
    std::vector<int32_t> ints;   // Ints: the values in order
    std::vector<std::string> texts;  // Text: one item; VerBlock: the seven items
};

// Keyword name of a message id without the "+", or "" when the id is out of range.
const char *message_name(uint16_t msg_id);
// Message id of a name ("ver", "+VER", "VER", case-insensitive), or -1.
int message_id(const std::string &name);

// Fills a record from an AT line as the upper layer would: kind, keyword row, "#seq" and
// "&flag". False when the keyword is not in the table (cmd_id is then 0).
bool record_from_line(const std::string &line, AtCmder_t *cmd);

// Copies what `msg->data` points to; must run inside the callback.
DecodedMessage decode_message(const AT_CMD_CbMsg_t *msg);

// How many bytes of `msg->data` decode_message reads, so that a copy of them decodes the same
// elsewhere (the service hands messages to its client this way): the integers, the text with
// its terminator (at most AT_LINE_BUF_SIZE), the version block; 0 for no data or an id whose
// value is not decoded. Must run inside the callback.
size_t message_data_size(const AT_CMD_CbMsg_t *msg);

// "VER seq 11: ..." for people; error codes and the USB pair get their meaning spelled out.
std::string message_text(const DecodedMessage &m);
// {"msg_id":11,"name":"VER","seq_num":11,"value":...} on one line.
std::string message_json(const DecodedMessage &m);

std::string json_escape(const std::string &s);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_MESSAGES_H
