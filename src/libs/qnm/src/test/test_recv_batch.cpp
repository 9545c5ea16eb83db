// test_recv_batch.cpp - frames of a backlog, several of which are taken at a time.

#include <pcap/pcap.h>

#include <atomic>
#include <functional>

#include "frames.h"
#include "ports.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;

std::vector<int> g_dispatched;  // what each pcap_dispatch() returned
std::atomic<bool> g_broken;
std::function<void()> g_at_dispatch;

}  // namespace

// The entry points that the fake libpcap lacks, made from those that it has.
int pcap_dispatch(pcap_t* p, int count, pcap_handler take, unsigned char* arg) {
    int taken = 0;
    int result = 1;
    if (g_at_dispatch) g_at_dispatch();
    while (taken < count && !g_broken) {
        struct pcap_pkthdr* header = nullptr;
        const unsigned char* frame = nullptr;
        result = pcap_next_ex(p, &header, &frame);
        if (result != 1) break;
        take(arg, header, frame);
        taken++;
    }
    if (g_broken.exchange(false)) taken = PCAP_ERROR_BREAK;
    if (result < 0) taken = PCAP_ERROR;
    g_dispatched.push_back(taken);
    return taken;
}

void pcap_breakloop(pcap_t*) {
    g_broken = true;
}

namespace {

struct recv_batch : ports {
    recv_batch() {
        g_dispatched.clear();
        g_broken = false;
        g_at_dispatch = nullptr;
        qnm::store(g_log_level, QNM_LOGLVL_INFO);
    }

    static void push(unsigned frames) {
        for (unsigned n = 0; n < frames; n++)
            fake_pcap::push_frame("port0", frames::build({}));
    }

    static uint64_t received() { return counted(0, QNM_STATS_R_TOTAL); }

    // Runs the loop until it would sleep.
    static void take_all_in() {
        fail::on_poll([](auto, int timeout_ms) -> std::optional<fail::poll_result> {
            if (fake_pcap::queued("port0") != 0) return std::nullopt;
            if (timeout_ms != 0) qnm::store(qnm_root.er_fini_flag, 0U);
            return fail::poll_events({0, 0});
        });
        _qnm_recv_lin(0);
    }
};

TEST_F(recv_batch, up_to_64_frames_are_taken_between_two_polls) {
    push(64 + 10);
    take_all_in();
    EXPECT_THAT(g_dispatched, ElementsAre(64, 10));
    EXPECT_EQ(received(), 74U);
}

// Every frame adds a card.
void push_cards(uint64_t cards) {
    for (uint64_t n = 0; n < cards; n++) {
        frames::announcement card;
        card.mac += 2 * n;
        fake_pcap::push_frame("port0", frames::build(card));
    }
}

TEST_F(recv_batch, the_event_thread_is_woken_once_in_a_batch) {
    push_cards(2 * 64 + 10);
    take_all_in();
    EXPECT_THAT(g_dispatched, ElementsAre(64, 64, 10));
    EXPECT_EQ(fail::count(fail::call::pthread_cond_signal), 3U);
}

TEST_F(recv_batch, news_are_told_after_their_batch_although_frames_wait) {
    push_cards(1);
    push(2 * 64);
    std::vector<uint64_t> told;
    g_at_dispatch = [&] { told.push_back(fail::count(fail::call::pthread_cond_signal)); };
    take_all_in();
    EXPECT_THAT(told, ElementsAre(0, 1, 1));
}

TEST_F(recv_batch, frames_are_as_long_as_what_was_captured_of_them) {
    const frames::frame_t whole = frames::build({});
    fake_pcap::push_frame("port0", std::span(whole).first(whole.size() - 1),
                          static_cast<uint32_t>(whole.size()));
    push(1);
    take_all_in();
    EXPECT_THAT(g_dispatched, ElementsAre(2));
    EXPECT_EQ(received(), 1U) << "the one that was captured whole";
}

TEST_F(recv_batch, levels_that_show_each_step_take_frames_one_by_one) {
    for (const qnm_log_level_t level : {QNM_LOGLVL_DEBUG, QNM_LOGLVL_TRACE}) {
        set_running();
        qnm::store(g_log_level, level);
        push(3);
        take_all_in();
    }
    EXPECT_THAT(g_dispatched, SizeIs(0));
    EXPECT_EQ(received(), 6U);
}

TEST_F(recv_batch, the_terminate_pipe_is_looked_at_between_two_frames) {
    push(10);
    fail::on_poll([&](auto fds, int) -> std::optional<fail::poll_result> {
        const bool within_batch = fds.size() == 1;
        if (within_batch && received() == 4) {
            EXPECT_EQ(write(qnm_terminate_fd_recv[0][1], "a", 1), 1);
        }
        return std::nullopt;
    });
    _qnm_recv_lin(0);
    EXPECT_EQ(received(), 4U);
    EXPECT_TRUE(logs.has(k_info, "_qnm_recv_lin: poll() catch terminate-event. port_num=0"));
}

TEST_F(recv_batch, the_stop_is_looked_at_between_two_frames) {
    push(10);
    fail::on(fail::call::gettimeofday, [](uint64_t number) {
        if (number == 5) qnm::store(qnm_root.er_fini_flag, 0U);
        return fail::pass;
    });
    _qnm_recv_lin(0);
    EXPECT_EQ(received(), 5U);
}

TEST_F(recv_batch, frames_before_the_start_are_dropped) {
    qnm::store(qnm_root.er_start_flag, 1U);
    push(2);
    take_all_in();
    EXPECT_THAT(g_dispatched, ElementsAre(2));
    EXPECT_EQ(received(), 0U);
}

TEST_F(recv_batch, a_port_that_fails_is_fatal) {
    fake_pcap::push_result("port0", -1);
    _qnm_recv_lin(0);
    EXPECT_THAT(logs.texts("logfile", k_fatal),
                ElementsAre("_qnm_recv_batch: Failed to pcap_dispatch().",
                            "_qnm_recv_lin: Failed to _qnm_recv_frame(). port_num=0",
                            "_qnm_fini_manager: LFI will terminate by reason of internal error."));
    EXPECT_EQ(qnm::load(internal_err), EPROTO);
}

}  // namespace
