// Everything that is printed as JSON or drawn, to the letter, because its readers rely on that. The
// JSON files in golden/ are checked against the schema as well. QNMCTL_WRITE_GOLDEN=1 writes the
// files again.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "access/access_text.h"
#include "cards/card_text.h"
#include "cards/topology.h"
#include "doctor/findings_text.h"
#include "frames/frame_text.h"
#include "installation/config_file.h"
#include "records/event_text.h"
#include "report/archive.h"
#include "tests/sample_cards.h"
#include "tests/sample_dump.h"
#include "tests/sample_system.h"
#include "tests/written.h"

namespace qnmctl {
namespace {

struct golden {
    const char* file;
    const char* command;
    output_form form;
    void (*fill)(writer&);
};

void tell_cards(writer& results) {
    results.record("card", card_json(sample_server()));
    results.record("card", card_json(sample_device()));
    results.end(exit_ok);
}

void tell_events(writer& results) {
    known_cards known;
    qnm_qnsv_t record = sample_server();
    const wall_time when = from_milliseconds(1'700'000'000'007);
    const auto tell_now = [&](qnm_evt_type_t type) {
        const observed seen = {when, type, record.esv_com_dev.ecd_id, record};
        results.record("event", event_json(seen, tell(known, type, record)));
    };
    tell_now(QNM_EVT_NEWDEVINFO);
    record.esv_com_dev.ecd_vlan_id = 11;
    tell_now(QNM_EVT_UPDATEDEVINFO);
    tell_now(QNM_EVT_UPDATEDEVINFO);  // nothing new
    record.esv_com_dev.ecd_state[0][0] = 0;
    record.esv_com_dev.ecd_updatetime = record.esv_com_dev.ecd_recvtime[0][0] + 100;
    tell_now(QNM_EVT_CHANNELSTATECHANGE);
    record.esv_com_dev.ecd_updatetime += 6000;
    tell_now(QNM_EVT_UPDATEDEVINFO);
    record.esv_com_dev.ecd_swstatus[0] = 0x80;
    tell_now(QNM_EVT_UPDATEDEVINFO);
    known.facts.restarted[record.esv_com_dev.ecd_id] = {.when = 1};
    tell_now(QNM_EVT_UPDATEDEVINFO);
    results.record("event", event_json({when, QNM_EVT_UPDATEDEVINFO, 1, std::nullopt}, {}));
    results.record("event", monitor_json({when, 1, std::nullopt, true, false}));
    results.record("event", monitor_json({when, 0x020000001000, sample_server(), false, true}));
    results.end(exit_ok);
}

constexpr access_item read_items[] = {{"addr", "", 0, 8}, {"value", "", from_card, 8}};
constexpr access_words read_words = {"qnm_read_register", access_scope::registers, read_items, "",
                                     nullptr};

void tell_results(writer& results) {
    const access_call_words how = {&read_words, {0x100}, 0};
    results.record("result", outcome_json({1, QNM_API_SUCCESS, 0xFFFFFFFF}, how));
    results.record("result", outcome_json({2, QNM_API_ETIMEDOUT, 0}, how));
    results.record("result", outcome_json({3, std::nullopt, 0}, how));
    results.failure("0x000000000002: qnm_read_register failed", code_status(QNM_API_ETIMEDOUT),
                    QNM_API_ETIMEDOUT);
    results.end(code_status(QNM_API_ETIMEDOUT));
}

void tell_dump(writer& results) {
    results.record("dump", dump_json({1, 8, {1, 0xFFFFFFFF}}, QNM_API_SUCCESS));
    results.end(exit_ok);
}

void tell_topology(writer& results) {
    qnm_qnsv_t server = sample_server();
    server.esv_down_port[3].edp_port_status[1] = 0x02;
    server.esv_down_port[3].edp_io_mac[5] = 1;
    qnm_qnio_t device = sample_device();
    for (const topology_server& one : make_topology({server, device}).servers)
        results.record("qnsv", server_json(one));
    results.record("unbound", unbound_json(device));
    results.end(exit_ok);
}

void draw_topology(writer& results) {
    qnm_qnsv_t server = sample_server();
    server.esv_com_dev.ecd_recvtime[0][1] = server.esv_com_dev.ecd_recvtime[0][0];
    server.esv_down_port[3].edp_port_status[1] = 0x02;
    server.esv_down_port[3].edp_io_mac[0] = 0x02;
    server.esv_down_port[3].edp_io_mac[4] = 0x30;
    results.text(topology_dot(make_topology({server, sample_device()}), {"eth1", "eth2"}));
    results.end(exit_ok);
}

void tell_findings(writer& results) {
    inspected system = sample_system();
    system.config = sample_file("/opt/tarvo/qnm/conf/qnm.conf", "ether_port = eth1\ntag_mxa = 7\n");
    system.interfaces[1].link.up = false;
    system.clock.synchronised = false;
    const findings found = examine(all_checks(), system);
    for (const finding& verdict : found)
        results.record("finding", finding_json(verdict));
    results.record("summary", summary_json(found));
    results.end(exit_unwell);
}

void tell_report(writer& results) {
    report_contents contents;
    contents.members = {{"cards.txt", "text", "cards"}, {"logs/qnm.log", "", "logs"}};
    contents.missing = {{"capture", "no privilege\nRun it under sudo."}};
    contents.masked = true;
    tell_contents(results, contents);
    results.record("archive", archive_json(contents, "report.tar.gz", 345));
    results.end(exit_ok);
}

void tell_monitored(writer& results) {
    results.record("monitor", monitored_json("stop", 0x020000001000, QNM_API_SUCCESS));
    results.record("event", monitor_json({from_milliseconds(1'700'000'000'007), 0x020000001000,
                                          sample_server(), true, false}));
    results.end(exit_ok);
}

void tell_dumps(writer& results) {
    results.record("stats", stats_json(sample_dump, ""));
    results.record("stats",
                   stats_json(sample_dump, "/home/op/.local/state/qnmctl/kept.a/qnm_stats.log"));
    results.end(exit_ok);
}

void tell_captured(writer& results) {
    const captured_port heard = {.interface = "eth1", .frames = 5, .dropped = 2};
    const captured_port lost = {
        .interface = "eth2", .kernel_dropped = 1, .problem = "the interface has gone"};
    const captured counts = {.ports = {heard, lost}, .reasons = {{"priority", 2}}};
    results.record("capture", captured_json(counts, "capture.pcapng"));
    results.end(exit_ok);
}

using frame_text = std::vector<std::uint8_t>;

// A Register Read, the Completion that answers it, and one with a wrong priority.
const frame_text sample_frames[] = {
    {0x02, 0x00, 0x00, 0x00, 0x10, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x00, 0x01, 0x81, 0x00,
     0x80, 0x0A, 0x88, 0xB6, 0x91, 0xFF, 0xFF, 0x00, 0x00, 0x07, 0x00, 0x01, 0x00, 0x00},
    {0x0A, 0x00, 0x00, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x10, 0x00, 0x81, 0x00,
     0x80, 0x0A, 0x88, 0xB6, 0x20, 0xFF, 0xFF, 0x00, 0x00, 0x07, 0x21, 0x11, 0x26, 0x20},
    {0x0A, 0x00, 0x00, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x10, 0x00, 0x81, 0x00,
     0x20, 0x0A, 0x88, 0xB6, 0x20, 0xFF, 0xFF, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x01},
};

void tell_frames(writer& results) {
    constexpr std::size_t frame_size = 60;
    answers matched{{}};
    std::uint64_t number = 0;
    std::int64_t when = 1'700'000'000'007'000'000;
    for (frame_text bytes : sample_frames) {
        bytes.resize(frame_size - 4);
        const frame_bytes frame = {bytes, frame_size};
        decoded_frame of = {{++number, when, number == 1 ? "" : "eth1", frame},
                            read_frame(frame, {}),
                            std::nullopt};
        of.answered = matched.take(of.read, number, when);
        results.record("frame", frame_json(of));
        when += 29'078;
    }
    results.end(exit_ok);
}

void tell_nothing(writer& results) {
    results.end(exit_ok);
}

constexpr golden files[] = {
    {"list.json", "list", output_form::json_document, tell_cards},
    {"list.jsonl", "list", output_form::json_lines, tell_cards},
    {"list-empty.json", "list", output_form::json_document, tell_nothing},
    {"watch.json", "watch", output_form::json_document, tell_events},
    {"watch.jsonl", "watch", output_form::json_lines, tell_events},
    {"reg-read.json", "reg read", output_form::json_document, tell_results},
    {"reg-dump.jsonl", "reg dump", output_form::json_lines, tell_dump},
    {"doctor.json", "doctor", output_form::json_document, tell_findings},
    {"topology.json", "topology", output_form::json_document, tell_topology},
    {"topology.dot", "topology", output_form::dot, draw_topology},
    {"report.json", "report", output_form::json_document, tell_report},
    {"monitor.jsonl", "monitor", output_form::json_lines, tell_monitored},
    {"stats.json", "stats", output_form::json_document, tell_dumps},
    {"capture.json", "capture", output_form::json_document, tell_captured},
    {"decode.json", "decode", output_form::json_document, tell_frames},
};

class Golden : public testing::TestWithParam<golden> {};

TEST_P(Golden, IsToldToTheLetter) {
    setenv("TZ", "UTC", 1);
    tzset();
    const golden& wanted = GetParam();
    const std::string path = std::string(QNMCTL_GOLDEN) + '/' + wanted.file;
    const std::string text = written(wanted.form, wanted.command, wanted.fill);
    if (std::getenv("QNMCTL_WRITE_GOLDEN") != nullptr) std::ofstream(path) << text;
    EXPECT_EQ(read_text(path), text);
}

INSTANTIATE_TEST_SUITE_P(Files, Golden, testing::ValuesIn(files), [](const auto& of) {
    std::string name = of.param.file;
    for (char& c : name)
        c = c == '.' || c == '-' ? '_' : c;
    return name;
});

}  // namespace
}  // namespace qnmctl
