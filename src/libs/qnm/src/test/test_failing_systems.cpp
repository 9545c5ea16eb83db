// test_failing_systems.cpp - the calls to the system and to libpcap fail in turn: while the manager
// starts, in its threads, in each public call, while frames are taken in, and at its stop.

#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <poll.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <span>

#include "fake_pcap_create.h"
#include "frame_kinds.h"
#include "public_calls.h"

namespace {

using fail::call;

struct failing_systems : public_calls {
    // One failure in a life of the manager, from its start on: either the manager ends with the
    // expected code, or it runs until its stop. The next life works like any other.
    bool live_with(const failure& how, unsigned n, const consequences& expected) {
        SCOPED_TRACE(testing::Message() << "occurrence " << n);
        const bool is_due = n <= total(expected);
        const consequence due = is_due ? nth(expected, n) : consequence{1, QNM_API_SUCCESS};
        logs.clear();
        hurry_event_thread();
        how.arm(n);
        result = QNM_API_CODE_MAX;
        std::atomic<bool> ended = false;
        manager = std::thread([&] {
            result = init(QNM_LOGLVL_TRACE);
            ended = true;
        });
        EXPECT_TRUE(wait_until([&] { return is_up() || ended; }));
        expect_lines(due.lines);
        EXPECT_TRUE(!is_due || wait_until(how.came, std::chrono::seconds(30)));
        EXPECT_TRUE(wait_until([&] { return due.code == QNM_API_SUCCESS || ended; }));
        stop();
        EXPECT_EQ(how.came(), is_due) << "there are others than " << total(expected);
        how.disarm();
        EXPECT_EQ(result, due.code);
        expect_no_error_but(due.lines);
        expect_no_trace();
        begin();
        end(QNM_API_SUCCESS);
        return !HasFailure();
    }

    // Makes library calls fail in one thread, which is recognised by the first line that it logs.
    failure call_in(const std::string& thread, call which, int err) {
        return call_where(which, err, [=, this] { return is_on(thread); });
    }

    // The first poll of that thread reports an event on one entry, and the call that handles the
    // event fails.
    failure poll_in(const std::string& thread, unsigned entry, short revents,
                    std::optional<call> which, int err) {
        const auto found = std::make_shared<std::atomic<bool>>(false);
        const auto find = [=, this](auto, int) -> std::optional<fail::poll_result> {
            if (*found || !is_on(thread)) return std::nullopt;
            *found = true;
            std::vector<short> events(2, 0);
            events[entry] = revents;
            return fail::poll_events(events);
        };
        const failure upon = which.has_value() ? call_in(thread, *which, err) : each_of({[] {}});
        return {[=](unsigned n) {
                    upon.arm(n);
                    fail::on_poll(find);
                },
                [=] { return *found && upon.came(); },
                [=] {
                    fail::on_poll(nullptr);
                    upon.disarm();
                }};
    }

    // Frames sent by the first port, which all cards are connected to.
    failure failed_send() {
        const auto count = [this] {
            return logs.count(k_error, "_qnm_send: Failed to pcap_sendpacket().");
        };
        const auto before = std::make_shared<size_t>(0);
        return {[=](unsigned n) {
                    *before = count();
                    fake_pcap::set_send_failure("port0", n);
                },
                [=] { return count() > *before; }, [] { fake_pcap::set_send_failure("port0", 0); }};
    }

    void sweep_lives(const failure& how, const consequences& expected) {
        for (unsigned n = 1; n <= total(expected) + 1; n++) {
            if (!live_with(how, n, expected)) return;
        }
    }
};

// ---- Start-up -----------------------------------------------------------------------------------

struct start_row {
    call which;
    int err;
    consequences expected;
};

std::string failed_thread(const std::string& label) {
    return "qnm_init_manager: Failed to _qnm_thread_create(" + label + "). err=11";
}

constexpr char k_no_timeout[] = "_qnm_socket_open_lin: Failed to setsockopt(SO_SNDTIMEO). errno=1";

const start_row k_starts[] = {
    // First the directory, then the properties of the log, before which nothing can be logged, then
    // the configuration, which may be missing.
    {call::stat,
     EACCES,
     {{1, QNM_API_EINVAL},
      {1, QNM_API_EPROTO},
      {1,
       QNM_API_SUCCESS,
       {{k_warn, "_qnm_config_read: Failed to _qnm_file_exist(). path={conf}"}}}}},
    // The properties: without them only log lines are lost.
    {call::fopen, EMFILE, {{1, QNM_API_SUCCESS}}},
    {call::open,
     EMFILE,
     {{1, QNM_API_EPROTO, {{k_error, "_qnm_config_read: file open error: {conf}. erno=24"}}}}},
    {call::fstat,
     EIO,
     {{1, QNM_API_EPROTO, {{k_error, "_qnm_config_read: file open error: {conf}. erno=5"}}}}},
    {call::fdopen,
     ENOMEM,
     {{1, QNM_API_EPROTO, {{k_error, "_qnm_config_read: file open error: {conf}. erno=12"}}}}},
    // What could be read of the configuration is used.
    {call::fgets, EIO, {{7, QNM_API_SUCCESS}}},
    // The events of the statistics, of the event thread and of the tags.
    {call::pthread_condattr_init,
     ENOMEM,
     {{1, QNM_API_EPROTO, {{k_error, "_qnm_stats_init: Failed to _qnm_event_init(). err=12"}}},
      {1,
       QNM_API_EPROTO,
       {{k_error, "_qnm_event_cb_init: Failed to _qnm_event_init() for event_sig. err=12"}}},
      {256, QNM_API_EPROTO, {{k_error, "_qnm_cmp_init: Failed to _qnm_event_init()"}}}}},
    {call::pthread_condattr_setclock,
     EINVAL,
     {{1, QNM_API_EPROTO, {{k_error, "_qnm_stats_init: Failed to _qnm_event_init(). err=22"}}},
      {1,
       QNM_API_EPROTO,
       {{k_error, "_qnm_event_cb_init: Failed to _qnm_event_init() for event_sig. err=22"}}},
      {256, QNM_API_EPROTO, {{k_error, "_qnm_cmp_init: Failed to _qnm_event_init()"}}}}},
    // Three per port: the index, the address, the link. Then the first check of the link watcher:
    // index and link of each.
    {call::ioctl,
     EIO,
     {{1,
       QNM_API_SUCCESS,
       {{k_error, "_qnm_socket_open_lin: Failed to ioctl(SIOCGIFINDEX). errno=5"}}},
      {1,
       QNM_API_SUCCESS,
       {{k_error, "_qnm_socket_open_lin: Failed to ioctl(SIOCGIFHWADDR). errno=5"}}},
      {1,
       QNM_API_SUCCESS,
       {{k_error, "_qnm_get_linkstate_lin_impl: Failed to ioctl(SIOCETHTOOL). errno=5"}}},
      {3,
       QNM_API_SUCCESS,
       {{k_error, "qnm_init_manager: Failed to _qnm_socket_open(). port=1, err=71"}}},
      {1,
       QNM_API_SUCCESS,
       {{k_error, "_qnm_find_interface: Failed to ioctl(SIOCGIFINDEX). errno=5"}}},
      {1,
       QNM_API_SUCCESS,
       {{k_error, "_qnm_get_linkstate_lin_impl: Failed to ioctl(SIOCETHTOOL). errno=5"}}},
      {1,
       QNM_API_SUCCESS,
       {{k_error, "_qnm_find_interface: Failed to ioctl(SIOCGIFINDEX). errno=5"}}},
      {1,
       QNM_API_SUCCESS,
       {{k_error, "_qnm_get_linkstate_lin_impl: Failed to ioctl(SIOCETHTOOL). errno=5"}}}}},
    // If a capture does not say how it delivers frames, it is used as it is.
    {call::getsockopt, EIO, {{2, QNM_API_SUCCESS}}},
    // Two per port: without a time-out, a send may wait for ever; these lives trace, so a filter
    // has to be removed. Then the watcher's socket: without the option, an overrun ends the
    // manager.
    {call::setsockopt,
     EPERM,
     {{1, QNM_API_SUCCESS, {{k_warn, k_no_timeout}}},
      {1,
       QNM_API_SUCCESS,
       {{k_warn, "_qnm_filter_port: Failed to setsockopt(SO_DETACH_FILTER). errno=1, if_index=3"}}},
      {1, QNM_API_SUCCESS, {{k_warn, k_no_timeout}}},
      {1,
       QNM_API_SUCCESS,
       {{k_warn, "_qnm_filter_port: Failed to setsockopt(SO_DETACH_FILTER). errno=1, if_index=4"}}},
      {1,
       QNM_API_SUCCESS,
       {{k_warn, "_qnm_watch_linkstate_lin: Failed to setsockopt(NETLINK_NO_ENOBUFS). errno=1"}}}}},
    {call::pipe,
     EMFILE,
     {{3,
       QNM_API_EPROTO,
       {{k_error, "qnm_init_manager: Failed to _qnm_terminate_event_create(). err=71"}}}}},
    // Without the flag, programs that the host starts inherit the captures and the pipes.
    {call::fcntl, EBADF, {{8, QNM_API_SUCCESS}}},
    // Before and after the creation of each thread: without the mask, the thread takes the host's
    // signals.
    {call::pthread_sigmask, EINVAL, {{10, QNM_API_SUCCESS}}},
    // One receive thread is enough.
    {call::pthread_create,
     EAGAIN,
     {{1, QNM_API_SUCCESS, {{k_error, failed_thread("recv port0")}}},
      {1, QNM_API_SUCCESS, {{k_error, failed_thread("recv port1")}}},
      {1, QNM_API_EPROTO, {{k_error, failed_thread("event_task")}}},
      {1, QNM_API_EPROTO, {{k_error, failed_thread("watch_link")}}},
      {1, QNM_API_EPROTO, {{k_error, failed_thread("stats_task")}}}}},
    // Three per port, for its lock. The first access to a card would log these.
    {call::socket,
     EMFILE,
     {{6, QNM_API_SUCCESS},
      {1, QNM_API_EPROTO, {{k_fatal, "_qnm_watch_linkstate_lin: Failed to socket(). errno=24"}}}}},
    {call::bind,
     EPERM,
     {{1, QNM_API_EPROTO, {{k_fatal, "_qnm_watch_linkstate_lin: Failed to bind(). errno=1"}}}}},
};

TEST_F(failing_systems, the_start_survives_each_failed_call) {
    // For a start without a configuration file.
    fake_netif::set("eth0", {.index = 5, .mac = 3});
    fake_netif::set("eth1", {.index = 6, .mac = 4});
    for (const start_row& row : k_starts) {
        consequences expected = row.expected;
        for (consequence& it : expected) {
            for (due_line& line : it.lines) {
                const size_t place = line.text.find("{conf}");
                if (place != std::string::npos) line.text.replace(place, 6, dir.conf());
            }
        }
        SCOPED_TRACE(fail::name_of(row.which));
        sweep_lives(call_where(row.which, row.err, qnm::is_running), expected);
        if (HasFatalFailure()) return;
    }
}

TEST_F(failing_systems, the_start_survives_each_failed_call_of_libpcap) {
    using fake_pcap::set_fileno;
    using fake_pcap::set_next_open_failure;
    sweep_lives(each_of({[] { set_next_open_failure("port0", "gone"); },
                         [] { set_next_open_failure("port1", "gone"); }}),
                {{2,
                  QNM_API_SUCCESS,
                  {{k_error, "_qnm_socket_open_lin: Failed to pcap_open_live(). gone"}}}});
    sweep_lives(
        each_of({[] { set_fileno("port0", -1); }, [] { set_fileno("port1", -1); }},
                [] {
                    set_fileno("port0", std::nullopt);
                    set_fileno("port1", std::nullopt);
                }),
        {{2, QNM_API_SUCCESS, {{k_error, "_qnm_socket_open_lin: Failed to pcap_fileno()."}}}});
}

// A port like that would seem open and receive nothing.
TEST_F(failing_systems, a_capture_that_cannot_be_polled_ends_the_manager) {
    using fake_pcap::set_selectable_fd;
    const auto failed = [](const char* port) {
        return consequence{
            1,
            QNM_API_EPROTO,
            {{k_fatal,
              "_qnm_recv_lin: Failed to pcap_get_selectable_fd(). port_num=" + std::string(port)}}};
    };
    sweep_lives(
        each_of({[] { set_selectable_fd("port0", -1); }, [] { set_selectable_fd("port1", -1); }},
                [] {
                    set_selectable_fd("port0", std::nullopt);
                    set_selectable_fd("port1", std::nullopt);
                }),
        {failed("0"), failed("1")});
}

// A capture is used with delay if it cannot be had without.
TEST_F(failing_systems, the_start_survives_each_failed_step_of_the_reopening) {
    using fake_pcap::step;
    fake_netif::set_packet_version(TPACKET_V3);
    std::vector<std::function<void()>> orders;
    for (const step it : {step::create, step::snaplen, step::promisc, step::timeout,
                          step::immediate_mode, step::buffer_size, step::activate}) {
        orders.push_back([it] { fake_pcap::set_next_result(it, -1); });
    }
    sweep_lives(each_of(orders), {{7, QNM_API_SUCCESS}});
}

// A mutex or condition that cannot be made is noticed when it is used. A mutex that was used in an
// earlier life reports an error then.
TEST_F(failing_systems, mutexes_that_cannot_be_made_end_no_life_in_disorder) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the use of a mutex that was not made is reported";
#endif
    sweep_lives(call_anywhere(call::pthread_mutex_init, EAGAIN),
                {{1,
                  QNM_API_SUCCESS,
                  {{k_warn, "_qnm_stats_task_com: Failed to _qnm_event_timedwait() err=38"}}},
                 {1,
                  QNM_API_EPROTO,
                  {{k_fatal, "_qnm_event_task_com: Failed to _qnm_event_timedwait(). err=38"}}},
                 {QNM_EVT_MAX + 256, QNM_API_SUCCESS}});
}

TEST_F(failing_systems, conditions_that_cannot_be_made_end_no_life_in_disorder) {
    sweep_lives(call_anywhere(call::pthread_cond_init, EAGAIN), {{2 + 256, QNM_API_SUCCESS}});
}

// ---- Threads ------------------------------------------------------------------------------------

constexpr char k_event[] = "_qnm_event_task_com: start.";
constexpr char k_stats[] = "_qnm_stats_task_com: start.";
constexpr char k_link[] = "_qnm_watch_linkstate: start.";
constexpr char k_keepalive[] = "_qnm_interval_check: start.";
constexpr char k_recv0[] = "_qnm_recv_task: start. if_index=3, mac=000000000001";
constexpr char k_recv1[] = "_qnm_recv_task: start. if_index=4, mac=000000000002";

// A thread, recognised by the first line that it logs, and a call that fails in it.
struct thread_row {
    const char* thread;
    call which;
    int err;
    consequence expected;
};

const thread_row k_threads[] = {
    {k_event,
     call::pthread_cond_timedwait,
     EINVAL,
     {1,
      QNM_API_EPROTO,
      {{k_fatal, "_qnm_event_task_com: Failed to _qnm_event_timedwait(). err=71"}}}},
    {k_event,
     call::clock_gettime,
     EINVAL,
     {3,
      QNM_API_EPROTO,
      {{k_fatal, "_qnm_event_task_com: Failed to _qnm_event_timedwait(). err=71"}}}},
    {k_stats,
     call::pthread_cond_timedwait,
     EINVAL,
     {1,
      QNM_API_SUCCESS,
      {{k_warn, "_qnm_stats_task_com: Failed to _qnm_event_timedwait() err=71"}}}},
    {k_stats,
     call::clock_gettime,
     EINVAL,
     {1,
      QNM_API_SUCCESS,
      {{k_warn, "_qnm_stats_task_com: Failed to _qnm_event_timedwait() err=71"}}}},
    {k_stats,
     call::localtime_r,
     EOVERFLOW,
     {1, QNM_API_SUCCESS, {{k_info, "***  qnm status dump (v0)", "statslogfile"}}}},
    {k_stats, call::time, EFAULT, {1, QNM_API_SUCCESS}},
    {k_keepalive, call::clock_gettime, EINVAL, {3, QNM_API_SUCCESS}},
    {k_keepalive, call::clock_nanosleep, EINTR, {3, QNM_API_SUCCESS}},
    {k_keepalive, call::clock_nanosleep, EINVAL, {3, QNM_API_SUCCESS}},
    {k_recv0,
     call::poll,
     EBADF,
     {1, QNM_API_EPROTO, {{k_fatal, "_qnm_recv_lin: poll() returned -1. errno=9, port_num=0"}}}},
    {k_recv1,
     call::poll,
     ENOMEM,
     {1, QNM_API_EPROTO, {{k_fatal, "_qnm_recv_lin: poll() returned -1. errno=12, port_num=1"}}}},
    {k_link,
     call::poll,
     EINVAL,
     {1, QNM_API_EPROTO, {{k_fatal, "_qnm_watch_linkstate_lin: poll() returned -1. errno=22"}}}},
};

TEST_F(failing_systems, the_threads_survive_each_failed_call) {
    for (const thread_row& row : k_threads) {
        SCOPED_TRACE(testing::Message() << row.thread << " " << fail::name_of(row.which));
        for (unsigned n = 1; n <= row.expected.times; n++)
            live_with(call_in(row.thread, row.which, row.err), n, {row.expected});
    }
}

// The entry on which a thread's poll reports an event, and how the call that handles it fails.
struct poll_row {
    const char* thread;
    unsigned entry;
    short revents;
    std::optional<call> which;
    int err;
    consequence expected;
};

const poll_row k_polls[] = {
    {k_recv0,
     0,
     POLLHUP,
     std::nullopt,
     0,
     {1,
      QNM_API_EPROTO,
      {{k_fatal,
        "_qnm_recv_lin: poll error event has occurred (in receive wait). port_num=0, "
        "revents=0x10"}}}},
    {k_recv1,
     0,
     POLLNVAL,
     std::nullopt,
     0,
     {1,
      QNM_API_EPROTO,
      {{k_fatal,
        "_qnm_recv_lin: poll error event has occurred (in receive wait). port_num=1, "
        "revents=0x20"}}}},
    {k_recv0,
     0,
     POLLERR,
     call::recv,
     EIO,
     {1,
      QNM_API_EPROTO,
      {{k_error, "_qnm_recv_lin: Failed to recv(). err=-1, errno=5, port_num=0"}}}},
    {k_recv0,
     0,
     POLLERR,
     call::recv,
     ENETDOWN,
     {1,
      QNM_API_SUCCESS,
      {{k_error, "_qnm_recv_lin: Failed to recv(). err=-1, errno=100, port_num=0"},
       {k_info,
        "_qnm_recv_lin: POLLERR event has occurred (in receive wait). Because interface is not up. "
        "port_num=0, revents=0x8"}}}},
    {k_recv0,
     1,
     POLLHUP,
     std::nullopt,
     0,
     {1,
      QNM_API_EPROTO,
      {{k_fatal,
        "_qnm_recv_lin: poll error event has occurred (in terminate event wait). port_num=0, "
        "revents=0x10"}}}},
    {k_recv1,
     1,
     POLLERR,
     call::read,
     EIO,
     {1,
      QNM_API_EPROTO,
      {{k_error, "_qnm_recv_lin: Failed to read(). err=-1, errno=5, port_num=1"}}}},
    {k_link,
     0,
     POLLHUP,
     std::nullopt,
     0,
     {1,
      QNM_API_EPROTO,
      {{k_fatal,
        "_qnm_watch_linkstate_lin: poll error event has occurred (in link state check wait). "
        "revents=0x10"}}}},
    {k_link,
     0,
     POLLERR,
     call::recv,
     ENOBUFS,
     {1,
      QNM_API_EPROTO,
      {{k_error,
        "_qnm_watch_linkstate_lin: Failed to recv(). revent is POLLERR. err=-1, errno=105, "
        "revents=0x8"}}}},
    {k_link,
     0,
     POLLIN,
     call::recv,
     ENOBUFS,
     {1,
      QNM_API_EPROTO,
      {{k_fatal,
        "_qnm_watch_linkstate_lin: Failed to recv(). revent is POLLIN. err=-1, errno=105, "
        "revents=0x1"}}}},
    {k_link,
     1,
     POLLNVAL,
     std::nullopt,
     0,
     {1,
      QNM_API_EPROTO,
      {{k_fatal,
        "_qnm_watch_linkstate_lin: poll error event has occurred (in terminate event wait). "
        "revents=0x20"}}}},
    {k_link,
     1,
     POLLERR,
     call::read,
     EIO,
     {1,
      QNM_API_EPROTO,
      {{k_error, "_qnm_watch_linkstate_lin: Failed to read(). err=-1, errno=5"}}}},
};

TEST_F(failing_systems, the_threads_survive_each_error_that_a_poll_finds) {
    for (const poll_row& row : k_polls) {
        SCOPED_TRACE(testing::Message() << row.thread << " entry " << row.entry << " revents "
                                        << row.revents << " errno " << row.err);
        live_with(poll_in(row.thread, row.entry, row.revents, row.which, row.err), 1,
                  {row.expected});
    }
}

TEST_F(failing_systems, the_receive_threads_survive_each_failed_result_of_the_capture) {
    const consequences expected = {
        {2, QNM_API_EPROTO, {{k_fatal, "_qnm_recv_pcap: Failed to pcap_next_ex()."}}},
        {2, QNM_API_EPROTO, {{k_error, "_qnm_recv_pcap: Failed to pcap_next_ex(). err = -2"}}},
        {1,
         QNM_API_SUCCESS,
         {{k_debug, "_qnm_recv_frame: _qnm_recv_pcap() returned ETIMEDOUT. port_num=0"}}}};
    // Called with the last pipe, when both ports are open.
    const auto pushing = [](const char* port, int found) {
        return [=] {
            fail::on(call::pipe, [=, last = fail::count(call::pipe) + 3](uint64_t number) {
                if (number == last) fake_pcap::push_result(port, found);
                return fail::pass;
            });
        };
    };
    sweep_lives(each_of({pushing("port0", -1), pushing("port1", -1), pushing("port0", -2),
                         pushing("port1", -2), pushing("port0", 0)}),
                expected);
}

// ---- Stop ---------------------------------------------------------------------------------------

struct stop_row {
    call which;
    int err;
    unsigned times;
    std::vector<due_line> lines = {};
};

// Written: the three pipes. Mutexes and conditions: those of all events, and a mutex for each type
// of event. One thread is created, with signals blocked, to close the locks.
const stop_row k_stops[] = {
    {call::write, EIO, 3},
    {call::pthread_mutex_destroy, EBUSY, 2 + QNM_EVT_MAX + 256},
    {call::pthread_cond_destroy, EBUSY, 2 + 256},
    {call::pthread_create, EAGAIN, 1, {{k_error, failed_thread("close_locks")}}},
    {call::pthread_sigmask, EINVAL, 2},
};

TEST_F(failing_systems, the_stop_survives_each_failed_call) {
    for (const stop_row& row : k_stops) {
        for (unsigned n = 1; n <= row.times + 1; n++) {
            SCOPED_TRACE(testing::Message() << fail::name_of(row.which) << ", " << n);
            const failure how = call_anywhere(row.which, row.err);
            begin();
            how.arm(n);
            end(QNM_API_SUCCESS);
            ASSERT_EQ(how.came(), n <= row.times);
            how.disarm();
            expect_no_error_but(n <= row.times ? row.lines : std::vector<due_line>{});
        }
    }
}

// ---- What fails for good ------------------------------------------------------------------------

struct lasting_row {
    call which;
    int err;
    consequence expected;
};

const lasting_row k_lasting[] = {
    {call::stat, EIO, {1, QNM_API_EINVAL}},
    {call::ioctl,
     ENODEV,
     {1,
      QNM_API_EPROTO,
      {{k_error, "qnm_init_manager: Failed to _qnm_socket_open(). port=1, err=71"}}}},
    {call::pthread_create, EAGAIN, {1, QNM_API_EPROTO, {{k_error, failed_thread("recv port1")}}}},
    {call::poll,
     ENOMEM,
     {1,
      QNM_API_EPROTO,
      {{k_fatal, "_qnm_fini_manager: LFI will terminate by reason of internal error."}}}},
    {call::clock_gettime,
     EINVAL,
     {1,
      QNM_API_EPROTO,
      {{k_fatal, "_qnm_event_task_com: Failed to _qnm_event_timedwait(). err=71"}}}},
    {call::clock_nanosleep, EINVAL, {1, QNM_API_SUCCESS}},
    {call::time, EFAULT, {1, QNM_API_SUCCESS}},
    {call::getsockopt, EIO, {1, QNM_API_SUCCESS}},
    {call::setsockopt, EPERM, {1, QNM_API_SUCCESS}},
};

failure lasting(call which, int err) {
    const auto before = std::make_shared<uint64_t>(0);
    return {[=](unsigned) {
                *before = fail::count(which);
                fail::always(which, err);
            },
            [=] { return fail::count(which) > *before; }, [=] { fail::clear(which); }};
}

TEST_F(failing_systems, calls_that_fail_for_good_end_a_life_in_order) {
    for (const lasting_row& row : k_lasting) {
        SCOPED_TRACE(fail::name_of(row.which));
        live_with(lasting(row.which, row.err), 1, {row.expected});
    }
}

// Threads that are not woken see the stop when their poll times out, within a second. A thread that
// is not in its poll yet sees the stop without reading its pipe.
TEST_F(failing_systems, pipes_that_fail_for_good_do_not_keep_the_manager_up) {
    constexpr uint64_t polling_threads = 3;
    for (const call which : {call::write, call::read}) {
        const failure how = lasting(which, EIO);
        const uint64_t polls = fail::count(call::poll);
        begin();
        ASSERT_TRUE(wait_until([&] { return fail::count(call::poll) >= polls + polling_threads; }));
        how.arm(1);
        end(QNM_API_SUCCESS);
        EXPECT_TRUE(how.came());
        how.disarm();
        expect_no_error_but({});
        begin();
        end(QNM_API_SUCCESS);
    }
}

// ---- Frames -------------------------------------------------------------------------------------

// A card is added although the clock or the making of its lock fails.
TEST_F(failing_systems, a_new_card_of_each_kind_survives_each_failed_call) {
    for (const frame_kind& it : all_kinds()) {
        SCOPED_TRACE(text_of(it));
        const auto announce = [&] {
            deliver(frames::build(it.announcement));
            return look_up(it);
        };
        for (const call which : {call::gettimeofday, call::pthread_mutex_init}) {
            sweep(call_anywhere(which, EAGAIN), [] {}, announce, {{1, QNM_API_SUCCESS}});
        }
    }
}

// A known card is updated as well. If the signal to the event thread fails, the events wait until
// the thread next checks its queue.
TEST_F(failing_systems, a_known_card_of_each_kind_survives_each_failed_call) {
    for (const frame_kind& it : all_kinds()) {
        SCOPED_TRACE(text_of(it));
        const auto learn = [&] { learn_anew(*this, it); };
        const auto restart = [&] { learn_and_restart(*this, it); };
        const auto announce = [&] {
            deliver_and_wake(*this, changed(it), 1);
            return look_up(it);
        };
        const failure no_time = call_anywhere(call::gettimeofday, EAGAIN);
        sweep(no_time, learn, announce, {{1, QNM_API_SUCCESS}});
        sweep(no_time, restart, announce, {{1, QNM_API_SUCCESS}});
        sweep(call_anywhere(call::pthread_cond_signal, EINVAL), restart, announce,
              {{1, QNM_API_SUCCESS}});
    }
}

// ---- Public calls -------------------------------------------------------------------------------

struct call_outcome {
    const char* name;
    consequences expected;
};

consequence failed_sender(unsigned times, const std::string& sender) {
    return {times,
            QNM_API_EPROTO,
            {{k_error, "_qnm_send_" + sender + ": Failed to _qnm_send(). err=71"}}};
}

consequence failed_step(unsigned times, const std::string& name, const std::string& step) {
    return {times, QNM_API_EPROTO, {{k_error, name + ": Failed to " + step + "(). err=71"}}};
}

// The lock cannot be given back. That does not change the result of the word.
consequence failed_unlock(unsigned times, const std::string& name) {
    return {times, QNM_API_SUCCESS, {{k_error, name + ": Failed to _qnm_unlock_eeprom(). err=71"}}};
}

const call_outcome k_sends[] = {
    {"qnm_read_register", {failed_sender(1, "regread")}},
    {"qnm_write_register", {failed_sender(1, "regwrite"), failed_sender(1, "regread")}},
    {"qnm_modify_register",
     {failed_sender(1, "regread"), failed_sender(1, "regwrite"), failed_sender(1, "regread")}},
    {"qnm_dump_register", {failed_sender(3, "regread")}},
    {"qnm_read_eeprom",
     {failed_step(1, "qnm_read_eeprom", "_qnm_get_locktype"),
      failed_step(4, "qnm_read_eeprom", "_qnm_lock_eeprom"),
      failed_step(8, "qnm_read_eeprom", "_qnm_read_eeprom"), failed_unlock(3, "qnm_read_eeprom")}},
    {"qnm_write_eeprom",
     {failed_step(1, "qnm_write_eeprom", "_qnm_get_locktype"),
      failed_step(4, "qnm_write_eeprom", "_qnm_lock_eeprom"),
      failed_step(17, "qnm_write_eeprom", "_qnm_write_eeprom"),
      failed_unlock(3, "qnm_write_eeprom")}},
    {"qnm_dump_eeprom",
     {failed_step(1, "_qnm_dump_eeprom", "_qnm_get_locktype"),
      failed_step(15, "qnm_dump_eeprom", "_qnm_dump_eeprom")}},
    {"qnm_unlock_eeprom",
     {failed_step(1, "qnm_unlock_eeprom", "_qnm_get_locktype"),
      failed_step(3, "qnm_unlock_eeprom", "_qnm_unlock_eeprom_impl")}},
    {"qnm_set_vlanid", {failed_sender(1, "vlanset")}},
    {"qnm_send_resetframe", {failed_sender(1, "reset")}},
    {"qnm_write_mmspage", {failed_sender(1, "mms")}},
};

// Calls that are in no row make none of these system calls.
consequences outcome_of(const std::string& name, std::span<const call_outcome> rows) {
    for (const call_outcome& row : rows) {
        if (row.name == name) return row.expected;
    }
    return {};
}

TEST_F(failing_systems, every_public_call_survives_each_failed_send) {
    for (const public_call& row : k_public_calls)
        sweep_call(*this, row, failed_send(), outcome_of(row.name, k_sends));
}

struct call_row {
    const char* name;
    call which;
    int err;
    consequences expected;
};

// If the end of a wait cannot be computed, there is no wait.
consequences failed_waits(unsigned times, const std::string& name) {
    return {{times, QNM_API_EPROTO, {{k_info, name + ": (OUT) ret=6, id=0x020000001000"}}}};
}

const consequence k_no_date = {
    1, QNM_API_SUCCESS, {{k_info, "***  qnm status dump (v1)", "statslogfile"}}};

// If a sleep cannot be timed, it is left out. A signal that nobody waits for may be lost.
consequence harmless(unsigned times) {
    return {times, QNM_API_SUCCESS};
}

// These take the lock of the port with their first frame, and go on without it if that fails.
constexpr const char* k_locking[] = {
    "qnm_read_register", "qnm_write_register",  "qnm_modify_register", "qnm_dump_register",
    "qnm_read_eeprom",   "qnm_write_eeprom",    "qnm_dump_eeprom",     "qnm_unlock_eeprom",
    "qnm_set_vlanid",    "qnm_send_resetframe", "qnm_write_mmspage",
};
constexpr call k_lock_calls[] = {call::bind, call::listen};

const consequences k_no_lock = {
    {1,
     QNM_API_SUCCESS,
     {{k_warn,
       "_qnm_port_lock_take: Failed to lock the port against other managers. errno=13, "
       "port_num=0"}}}};

// All other system calls that a public call makes on its caller's thread.
const call_row k_calls[] = {
    {"qnm_read_register", call::clock_gettime, EINVAL, failed_waits(1, "qnm_read_register")},
    {"qnm_write_register", call::clock_gettime, EINVAL, failed_waits(1, "qnm_write_register")},
    {"qnm_modify_register", call::clock_gettime, EINVAL, failed_waits(2, "qnm_modify_register")},
    {"qnm_dump_register", call::clock_gettime, EINVAL, failed_waits(3, "qnm_dump_register")},
    {"qnm_read_eeprom",
     call::clock_gettime,
     EINVAL,
     {failed_step(1, "qnm_read_eeprom", "_qnm_get_locktype"),
      failed_step(2, "qnm_read_eeprom", "_qnm_lock_eeprom"), harmless(1),
      failed_step(1, "qnm_read_eeprom", "_qnm_lock_eeprom"),
      failed_step(2, "qnm_read_eeprom", "_qnm_read_eeprom"), harmless(1),
      failed_step(3, "qnm_read_eeprom", "_qnm_read_eeprom"), failed_unlock(2, "qnm_read_eeprom")}},
    {"qnm_write_eeprom",
     call::clock_gettime,
     EINVAL,
     {failed_step(1, "qnm_write_eeprom", "_qnm_get_locktype"),
      failed_step(2, "qnm_write_eeprom", "_qnm_lock_eeprom"), harmless(1),
      failed_step(1, "qnm_write_eeprom", "_qnm_lock_eeprom"),
      failed_step(3, "qnm_write_eeprom", "_qnm_write_eeprom"), harmless(1),
      failed_step(4, "qnm_write_eeprom", "_qnm_write_eeprom"), harmless(1),
      failed_step(3, "qnm_write_eeprom", "_qnm_write_eeprom"),
      failed_unlock(2, "qnm_write_eeprom")}},
    {"qnm_dump_eeprom",
     call::clock_gettime,
     EINVAL,
     {failed_step(1, "_qnm_dump_eeprom", "_qnm_get_locktype"),
      failed_step(2, "qnm_dump_eeprom", "_qnm_dump_eeprom"), harmless(1),
      failed_step(3, "qnm_dump_eeprom", "_qnm_dump_eeprom"), harmless(1),
      failed_step(5, "qnm_dump_eeprom", "_qnm_dump_eeprom")}},
    {"qnm_unlock_eeprom",
     call::clock_gettime,
     EINVAL,
     {failed_step(1, "qnm_unlock_eeprom", "_qnm_get_locktype"),
      failed_step(2, "qnm_unlock_eeprom", "_qnm_unlock_eeprom_impl")}},
    {"qnm_set_vlanid", call::clock_gettime, EINVAL, {harmless(3)}},  // it may send twice then
    {"qnm_read_eeprom", call::clock_nanosleep, EINVAL, {harmless(2)}},
    {"qnm_write_eeprom", call::clock_nanosleep, EINVAL, {harmless(3)}},
    {"qnm_dump_eeprom", call::clock_nanosleep, EINVAL, {harmless(2)}},
    {"qnm_set_vlanid", call::clock_nanosleep, EINVAL, {harmless(1)}},
    {"qnm_read_register", call::pthread_cond_signal, EINVAL, {harmless(1)}},
    {"qnm_write_register", call::pthread_cond_signal, EINVAL, {harmless(1)}},
    {"qnm_modify_register", call::pthread_cond_signal, EINVAL, {harmless(2)}},
    {"qnm_dump_register", call::pthread_cond_signal, EINVAL, {harmless(3)}},
    {"qnm_read_eeprom", call::pthread_cond_signal, EINVAL, {harmless(11)}},
    {"qnm_write_eeprom", call::pthread_cond_signal, EINVAL, {harmless(16)}},
    {"qnm_dump_eeprom", call::pthread_cond_signal, EINVAL, {harmless(11)}},
    {"qnm_unlock_eeprom", call::pthread_cond_signal, EINVAL, {harmless(3)}},
    {"qnm_stdump", call::time, EFAULT, {harmless(1)}},
    {"qnm_stdump", call::localtime_r, EOVERFLOW, {k_no_date}},
    {"qnm_stdump", call::strftime, ERANGE, {k_no_date}},
    {"qnm_set_loglevel", call::setsockopt, EPERM, {harmless(2)}},
    {"qnm_log_init", call::stat, EACCES, {{1, QNM_API_EPROTO}}},
    {"qnm_log_init", call::fopen, EACCES, {harmless(1)}},
};

bool is_here(std::thread::id self) {
    return std::this_thread::get_id() == self;
}

failure call_here(call which, int err) {
    return call_where(which, err, [self = std::this_thread::get_id()] { return is_here(self); });
}

TEST_F(failing_systems, public_calls_survive_each_failed_call) {
    for (const call_row& row : k_calls) {
        SCOPED_TRACE(fail::name_of(row.which));
        sweep_call(*this, public_call_of(row.name), call_here(row.which, row.err), row.expected);
    }
    for (const char* const name : k_locking) {
        for (const call which : k_lock_calls)
            sweep_call(*this, public_call_of(name), call_here(which, EACCES), k_no_lock);
    }
}

// According to POSIX, locking mutexes like these cannot fail. A call waits only if no answer comes.
constexpr call k_not_counted[] = {call::pthread_mutex_lock, call::pthread_cond_timedwait};

// How often a call without a failure makes each system call on its thread.
std::map<call, unsigned> calls_in(public_calls& at, const public_call& row) {
    std::map<call, unsigned> counts;
    const auto self = std::this_thread::get_id();
    for (const call it : fail::k_all_calls) {
        if (std::count(std::begin(k_not_counted), std::end(k_not_counted), it) != 0) continue;
        fail::on(it, [=, &count = counts[it]](uint64_t) {
            if (is_here(self)) count++;
            return fail::pass;
        });
    }
    EXPECT_EQ(row.run(at), QNM_API_SUCCESS);
    for (const auto& [it, count] : counts)
        fail::clear(it);
    return counts;
}

unsigned lock_calls(const std::string& name, call which) {
    const bool locks = std::count(std::begin(k_locking), std::end(k_locking), name) != 0;
    return locks && std::count(std::begin(k_lock_calls), std::end(k_lock_calls), which) != 0;
}

TEST_F(failing_systems, no_system_call_of_a_public_call_is_left_out) {
    for (const public_call& row : k_public_calls) {
        SCOPED_TRACE(row.name);
        begin();
        prepare_for(*this, row);
        for (const auto& [which, count] : calls_in(*this, row)) {
            unsigned expected = lock_calls(row.name, which);
            for (const call_row& it : k_calls) {
                if (it.which == which && std::string(it.name) == row.name)
                    expected += total(it.expected);
            }
            EXPECT_EQ(count, expected) << fail::name_of(which);
        }
        end(QNM_API_SUCCESS);
    }
}

// The n-th read of the card from now is not answered, and the wait for it fails.
failure failed_wait(public_calls& at) {
    const auto is_due = std::make_shared<bool>(false);
    const auto decide = [=, &at, self = std::this_thread::get_id()](uint64_t) -> fail::outcome {
        if (!is_here(self)) return at.hurry();
        if (at.server.is_to_lose() || !std::exchange(*is_due, false)) return fail::pass;
        return EINVAL;
    };
    return {[=, &at](unsigned n) {
                at.server.lose(n);
                *is_due = true;
                fail::on(call::pthread_cond_timedwait, decide);
            },
            [=] { return !*is_due; },
            [=, &at] {
                at.server.lose(0);
                *is_due = false;
                fail::clear(call::pthread_cond_timedwait);
            }};
}

const call_outcome k_waits[] = {
    {"qnm_read_register", failed_waits(1, "qnm_read_register")},
    {"qnm_write_register", failed_waits(1, "qnm_write_register")},
    {"qnm_modify_register", failed_waits(2, "qnm_modify_register")},
    {"qnm_dump_register", failed_waits(3, "qnm_dump_register")},
    {"qnm_read_eeprom",
     {failed_step(1, "qnm_read_eeprom", "_qnm_get_locktype"),
      failed_step(3, "qnm_read_eeprom", "_qnm_lock_eeprom"),
      failed_step(5, "qnm_read_eeprom", "_qnm_read_eeprom"), failed_unlock(2, "qnm_read_eeprom")}},
    {"qnm_write_eeprom",
     {failed_step(1, "qnm_write_eeprom", "_qnm_get_locktype"),
      failed_step(3, "qnm_write_eeprom", "_qnm_lock_eeprom"),
      failed_step(10, "qnm_write_eeprom", "_qnm_write_eeprom"),
      failed_unlock(2, "qnm_write_eeprom")}},
    {"qnm_dump_eeprom",
     {failed_step(1, "_qnm_dump_eeprom", "_qnm_get_locktype"),
      failed_step(10, "qnm_dump_eeprom", "_qnm_dump_eeprom")}},
    {"qnm_unlock_eeprom",
     {failed_step(1, "qnm_unlock_eeprom", "_qnm_get_locktype"),
      failed_step(2, "qnm_unlock_eeprom", "_qnm_unlock_eeprom_impl")}},
};

TEST_F(failing_systems, every_public_call_survives_each_failed_wait) {
    for (const public_call& row : k_public_calls)
        sweep_call(*this, row, failed_wait(*this), outcome_of(row.name, k_waits));
}

// Without a clock the call would wait for ever. The manager ends in that case, so it does not come
// to that.
TEST_F(failing_systems, a_wait_under_a_clock_that_fails_for_good_ends_with_the_manager) {
    begin();
    prepare();
    const failure how = lasting(call::clock_gettime, EINVAL);
    how.arm(1);
    EXPECT_EQ(qnm_set_vlanid(k_server, k_new_group + 1, nullptr, QNM_FLAG_VERIFY), QNM_API_ENOSYS);
    end(QNM_API_EPROTO);
    how.disarm();
    begin();
    end(QNM_API_SUCCESS);
}

}  // namespace
