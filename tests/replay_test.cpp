// The replay's log reader and comparer on logs as they come back from the field: damaged files
// (cut off, not text, another writer's lines, a clock that jumps), several runs in one file,
// and a value that differs on the desk.
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "replay/replay.h"

using namespace atcmd_tools;

namespace {

constexpr const char kOpen[] = "[100.1][tid:7]atcmder_hal_open:49: func is atcmder_hal_open.";
constexpr const char kAnswer[] =
    "[100.2000][tid:9]atcmder_VuartRx_thread:39: Vuart receive data length is 20, receive data is +TYPE=KV4410C#15&1\r\n";
constexpr const char kParsed[] =
    "[100.2100][tid:8]TYPE_parser:289: TYPE_parser source is 3, idx is 15 data is +TYPE=KV4410C#15&1\r\n, type is KV4410C";

ParsedLog parse(const std::string &text) {
    ParsedLog log;
    split_log(text, 1, true, &log);
    return log;
}

bool noted(const ParsedLog &log, const std::string &words) {
    for (const LogNote &n : log.notes) {
        if (n.text.find(words) != std::string::npos) return true;
    }
    return false;
}

}  // namespace

TEST(ReplayLog, DamagedLogsAreReportedAndSkipped) {
    struct Case {
        const char *name;
        std::string text;
        const char *note;   // words of the note the reader must give
        size_t chunk_bytes; // the received chunk kept (0: none)
    };
    const std::string cut = std::string(kOpen) + "[100.2][tid:9]atcmder_VuartRx_thread:39: Vuart receive data length is 20, receive data is +TYPE=KV4";
    const Case cases[] = {
        {"cut off mid-message", cut, "cut off", 0},
        {"another writer's line after a chunk", std::string(kOpen) + kAnswer + "I/other: hello\n", "not the module's", 20},
        {"not text before the first message", std::string("\x01\xff\xfe junk") + kOpen + kAnswer, "before the first message", 20},
        {"binary bytes inside a chunk", std::string(kOpen) + "[100.3][tid:9]atcmder_VuartRx_thread:39: Vuart receive data length is 6, receive data is \x01\xfe[\x80\r\n", "", 6},
    };
    for (const Case &c : cases) {
        const ParsedLog log = parse(c.text);
        if (c.note[0] != '\0') {
            EXPECT_TRUE(noted(log, c.note)) << c.name;
        }
        ASSERT_GE(log.entries.size(), 2u) << c.name;
        const std::string &chunk = log.entries[1].text;
        if (c.chunk_bytes == 0) {
            EXPECT_TRUE(chunk.empty()) << c.name;
        } else {
            EXPECT_EQ(chunk.size() - chunk.find(", receive data is ") - 18, c.chunk_bytes) << c.name;
        }
    }
}

TEST(ReplayLog, RunTogetherMessagesRunsAndClockJumps) {
    char path[] = "/tmp/replay-test-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    // Two starts of the module, messages without line ends, and a clock set back an hour.
    const std::string text = std::string(kOpen) + kAnswer + kOpen + "[96.5][tid:9]set_notify_callback:23: set_notify_callback" + kAnswer;
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    ParsedLog log;
    std::string error;
    ASSERT_TRUE(read_log(path, &log, &error)) << error;
    unlink(path);
    EXPECT_EQ(log.runs.size(), 2u);
    EXPECT_EQ(log.entries.size(), 5u);
    EXPECT_TRUE(noted(log, "clock jumps"));
    for (size_t i = 1; i < log.entries.size(); ++i) EXPECT_GE(log.entries[i].time_us, log.entries[i - 1].time_us);
}

TEST(ReplayLog, WorldHoldsInputsAnchoredOnWhatCameBefore) {
    const std::string text = std::string(kOpen) + "[100.1500][tid:5]atcmder_Tx_thread:161: atcmder_Tx_thread send cmd success,dest is 3, mode is 0, cmd is AT+TYPE?#15&1\r\n" + kAnswer + kParsed;
    ParsedLog log = parse(text);
    log.runs.push_back({0, log.entries.size()});
    const World w = rebuild_world(log, log.runs[0]);
    ASSERT_EQ(w.inputs.size(), 1u);
    EXPECT_EQ(w.inputs[0].kind, InputKind::UsbBytes);
    EXPECT_EQ(w.inputs[0].text, "+TYPE=KV4410C#15&1\r\n");
    ASSERT_EQ(w.inputs[0].anchor, 0);
    EXPECT_EQ(w.expected[0].key, "sent: dest is 3, mode is 0, cmd is AT+TYPE?#15&1");
    EXPECT_LT(w.level_seen, kReplayLevel);  // nothing at level 4: too low to replay
}

TEST(ReplayCompare, AValueThatDiffersIsTheFirstDivergenceOnItsLine) {
    ParsedLog log = parse(std::string(kOpen) + kAnswer + kParsed);
    log.runs.push_back({0, log.entries.size()});
    const World w = rebuild_world(log, log.runs[0]);
    ASSERT_EQ(w.expected.size(), 1u);
    Output desk = w.expected[0];
    desk.key.replace(desk.key.rfind("KV4410C"), 7, "KV9999X");
    DeskRun run;
    run.outputs = {desk};
    Matcher *m = matcher_create(w.expected);
    run.matched_by = {matcher_add(m, desk, 0)};
    matcher_destroy(m);
    const Divergence d = first_divergence(w, run);
    ASSERT_TRUE(d.found);
    EXPECT_EQ(d.log_line, w.expected[0].line);
    EXPECT_NE(d.log_side.find("KV4410C"), std::string::npos);
    EXPECT_NE(d.desk_side.find("KV9999X"), std::string::npos);
}

// The module logs a line as sent only after writing it: a prompt answer can come first in the
// log. It is anchored on the line it answers, so a faster replay does not play it before that.
TEST(ReplayLog, AnAnswerLoggedBeforeItsQueryWaitsForTheQuery) {
    const std::string sent = "[100.1500][tid:5]atcmder_Tx_thread:161: atcmder_Tx_thread send cmd success,dest is 3, mode is 0, cmd is AT+TYPE?#15&1\r\n";
    ParsedLog log = parse(std::string(kOpen) + kParsed + kAnswer + sent);
    log.runs.push_back({0, log.entries.size()});
    const World w = rebuild_world(log, log.runs[0]);
    ASSERT_EQ(w.inputs.size(), 1u);
    ASSERT_EQ(w.expected.size(), 2u);
    EXPECT_EQ(w.inputs[0].anchor, 1);
}

namespace {

constexpr const char kSent[] =
    "[100.1500][tid:5]atcmder_Tx_thread:161: atcmder_Tx_thread send cmd success,dest is 3, mode is 0, cmd is AT+TYPE?#15&1\r\n";
constexpr const char kParsedLine[] =
    "[100.2050][tid:9]cmd_Parse_from_buffer:190: Get one line cmd: idx is 15 ,  seq num is 15, flag is 1, cmd is +TYPE=KV4410C#15&1";

World world_of(const std::string &text) {
    ParsedLog log = parse(text);
    log.runs.push_back({0, log.entries.size()});
    return rebuild_world(log, log.runs[0]);
}

// Plays the desk's outputs through the matcher as the player does, with every output in reach.
Divergence compare(const World &w, const std::vector<Output> &desk_outputs) {
    DeskRun desk;
    desk.outputs = desk_outputs;
    Matcher *m = matcher_create(w.expected);
    desk.matched_by.assign(w.expected.size(), -1);
    for (size_t j = 0; j < desk.outputs.size(); ++j) {
        const int i = matcher_add(m, desk.outputs[j], static_cast<int>(w.expected.size()) - 1);
        if (i >= 0) desk.matched_by[static_cast<size_t>(i)] = static_cast<int>(j);
    }
    matcher_destroy(m);
    return first_divergence(w, desk);
}

Output desk_output(OutputKind kind, const std::string &key) {
    Output o;
    o.kind = kind;
    o.key = key;
    return o;
}

}  // namespace

// The file's end: a prefix cut short is dropped with a note and leaves the message before it
// whole; a chunk cut at the end says the log ends inside it.
TEST(ReplayLog, AFileThatEndsInsideAMessageSaysSo) {
    const ParsedLog prefix = parse(std::string(kOpen) + kSent + "[100.16");
    ASSERT_EQ(prefix.entries.size(), 2u);
    EXPECT_TRUE(noted(prefix, "the log ends inside a message's prefix (\"[100.16\")"));
    EXPECT_EQ(prefix.entries[1].text.back(), '\n');
    const ParsedLog chunk = parse(std::string(kOpen) + std::string(kAnswer).substr(0, 100));
    EXPECT_TRUE(noted(chunk, "the log ends inside this message: a received chunk holds"));
}

// What the desk does after the log's last message is counted, not compared; the file's last
// message, cut off, matches the desk's output it begins; a line parsed that no bytes received
// carry shows lines missing, named at its line, ahead of what the desk did instead.
TEST(ReplayCompare, TheLogsEndCutOffEndAndMissingLinesAreNotDivergences) {
    const World whole = world_of(std::string(kOpen) + kSent);
    ASSERT_EQ(whole.expected.size(), 1u);
    const Output sent = whole.expected[0];
    const Output resend = desk_output(OutputKind::Resent, "resent: Re-send timeout cmd: 15 times: 1 data: AT+TYPE?#15&1");
    const Divergence end = compare(whole, {sent, resend, resend});
    EXPECT_FALSE(end.found);
    EXPECT_EQ(end.went_on, 2u);
    EXPECT_EQ(end.damage, Damage::None);

    const std::string sent_cut = std::string(kSent).substr(0, std::string(kSent).find("TYPE?"));
    const World cut = world_of(std::string(kOpen) + sent_cut);
    ASSERT_EQ(cut.expected.size(), 1u);
    const Divergence d = compare(cut, {sent});
    EXPECT_FALSE(d.found);
    ASSERT_EQ(d.cut.size(), 1u);
    EXPECT_NE(d.cut[0].find("the log ends inside a message at line 1"), std::string::npos) << d.cut[0];

    const World missing = world_of(std::string(kOpen) + kSent + kParsedLine);
    ASSERT_EQ(missing.expected.size(), 2u);
    EXPECT_NE(missing.expected[1].unexplained.find("no bytes received that carry it"), std::string::npos);
    const Divergence m = compare(missing, {sent, resend});
    ASSERT_TRUE(m.found);
    EXPECT_EQ(m.damage, Damage::LinesMissing);
    EXPECT_EQ(m.log_line, 2u);
    EXPECT_NE(m.damage_text.find("lines are missing from the log before line 2"), std::string::npos) << m.damage_text;
}

// The module's own threads race at a plug (the USB pair told against the +USBSTATE answer
// parsed; an unplug during the interrogation): a difference there names the race.
TEST(ReplayCompare, ADifferenceWhereTheModulesThreadsRaceAtAPlugNamesTheRace) {
    const std::string plug = "[100.1000][tid:4]dev_event_process:77: New file ttyACM3 created.";
    const std::string told = "[100.1200][tid:6]notify_usbevent:40: Notify usb evt 1 0";
    const std::string unplug = "[100.3000][tid:4]dev_event_process:82: File ttyACM3 deleted.";
    const struct {
        std::string log;
        const char *names;
    } cases[] = {
        {std::string(kOpen) + plug + told, "the supervisor tells the USB pair"},
        {std::string(kOpen) + plug + told + unplug, "during the start-up interrogation"},
    };
    for (const auto &c : cases) {
        const World w = world_of(c.log);
        ASSERT_EQ(w.expected.size(), 1u) << c.names;
        Output desk = w.expected[0];
        desk.key.back() = '1';
        const Divergence d = compare(w, {desk});
        ASSERT_TRUE(d.found) << c.names;
        EXPECT_NE(d.explained.find(c.names), std::string::npos) << d.explained;
    }
}
