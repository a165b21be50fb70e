// Detection, rules and rules files in a table, against the scripted engine.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <optional>

#include "pelda_stub.h"
#include "quelm_hash.h"
#include "test_table.h"

namespace {

using pelda_stub::result;
using pelda_stub::script;
using quelm_test::Bench;
using quelm_test::Frame;
using Ints = std::vector<int>;

constexpr uint16_t kSmtp = 3, kDns = 5, kHttp = 7, kFtp = 77, kTls = 91, kVideo = 120, kChat = 121;
constexpr uint32_t kGuessed = QUELM_FLOW_FLAG_L7_GUESSED;
constexpr uint32_t kExtra = QUELM_FLAG_DPI_EXTRA_DISSECTION, kNoGuess = QUELM_FLAG_NO_L7_GUESS;
const std::map<uint16_t, std::string> kNames = {
    {kDns, "DNS"}, {kHttp, "HTTP"}, {kTls, "TLS"}, {kVideo, "Video"}, {kChat, "Chat"}};

enum Kind { kTcp, kUdp, kUdp6, kIcmp };

// Packet `n` (from 1) of a flow from port 40000 to 80; even packets go the other way.
Frame packet(Kind kind, int n = 1) {
    const bool back = n % 2 == 0;
    const char *src = back ? "10.0.0.2" : "10.0.0.1", *dst = back ? "10.0.0.1" : "10.0.0.2";
    const uint16_t sport = back ? 80 : 40000, dport = back ? 40000 : 80;
    if (kind == kUdp6) return Frame().eth().ipv6("fd00::1", "fd00::2").udp(40000, 80);
    if (kind == kIcmp) return Frame().eth().ipv4(src, dst).icmp(8, 0);
    if (kind == kUdp) return Frame().eth().ipv4(src, dst).udp(sport, dport).payload(10);
    return Frame().eth().ipv4(src, dst).tcp(sport, dport).payload(20);
}

class Dpi : public ::testing::Test {
  protected:
    void SetUp() override { fresh(QUELM_FLAG_DPI); }
    void TearDown() override { std::remove(path.c_str()); }
    // A new table and engine script; the flows of the previous table are released.
    void fresh(uint32_t flags) {
        b.reset();
        pelda_stub::reset(kNames);
        t = b.emplace(flags).t;
        ASSERT_NE(t, nullptr);
        events.clear(), sent = 0;
        quelm_set_l7_detected_callback(
            t,
            [](const uint8_t *pkt, const quelm_packet_info *, quelm_flow *, void *u) {
                auto *self = static_cast<Dpi *>(u);
                self->events.push_back(pkt != nullptr ? self->sent : -1);
            },
            this);
    }
    quelm_action send(const Frame &frame) { return sent++, b->send(frame, 100); }
    quelm_flow *only_flow() {
        quelm_flush(t);
        EXPECT_EQ(b->exported.size(), 1u);
        return b->exported.empty() ? nullptr : b->exported.back();
    }
    // Verdicts of a TCP flow whose detection names `master.app` of category `cat` on packet `on`,
    // one letter per packet: '0' default, 'F' forward, 'D' discard, '1' and '2' the user actions.
    std::string verdicts(uint16_t master, uint16_t app, int32_t cat, int on, int packets) {
        script.answers.resize(on - 1);
        script.answers.push_back({result(master, app, uint32_t(cat))});
        std::string out;
        for (int n = 1; n <= packets; n++)
            out += "0FD12S?"[std::min(send(packet(kTcp, n)), quelm_action(6))];
        return out;
    }
    const char *file(const std::string &text) {
        std::ofstream(path) << text;
        return path.c_str();
    }

    std::optional<Bench> b;
    quelm_table *t = nullptr;
    int sent = 0;
    std::vector<int> events;  // packet number of each L7-detected callback, -1 at export
    std::string path = testing::TempDir() + "quelm_rules." + std::to_string(getpid()) + ".conf";
};

TEST_F(Dpi, WrongApiRevisionRefusesTheEngine) {
    script.api_version = 0x10000 | 14000;
    testing::internal::CaptureStderr();
    EXPECT_EQ(quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("found rev.14000"), std::string::npos);
    EXPECT_EQ(script.modules_created, 1) << "only the fixture's";
}

// A handle lent to a table stays the lender's: the table releases only the one it made itself.
TEST_F(Dpi, LentHandleIsNeverReleasedByTheTable) {
    void *lent = quelm_dpi_alloc(1);
    for (uint32_t flags : {uint32_t{QUELM_FLAG_DPI}, 0u}) {
        quelm_table *t = quelm_create_table(flags, 64, 0, 0, 0);
        const int released = script.modules_released;
        EXPECT_EQ(quelm_set_pelda_handle(t, lent), 0);
        EXPECT_EQ(quelm_get_pelda_handle(t), lent);
        quelm_destroy_table(t);
        EXPECT_EQ(script.modules_released, released + (flags != 0 ? 1 : 0)) << flags;
    }
    quelm_dpi_free(lent);
}

TEST_F(Dpi, PacketLimitsGiveUpExtraDissectionAndGuesses) {
    // clang-format off
    const struct {
        const char *what; uint32_t flags; Kind kind;  // flags besides QUELM_FLAG_DPI
        int limit, packets;  // TCP packet limit (-1: the table's own), packets sent
        uint16_t named; int done_on;  // what the engine names on every packet; when it is done
        int processed, giveups, guesses; Ints events;  // L7-detected callbacks, -1: at export
        int master, app, category, flags_after, dpi_done;
    } cases[] = {
        {"unknown TCP: given up on its 13th", 0, kTcp, -1, 15, 0, 0, 13, 1, 0, {13}, kTls, 42, 4, kGuessed, 1},
        {"limit 0: given up on the first", 0, kTcp, 0, 1, 0, 0, 1, 1, 0, {1}, kTls, 42, 4, kGuessed, 1},
        {"UDP named on its first", 0, kUdp, -1, 2, kDns, 0, 1, 0, 0, {1}, kDns, kDns, 12, 0, 1},
        {"extra: SMTP to 20", kExtra, kTcp, 12, 110, kSmtp, 0, 21, 0, 0, {21}, kSmtp, kSmtp, 12, 0, 1},
        {"extra: SMTP to a higher limit", kExtra, kTcp, 30, 110, kSmtp, 0, 31, 0, 0, {31}, kSmtp, kSmtp, 12, 0, 1},
        {"extra: FTP to 100", kExtra, kTcp, 12, 110, kFtp, 0, 101, 0, 0, {101}, kFtp, kFtp, 12, 0, 1},
        {"extra: others to the limit", kExtra, kTcp, 12, 110, kHttp, 0, 13, 0, 0, {13}, kHttp, kHttp, 12, 0, 1},
        {"extra: until the engine is done", kExtra, kTcp, 12, 5, kHttp, 2, 2, 0, 0, {2}, kHttp, kHttp, 12, 0, 1},
        {"extra: pending at export", kExtra, kTcp, -1, 1, kHttp, 0, 1, 0, 0, {-1}, kHttp, kHttp, 12, 0, 1},
        {"ICMP guessed on arrival", 0, kIcmp, -1, 1, 0, 0, 0, 0, 1, {1}, 0, 44, 0, kGuessed, 1},
        {"IPv4 guessed at export", 0, kUdp, -1, 1, 0, 0, 1, 0, 1, {-1}, 44, 44, 0, kGuessed, 1},
        {"IPv6 never guessed", 0, kUdp6, -1, 1, 0, 0, 1, 0, 0, {}, 0, 0, 0, 0, 0},
        {"no-guess flag", kNoGuess, kUdp, -1, 1, 0, 0, 1, 0, 0, {}, 0, 0, 0, 0, 0},
    };
    // clang-format on
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        fresh(QUELM_FLAG_DPI | c.flags);
        EXPECT_EQ(script.config, c.flags & kNoGuess ? "dpi.guess_on_giveup=0;" : "");
        if (c.limit >= 0) t->dpi_min_num_tcp_packets = uint16_t(c.limit);
        // A give-up naming only a master takes the application id from the engine's flow object.
        script.giveup = {.result = result(kTls, 0, 4), .giveup_app = 42};
        script.guess.result = result(0, 44, 9);
        for (int n = 1; c.named != 0 && n <= c.packets; n++)
            script.answers.push_back(
                {result(c.named, c.named, 12, n == c.done_on ? PELDA_STATE_DONE : 0)});
        for (int n = 1; n <= c.packets; n++)
            send(packet(c.kind, n));
        quelm_flow *f = only_flow();
        ASSERT_NE(f, nullptr);
        const quelm_l7_protocol &p = f->value.l7_protocol;
        EXPECT_EQ(Ints({script.process_calls, script.giveup_calls, script.guess_calls}),
                  Ints({c.processed, c.giveups, c.guesses}));
        EXPECT_EQ(events, c.events);
        EXPECT_EQ(Ints({p.master_protocol, p.app_protocol, p.category, int(f->value.flags),
                        int(f->dpi_done)}),
                  Ints({c.master, c.app, c.category, c.flags_after, c.dpi_done}));
        EXPECT_EQ(script.first_length, c.processed != 0 ? packet(c.kind).build().size() - 14 : 0);
    }
}

// A flow's HTTP or TLS details as text.
std::string details(const quelm_flow *f) {
    const quelm_flow_l7_metadata &md = f->value.l7_metadata;
    auto s = [](const char *p) { return std::string(p != nullptr ? p : "-"); };
    const uint8_t *fp = md.tls.certificate_fingerprint;
    char cert[8] = "-";
    if (f->value.l7_protocol.master_protocol == kHttp)
        return s(md.http.server_name) + " " + s(md.http.url) + " " +
               std::to_string(md.http.response_code);
    if (fp != nullptr) snprintf(cert, sizeof cert, "%02x..%02x", fp[0], fp[19]);
    return s(md.tls.server_name) + " " + cert;
}

TEST_F(Dpi, ProtocolDetailsAreCopiedFromTheEngine) {
    std::vector<uint8_t> fp(20, 0xAB), late(20, 0xAB);
    late[0] = late[1] = late[2] = 0;  // the engine sets a fingerprint from its first bytes on
    const auto http = result(0, kHttp), tls = result(kTls, 0);
    // clang-format off
    const struct { uint32_t flags; pelda_stub::Answer answer; const char *want; } cases[] = {
        {0, {.result = http, .server_name = "a.test\tjunk", .url = "http://a.test/x.html?y=1", .http_response_code = 404}, "a.test /x.html?y=1 404"},
        {0, {.result = http, .server_name = "a.test", .url = "http://a.test"}, "a.test / 0"},
        {0, {.result = http, .url = "http://"}, "- / 0"},
        {0, {.result = http, .url = "http://h/a\r\nHost: evil"}, "- /a 0"},
        {kExtra, {.result = result(kHttp, kHttp), .server_name = "pending.test"}, "pending.test - 0"},
        {0, {.result = tls, .server_name = "s.test", .cert_sha1 = fp}, "s.test ab..ab"},
        {0, {.result = tls, .server_name = "s.test", .cert_sha1 = late}, "s.test -"},
    };
    // clang-format on
    for (const auto &c : cases) {
        fresh(QUELM_FLAG_DPI | c.flags);
        script.answers.push_back(c.answer);
        send(packet(kTcp));
        quelm_flow *f = only_flow();
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(details(f), c.want);
    }
}

// A rule: filter of a 'p'rotocol, 'c'ategory or 'a'll; 's'hunt of a protocol, 't'CP or 'g'eneral;
// 'd'efault action; TCP detection 'l'imit.
struct Rule {
    char kind;
    const char *name;
    int value;
};

TEST_F(Dpi, VerdictsOfFiltersAndShunts) {
    const std::vector<Rule> order = {
        {'p', "TLS.Chat", 3}, {'p', "Video", 4}, {'p', "TLS", 1}, {'c', "Cat9", 2}};
    const std::vector<Rule> all = {{'a', "", 2}, {'p', "Video", 1}};
    // clang-format off
    const struct { const char *what; std::vector<Rule> rules; uint16_t master, app; int32_t cat; int on; const char *want; } cases[] = {
        {"shunt counts both directions, no default", {{'s', "HTTP", 10}, {'d', "", 1}}, kHttp, kHttp, 0, 3, "0000000000DDDD"},
        {"filter wins over shunt", {{'p', "HTTP", 1}, {'s', "HTTP", 5}}, kHttp, kHttp, 0, 3, "00FFFFFFFF"},
        {"filter from the detecting packet", {{'p', "TLS", 2}, {'d', "", 4}}, kTls, kTls, 0, 4, "000DDD"},
        {"default without rules", {{'p', "TLS", 2}, {'d', "", 4}}, kDns, kDns, 0, 2, "0222"},
        {"pair first", order, kTls, kChat, 9, 1, "1"},
        {"then the application", order, kTls, kVideo, 9, 1, "2"},
        {"then the master", order, kTls, 200, 9, 1, "F"},
        {"then the category", order, kHttp, kChat, 9, 1, "D"},
        {"nothing", order, kHttp, kChat, 8, 1, "0"},
        {"master 0 reads as the application", order, 0, kTls, 9, 1, "F"},
        {"TCP shunt while pending", {{'t', "", 2}, {'s', "HTTP", 6}}, kHttp, kHttp, 0, 5, "00DDDDDD"},
        {"protocol shunt replaces the general", {{'g', "", 2}, {'s', "HTTP", 6}}, kHttp, kHttp, 0, 1, "000000DD"},
        {"shunt 0 removes a protocol's", {{'g', "", 2}, {'s', "HTTP", 6}, {'s', "HTTP", 0}}, kHttp, kHttp, 0, 1, "00DDDDDD"},
        {"filter-all: application", all, 0, kVideo, 0, 1, "F"},
        {"filter-all: master", all, kVideo, kVideo, 0, 1, "F"},
        {"filter-all: pairs first", all, kTls, kVideo, 0, 1, "D"},
        {"filter-all: unknown", {{'a', "", 2}, {'l', "", 0}}, 0, 0, 0, 99, "D"},
    };
    // clang-format on
    for (const auto &c : cases) {
        fresh(QUELM_FLAG_DPI);
        for (const Rule &r : c.rules) {
            const auto v = uint8_t(r.value);
            if (r.kind == 'p') quelm_set_filter_protocol_by_name(t, r.name, v);
            if (r.kind == 'c') quelm_set_filter_category_by_name(t, r.name, v);
            if (r.kind == 'a') quelm_set_filter_all_protocols(t, v);
            if (r.kind == 's') quelm_set_shunt_protocol_by_name(t, r.name, v);
            if (r.kind == 't') t->rules.shunt_tcp = v;
            if (r.kind == 'g') t->rules.shunt_default = v;
            if (r.kind == 'd') quelm_set_default_action(t, v);
            if (r.kind == 'l') t->dpi_min_num_tcp_packets = v;
        }
        EXPECT_EQ(verdicts(c.master, c.app, c.cat, c.on, int(strlen(c.want))), c.want) << c.what;
    }
}

TEST_F(Dpi, FileSetsTableRulesAndGlobalSettings) {
    static std::string seen;  // what the iterator reads, as "[section]key=value;"
    ASSERT_EQ(utils_configuration_file_iterator(
                  file("before = section\nx\n  ; comment\n# comment\n[Shunt]\n  tcp = 300  \n"
                       "udp 10\nbare\n[ spaced ]\na=b=c\n[unclosed\nkey =\n"),
                  [](const char *s, const char *k, const char *v, quelm_table *, quelm_rules *) {
                      seen += "[" + std::string(s) + "]" + k + "=" + v + ";";
                  },
                  nullptr, nullptr),
              0);
    EXPECT_EQ(seen,
              "[]before=section;[Shunt]tcp=300;[Shunt]udp=10;[Shunt]bare=;[ spaced ]a=b=c;"
              "[unclosed]key=;");
    // Refused whole: a rules file that is no file, no text, or has a line over 1023 bytes.
    const std::string cut = "[global]\ndefault = discard\n" + std::string(1024, ' ') + "x\n";
    for (const char *bad : {"/nonexistent/rules.conf", "/", "/dev/zero", file(cut)})
        EXPECT_EQ(quelm_load_configuration(t, bad), -1) << bad;
    EXPECT_EQ(t->default_action, QUELM_ACTION_DEFAULT);

    quelm_set_filter_protocol_by_name(t, "Chat", QUELM_ACTION_DISCARD);
    quelm_debug();
    testing::internal::CaptureStdout();
    ASSERT_EQ(quelm_load_configuration(
                  t, file("[global]\ndefault = Forward\ndpi_min_num_tcp_packets = 30\n"
                          "dpi_min_num_udp_packets = 70000\nflow_idle_timeout = 10\n"
                          "flow_lifetime_timeout = 600\nunknown_key = 1\n"
                          "[SHUNT]\ntcp = 300\nudp 10\ndefault = -1\nHTTP = 12\n"
                          "[filter]\nTLS = forward\nTLS = discard\nDNS = discard ; drop it\n"
                          "NoSuch = discard\nHTTP = USER_1\nChat\n[other]\nVideo = forward\n")),
              0);
    quelm_debug_enabled = 0;
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Error: unknown protocol 'NoSuch'"),
              std::string::npos);
    EXPECT_EQ(t->default_action, QUELM_ACTION_FORWARD);
    EXPECT_EQ(t->dpi_min_num_tcp_packets, 30);
    EXPECT_EQ(t->dpi_min_num_udp_packets, uint16_t(70000));
    EXPECT_EQ(t->hash_v6->expiry->idle_timeout, 10u) << "one idle timeout, read by both hashes";
    EXPECT_EQ(t->flow_lifetime_timeout, 600u);
    const quelm_rules *r = quelm_get_rules(t);
    EXPECT_EQ(Ints({r->shunt_tcp, r->shunt_udp, r->shunt_default}), Ints({255, 10, 255}))
        << "counts above 255 are capped, negative ones wrap to their low byte";
    EXPECT_EQ(r->shunt_protocol[kHttp], 12);
    const uint8_t *f = r->filter_protocol;
    EXPECT_EQ(Ints({f[kTls], f[kDns], f[kHttp], f[kChat], f[kVideo]}),
              Ints({QUELM_ACTION_DISCARD, 0, QUELM_ACTION_USER_1, 0, 0}))
        << "later lines overwrite, unknown words and bare names clear, other sections are ignored";
}

}  // namespace
