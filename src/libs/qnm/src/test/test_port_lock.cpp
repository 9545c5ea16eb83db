// test_port_lock.cpp - only one manager at a time accesses cards through an interface.

#include "qnm_port_lock.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "answering_card.h"
#include "fake_netif.h"
#include "qnm_eeprom_send.h"
#include "qnm_port_holder.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr int k_index[2] = {5, 6};  // of the ports

// Another process, which does something and then stays until it is told to end or is killed.
class other_process {
  public:
    explicit other_process(const std::function<void()>& work) {
        EXPECT_EQ(pipe(ready_), 0);
        EXPECT_EQ(pipe(end_), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(end_[1]);
            work();
            char byte = write(ready_[1], "r", 1) == 1 ? 'r' : '-';
            [[maybe_unused]] const ssize_t ended = read(end_[0], &byte, 1);
            _exit(0);
        }
        char byte = 0;
        EXPECT_EQ(read(ready_[0], &byte, 1), 1);
    }
    ~other_process() { end(); }
    other_process(const other_process&) = delete;
    other_process& operator=(const other_process&) = delete;

    pid_t pid() const { return pid_; }

    void end(int signal = 0) {
        if (pid_ == -1) return;
        if (signal != 0) kill(pid_, signal);
        for (const int fd : {ready_[0], ready_[1], end_[0], end_[1]})
            close(fd);
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        pid_ = -1;
    }

  private:
    int ready_[2];
    int end_[2];
    pid_t pid_ = -1;
};

void lock_first_port() {
    _qnm_port_lock_open(0, k_index[0]);
    if (_qnm_port_lock_take(0) != 0) _exit(1);
}

// Leaves the process the privileges of an ordinary user.
void drop_capabilities() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capset, &header, data) != 0) _exit(1);
}

// Has to run first, because only the first registration in a process can fail.
TEST_F(ports, without_a_way_to_hear_of_forks_tells_so_and_tries_again) {
    const uint64_t before = fail::count(fail::call::pthread_atfork);
    fail::nth(fail::call::pthread_atfork, 1, ENOMEM);
    for (const unsigned tried : {1U, 2U, 2U}) {
        _qnm_port_lock_open(0, k_index[0]);
        _qnm_port_lock_close(0);
        EXPECT_EQ(fail::count(fail::call::pthread_atfork), before + tried);
    }
    EXPECT_THAT(logs.texts("logfile"),
                ElementsAre("_qnm_port_lock_open: Failed to pthread_atfork(). err=12"));
}

struct port_lock : card_units {
    port_lock() {
        open();
        // A process that cannot be read about counts as a manager, also where the tests run without
        // privileges.
        fail::always(fail::call::fopen, EACCES);
        fail::on_sleep([](std::chrono::nanoseconds) {});
        logs.clear();
    }

    ~port_lock() override { close_ports(); }

    static void open() {
        for (int port = 0; port < 2; port++)
            _qnm_port_lock_open(port, k_index[port]);
    }

    static void close_ports() {
        for (int port = 0; port < 2; port++)
            _qnm_port_lock_close(port);
    }

    static void take_both_of_one_interface() {
        close_ports();
        _qnm_port_lock_open(0, k_index[0]);
        _qnm_port_lock_open(1, k_index[0]);
        EXPECT_EQ(_qnm_port_lock_take(1), 0);
        EXPECT_EQ(_qnm_port_lock_take(0), 0);
    }

    static std::string line_of(pid_t pid, const std::string& process_name) {
        return "_qnm_port_lock_take: Cards on port_num=0 are accessed by process " +
               std::to_string(pid) + " (" + process_name + ")";
    }

    int read_one() {
        uint32_t data = 0;
        return qnm_read_register(k_id, 0, &data, &k_retry, 0);
    }
};

TEST_F(port_lock, is_taken_with_the_first_frame_and_then_costs_no_call) {
    EXPECT_EQ(fail::count(fail::call::bind), 0U);
    EXPECT_EQ(read_one(), QNM_API_SUCCESS);
    EXPECT_EQ(fail::count(fail::call::bind), 1U);
    EXPECT_EQ(fail::count(fail::call::listen), 1U);
    for (int n = 0; n < 100; n++)
        EXPECT_EQ(read_one(), QNM_API_SUCCESS);
    EXPECT_EQ(fail::count(fail::call::bind), 1U);
    EXPECT_EQ(fail::count(fail::call::connect), 0U);
}

TEST_F(port_lock, is_one_per_port) {
    const other_process other(lock_first_port);
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(_qnm_port_lock_take(1), 0);
}

TEST_F(port_lock, is_one_where_both_ports_are_the_same_interface) {
    take_both_of_one_interface();
    EXPECT_EQ(fail::count(fail::call::bind), 1U);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(port_lock, of_another_process_refuses_every_call_without_a_frame) {
    const other_process other(lock_first_port);
    uint32_t data = 0, words[4] = {}, page[32] = {};
    size_t len = sizeof words;
    qnm_qnio_t multi_root = {};
    multi_root.eio_com_dev = record(k_id + 2, k_mac + 2);
    multi_root.eio_com_dev.ecd_ver = 1;
    {
        const qnm::table_guard lock;
        EXPECT_EQ(_qnm_set_qnio(k_id + 2, &multi_root, QNM_WATCH, 0, QNM_VALID_ALL), 0);
    }
    const std::pair<const char*, std::function<qnm_api_code_t(uint32_t flags)>> calls[] = {
        {"read_register",
         [&](uint32_t flags) { return qnm_read_register(k_id, 0, &data, nullptr, flags); }},
        {"write_register",
         [&](uint32_t flags) { return qnm_write_register(k_id, 0, 1, nullptr, flags); }},
        {"modify_register",
         [&](uint32_t flags) { return qnm_modify_register(k_id, 0, 1, 1, nullptr, flags); }},
        {"dump_register",
         [&](uint32_t flags) {
             len = sizeof words;
             return qnm_dump_register(k_id, 0, 16, words, &len, nullptr, flags);
         }},
        {"read_eeprom",
         [&](uint32_t flags) { return qnm_read_eeprom(k_id, 0, &data, nullptr, flags); }},
        {"write_eeprom",
         [&](uint32_t flags) { return qnm_write_eeprom(k_id, 0, 1, nullptr, flags); }},
        {"dump_eeprom",
         [&](uint32_t flags) {
             len = sizeof words;
             return qnm_dump_eeprom(k_id, 0, 16, words, &len, nullptr, flags);
         }},
        {"unlock_eeprom", [&](uint32_t) { return qnm_unlock_eeprom(k_id); }},
        {"set_vlanid", [&](uint32_t flags) { return qnm_set_vlanid(k_id, 100, nullptr, flags); }},
        {"send_resetframe",
         [&](uint32_t flags) { return qnm_send_resetframe(k_id, 0, nullptr, flags); }},
        {"write_mmspage",
         [&](uint32_t flags) { return qnm_write_mmspage(k_id + 2, 0, page, flags); }},
    };
    int sleeps = 0;
    fail::on_sleep([&](std::chrono::nanoseconds) { sleeps++; });
    for (const auto& [name, call] : calls) {
        for (const uint32_t flags : {QNM_FLAG_LIVECHECK, QNM_FLAG_VERIFY, QNM_FLAG_FORCELOCK}) {
            SCOPED_TRACE(name);
            logs.clear();
            EXPECT_EQ(call(flags), QNM_API_EBUSY);
            EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 1U);
        }
    }
    EXPECT_EQ(sent_count(), 0U);
    EXPECT_EQ(sleeps, 0) << "no loop is gone through";
    EXPECT_EQ(data, 0U);
    EXPECT_EQ(counted(0, QNM_STATS_T_TOTAL), 0U);
}

TEST_F(port_lock, of_another_process_ends_the_live_check) {
    qnm_config.use_port_num_linux = 1;
    const other_process other(lock_first_port);
    dev.ecd_state[0][0] = 0;  // connected nowhere: a path is looked for
    store(dev);
    uint32_t data = 0;
    EXPECT_EQ(qnm_read_register(k_id, 0, &data, &k_retry, QNM_FLAG_LIVECHECK), QNM_API_EBUSY);
    EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 1U);
    EXPECT_EQ(sent_count(), 0U);
}

TEST_F(port_lock, of_another_process_lets_the_live_check_go_on_to_a_free_port) {
    const other_process other(lock_first_port);
    dev.ecd_state[0][0] = 0;  // connected nowhere: a path is looked for
    store(dev);
    uint32_t data = 0;
    EXPECT_EQ(qnm_read_register(k_id, 0, &data, &k_retry, QNM_FLAG_LIVECHECK), QNM_API_SUCCESS);
}

TEST_F(port_lock, is_free_when_the_other_one_has_released_it_or_has_died) {
    for (const int signal : {0, SIGKILL}) {
        other_process other(lock_first_port);
        EXPECT_EQ(read_one(), QNM_API_EBUSY);
        EXPECT_EQ(read_one(), QNM_API_EBUSY);
        other.end(signal);
        EXPECT_EQ(read_one(), QNM_API_SUCCESS) << "it was tried for again";
        close_ports();
        open();
    }
}

TEST_F(port_lock, is_released_with_the_port_and_taken_anew) {
    ASSERT_EQ(_qnm_port_lock_take(0), 0);
    {
        const other_process other([] {
            _qnm_port_lock_open(0, k_index[0]);
            if (_qnm_port_lock_take(0) != EBUSY) _exit(1);
        });
    }
    close_ports();
    EXPECT_EQ(_qnm_port_lock_take(0), 0) << "a closed port is nobody's business";
    other_process other(lock_first_port);
    open();
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    other.end();
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
}

TEST_F(port_lock, is_not_kept_by_a_child) {
    ASSERT_EQ(_qnm_port_lock_take(0), 0);
    const other_process child([] {});
    _qnm_port_lock_close(0);
    const other_process other(lock_first_port);
    _qnm_port_lock_open(0, k_index[0]);
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_TRUE(logs.has(k_error, line_of(other.pid(), "")));
}

// As in a program that makes its processes by clone(), so no fork handler has run there.
TEST_F(port_lock, is_not_kept_by_a_child_that_has_the_socket) {
    ASSERT_EQ(_qnm_port_lock_take(0), 0);
    const pid_t child = _Fork();
    if (child == 0) {
        for (;;)
            pause();
    }
    _qnm_port_lock_close(0);
    _qnm_port_lock_open(0, k_index[0]);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_qnm_port_lock_take: The lock of the port is taken and nobody answers "
                            "there. Going on without it. port_num=0"));
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    const other_process other([] {
        _qnm_port_lock_open(0, k_index[0]);
        if (_qnm_port_lock_take(0) != EBUSY) _exit(1);
    });
}

// The holder is asked once for each check of its guests, however often the name is tried.
TEST_F(port_lock, asks_its_holder_from_time_to_time_only) {
    const other_process other(lock_first_port);
    for (int n = 0; n < 50; n++)
        EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(fail::count(fail::call::bind), 50U);
    EXPECT_EQ(fail::count(fail::call::connect), 1U);
    _qnm_port_lock_serve();
    _qnm_port_lock_serve();
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(fail::count(fail::call::connect), 2U);
    EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 52U);
}

TEST_F(port_lock, dismisses_those_who_have_asked) {
    ASSERT_EQ(_qnm_port_lock_take(0), 0);
    std::vector<int> guests;
    for (int n = 0; n < 20; n++) {
        guests.push_back(_qnm_port_socket());
        qnm_port_holder_t holder;
        _qnm_ask_port_holder(guests.back(), k_index[0], &holder);
        EXPECT_EQ(holder.eph_kind, QNM_HOLDER_MANAGER);
        EXPECT_EQ(holder.eph_pid, getpid());
    }
    _qnm_port_lock_serve();
    EXPECT_EQ(fail::count(fail::call::accept4), 21U);
    for (const int guest : guests) {
        char byte = 0;
        EXPECT_EQ(recv(guest, &byte, 1, MSG_DONTWAIT), 0) << "the connection has ended";
        close(guest);
    }
    fail::always(fail::call::accept4, 0);
    const uint64_t before = fail::count(fail::call::accept4);
    _qnm_port_lock_serve();
    EXPECT_EQ(fail::count(fail::call::accept4), before + SOMAXCONN) << "not for ever";
    fail::clear(fail::call::accept4);
}

TEST_F(port_lock, names_a_process_by_its_printable_name) {
    fail::clear(fail::call::fopen);
    const other_process other([] {
        prctl(PR_SET_NAME, "bad\x1B[31m\nname");
        lock_first_port();
    });
    // Whether the process counts as a manager depends on the privileges of this test; its name does
    // not.
    _qnm_port_lock_take(0);
    ASSERT_THAT(logs.lines(), SizeIs(1));
    EXPECT_THAT(logs.texts("logfile").front(), testing::HasSubstr("(bad?[31m)"));
}

// ---- Holders that are no manager ----------------------------------------------------------------

struct passed_over : port_lock {
    // Frames leave in spite of it, and one line says so.
    void expect_passed_over(const std::string& text) {
        logs.clear();
        EXPECT_EQ(read_one(), QNM_API_SUCCESS);
        EXPECT_EQ(read_one(), QNM_API_SUCCESS);
        EXPECT_THAT(logs.texts("logfile", k_warn), ElementsAre("_qnm_port_lock_take: " + text));
        EXPECT_EQ(logs.count_level(k_error), 0U);
    }
};

constexpr char k_no_answer[] =
    "The lock of the port is taken and nobody answers there. Going on without it. port_num=0";

TEST_F(passed_over, is_a_process_without_the_capability) {
    fail::clear(fail::call::fopen);
    const other_process squatter([] {
        drop_capabilities();
        lock_first_port();
    });
    expect_passed_over("Process " + std::to_string(squatter.pid()) +
                       " (test_port_lock) has the lock of the port and is no manager. Going on "
                       "without it. port_num=0");
}

TEST_F(passed_over, is_a_name_at_which_nobody_listens) {
    const other_process squatter([] {
        fail::always(fail::call::listen, ENOMEM);
        lock_first_port();
    });
    expect_passed_over(k_no_answer);
}

TEST_F(passed_over, is_a_listener_that_takes_no_connections_or_has_gone) {
    const other_process squatter(lock_first_port);
    fail::always(fail::call::connect, EAGAIN);
    expect_passed_over(k_no_answer);
    fail::clear(fail::call::connect);
    close_ports();
    open();
    fail::always(fail::call::kill, ESRCH);
    expect_passed_over(k_no_answer);
    fail::clear(fail::call::kill);
}

TEST_F(passed_over, is_told_again_in_the_next_run) {
    const other_process squatter(lock_first_port);
    fail::always(fail::call::connect, EAGAIN);
    for (int run = 0; run < 2; run++) {
        expect_passed_over(k_no_answer);
        close_ports();
        open();
    }
    fail::clear(fail::call::connect);
}

TEST_F(passed_over, gives_way_when_it_ends) {
    other_process squatter(lock_first_port);
    fail::always(fail::call::connect, EAGAIN);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    fail::clear(fail::call::connect);
    squatter.end();
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    const other_process other([] {
        _qnm_port_lock_open(0, k_index[0]);
        if (_qnm_port_lock_take(0) != EBUSY) _exit(1);
    });
    EXPECT_EQ(logs.lines().size(), 1U);
}

// A process that has bound the name but does not listen yet is a manager nevertheless.
TEST_F(port_lock, waits_for_one_who_has_bound_it_and_does_not_listen_yet) {
    const other_process other(lock_first_port);
    fail::nth(fail::call::connect, 1, ECONNREFUSED);
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(fail::count(fail::call::connect), 2U);
}

// Somebody has filled the manager's backlog. The manager makes room when it next looks.
TEST_F(port_lock, waits_for_a_manager_whose_guests_have_taken_all_room) {
    const other_process other(lock_first_port);
    int sleeps = 0;
    fail::always(fail::call::connect, EAGAIN);
    fail::on_sleep([&](std::chrono::nanoseconds) {
        if (++sleeps == 50) fail::clear(fail::call::connect);
    });
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(sleeps, 50);
    EXPECT_TRUE(logs.has(k_error, line_of(other.pid(), "")));
    EXPECT_EQ(logs.lines().size(), 1U);
}

TEST_F(port_lock, is_waited_for_no_longer_than_the_manager_runs) {
    const other_process other(lock_first_port);
    int sleeps = 0;
    fail::always(fail::call::connect, EAGAIN);
    fail::on_sleep([&](std::chrono::nanoseconds) {
        if (++sleeps == 3) qnm::store(qnm_root.er_fini_flag, 2U);
    });
    EXPECT_EQ(_qnm_port_lock_take(0), 0) << "what a stop has to take back is sent";
    EXPECT_EQ(sleeps, 3);
    fail::clear(fail::call::connect);
}

TEST_F(port_lock, is_taken_when_its_holder_leaves_while_he_is_asked) {
    fail::nth(fail::call::bind, 1, EADDRINUSE);
    fail::nth(fail::call::connect, 1, ECONNREFUSED);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_EQ(fail::count(fail::call::bind), 2U);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(fail::count(fail::call::bind), 2U) << "it is held";
}

TEST_F(port_lock, is_respected_when_its_holder_cannot_be_seen) {
    const other_process other(lock_first_port);
    const std::string line =
        "_qnm_port_lock_take: Cards on port_num=0 are accessed by a process that cannot be seen "
        "from here";
    fail::nth(fail::call::connect, 1, EACCES);
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(logs.count(k_error, line), 1U);
    _qnm_port_lock_serve();
    fail::nth(fail::call::getsockopt, 1, EINVAL);  // as of one of another PID namespace
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(logs.count(k_error, line), 2U);
}

// ---- Where there can be none --------------------------------------------------------------------

TEST_F(port_lock, that_cannot_be_made_is_done_without) {
    close_ports();
    fail::always(fail::call::socket, EAFNOSUPPORT);
    open();
    fail::clear(fail::call::socket);
    EXPECT_TRUE(logs.lines().empty()) << "who only listens needs none";
    for (int n = 0; n < 3; n++)
        EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_qnm_port_lock_take: Failed to lock the port against other managers. "
                            "errno=97, port_num=0"));
    _qnm_port_lock_serve();
}

TEST_F(port_lock, that_cannot_be_bound_or_listened_on_is_done_without) {
    for (const fail::call which : {fail::call::bind, fail::call::listen}) {
        close_ports();
        open();
        logs.clear();
        fail::nth(which, 1, EACCES);
        EXPECT_EQ(_qnm_port_lock_take(0), 0);
        EXPECT_EQ(_qnm_port_lock_take(0), 0);
        EXPECT_THAT(logs.texts("logfile", k_warn),
                    ElementsAre("_qnm_port_lock_take: Failed to lock the port against other "
                                "managers. errno=13, port_num=0"));
    }
}

TEST_F(port_lock, without_a_spare_socket_its_holder_stays_unknown_until_there_is_one) {
    close_ports();
    const other_process other(lock_first_port);
    const uint64_t before = fail::count(fail::call::socket);
    fail::nth(fail::call::socket, 3, EMFILE);  // behind those for the group and the name
    open();
    EXPECT_EQ(fail::count(fail::call::socket), before + 6);
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_TRUE(logs.has(k_error,
                         "_qnm_port_lock_take: Cards on port_num=0 are accessed by a process that "
                         "cannot be seen from here"));
    _qnm_port_lock_serve();
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_TRUE(logs.has(k_error, line_of(other.pid(), "")));
}

// ---- The group ----------------------------------------------------------------------------------

constexpr char k_unseen[] =
    "_qnm_port_lock_take: Cards on port_num=0 are accessed by a process that cannot be seen from "
    "here";
constexpr char k_taken_name[] =
    "_qnm_port_lock_take: The lock of the port is taken and nobody answers there. Going on without "
    "it. port_num=0";

// What a process does that holds the name but is in no group.
void take_name_alone() {
    fake_netif::set_fanout(fake_netif::fanout::none);
    lock_first_port();
}

void expect_refused() {
    _qnm_port_lock_open(0, k_index[0]);
    if (_qnm_port_lock_take(0) != EBUSY) _exit(1);
}

// Groups of the kernel with room for one member decide; the name only says who holds it.
struct port_group : port_lock {
    port_group() {
        use(fake_netif::fanout::kept);
        fail::on_sleep([&](std::chrono::nanoseconds) { sleeps++; });
    }

    static void use(fake_netif::fanout groups) {
        close_ports();
        fake_netif::set_fanout(groups);
        open();
    }

    static std::string stranger_line(pid_t pid) {
        return "_qnm_port_lock_take: Process " + std::to_string(pid) +
               " () has the lock of the port and is no manager. Going on without it. port_num=0";
    }

    int sleeps = 0;
};

TEST_F(port_group, is_joined_with_the_first_frame_and_then_costs_no_call) {
    const uint64_t before = fail::count(fail::call::setsockopt);
    EXPECT_EQ(read_one(), QNM_API_SUCCESS);
    EXPECT_EQ(fail::count(fail::call::setsockopt), before + 2) << "one tries whether it is kept to";
    const uint64_t bound = fail::count(fail::call::bind);
    for (int n = 0; n < 100; n++)
        EXPECT_EQ(read_one(), QNM_API_SUCCESS);
    EXPECT_EQ(fail::count(fail::call::setsockopt), before + 2);
    EXPECT_EQ(fail::count(fail::call::bind), bound);
    EXPECT_EQ(fail::count(fail::call::listen), 1U) << "the name is had as well";
    EXPECT_EQ(sleeps, 0);
    EXPECT_TRUE(logs.texts("logfile", k_warn).empty());
}

TEST_F(port_group, of_another_process_refuses_and_the_name_tells_which) {
    other_process other(lock_first_port);
    for (int n = 0; n < 3; n++)
        EXPECT_EQ(read_one(), QNM_API_EBUSY);
    EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 3U);
    EXPECT_EQ(sent_count(), 0U);
    EXPECT_EQ(sleeps, 0);
    EXPECT_EQ(_qnm_port_lock_take(1), 0) << "it is one per interface";
    other.end(SIGKILL);
    EXPECT_EQ(read_one(), QNM_API_SUCCESS);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(logs.texts("logfile", k_warn).size(), 0U);
}

// A full backlog must not hide the other manager.
TEST_F(port_group, of_another_process_refuses_where_the_name_tells_nothing) {
    const other_process other(lock_first_port);
    for (const int err : {EAGAIN, ECONNREFUSED}) {
        fail::always(fail::call::connect, err);
        for (int n = 0; n < 5; n++)
            EXPECT_EQ(read_one(), QNM_API_EBUSY);
    }
    EXPECT_EQ(sleeps, 2) << "for a name to show up, once a run";
    EXPECT_EQ(logs.count(k_error, k_unseen), 10U);
    EXPECT_EQ(sent_count(), 0U);
    fail::clear(fail::call::connect);
    EXPECT_EQ(read_one(), QNM_API_EBUSY);
    EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 1U) << "it is told once it is known";
}

TEST_F(port_group, of_another_process_refuses_where_somebody_else_has_the_name) {
    fail::clear(fail::call::fopen);
    const other_process squatter([] {
        drop_capabilities();
        take_name_alone();
    });
    const other_process other(lock_first_port);
    for (int n = 0; n < 3; n++)
        EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(logs.count(k_error, k_unseen), 3U);
    EXPECT_TRUE(logs.texts("logfile", k_warn).empty());
    EXPECT_EQ(sleeps, 0);
}

TEST_F(port_group, is_waited_for_when_its_holder_has_no_name_yet_and_leaves) {
    auto other = std::make_unique<other_process>(lock_first_port);
    fail::always(fail::call::connect, ECONNREFUSED);
    fail::on_sleep([&](std::chrono::nanoseconds) { other.reset(); });
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    fail::clear(fail::call::connect);
    EXPECT_TRUE(logs.lines().empty());
}

// As a privileged program does that an ordinary user has started with the socket.
TEST_F(port_group, is_taken_whoever_has_the_name) {
    other_process squatter(take_name_alone);
    for (int n = 0; n < 3; n++)
        EXPECT_EQ(read_one(), QNM_API_SUCCESS);
    EXPECT_THAT(logs.texts("logfile", k_warn), ElementsAre(stranger_line(squatter.pid())));
    EXPECT_EQ(sleeps, 2) << "no second";
    const uint64_t binds = fail::count(fail::call::bind);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(fail::count(fail::call::bind), binds) << "nothing is left to be done for a frame";
    { const other_process other(expect_refused); }
    squatter.end();
    _qnm_port_lock_serve();
    EXPECT_EQ(fail::count(fail::call::listen), 1U) << "the name is tried for again";
    _qnm_port_lock_serve();
    EXPECT_EQ(fail::count(fail::call::listen), 1U);
    const other_process other(expect_refused);
    EXPECT_EQ(logs.texts("logfile", k_warn).size(), 1U);
}

TEST_F(port_group, is_taken_when_nobody_answers_by_the_name) {
    const other_process squatter(take_name_alone);
    fail::always(fail::call::connect, EAGAIN);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    fail::clear(fail::call::connect);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_THAT(logs.texts("logfile", k_warn), ElementsAre(k_taken_name));
    EXPECT_EQ(sleeps, 2);
}

TEST_F(port_group, is_taken_where_there_can_be_no_name) {
    fail::nth(fail::call::bind, 1, EACCES);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_qnm_port_lock_take: Other managers cannot be told who has the port. "
                            "errno=13, port_num=0"));
    const other_process other(expect_refused);
}

TEST_F(port_group, is_left_with_the_port) {
    ASSERT_EQ(_qnm_port_lock_take(0), 0);
    close_ports();
    other_process other(lock_first_port);
    open();
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 1U);
    other.end();
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
}

TEST_F(port_group, is_not_kept_by_a_child) {
    ASSERT_EQ(_qnm_port_lock_take(0), 0);
    const other_process child([] {});
    close_ports();
    const other_process other(lock_first_port);
    open();
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
}

// Forks without running handlers. The kernel leaves the group with the last copy of the socket.
TEST_F(port_group, is_kept_by_a_child_that_no_handler_sees_until_it_ends) {
    ASSERT_EQ(_qnm_port_lock_take(0), 0);
    const pid_t child = _Fork();
    if (child == 0) {
        for (;;)
            pause();
    }
    close_ports();
    open();
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(logs.count(k_error, k_unseen), 1U);
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
}

TEST_F(port_group, is_one_where_both_ports_are_the_same_interface) {
    take_both_of_one_interface();
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(port_group, leaves_no_descriptor_behind) {
    close_ports();
    const std::size_t before = fail::open_descriptors();
    for (const bool is_taken : {false, true}) {
        open();
        EXPECT_GT(fail::open_descriptors(), before);
        if (is_taken) {
            EXPECT_EQ(_qnm_port_lock_take(0), 0);
            _qnm_port_lock_serve();
        }
        close_ports();
        EXPECT_EQ(fail::open_descriptors(), before);
    }
    fail::nth(fail::call::bind, 1, ENODEV);  // of the socket for the group
    open();
    close_ports();
    EXPECT_EQ(fail::open_descriptors(), before);
}

// ---- Where the group decides nothing ------------------------------------------------------------

// Another program uses the same number, or the kernel does not limit the number of members.
TEST_F(port_group, that_cannot_be_joined_leaves_the_decision_to_the_name) {
    fail::always(fail::call::setsockopt, EINVAL);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(fail::count(fail::call::listen), 1U);
    const uint64_t tries = fail::count(fail::call::setsockopt);
    for (int n = 0; n < 100; n++)
        EXPECT_EQ(read_one(), QNM_API_SUCCESS);
    EXPECT_EQ(fail::count(fail::call::setsockopt), tries) << "a read costs no call";
    { const other_process other(expect_refused); }
    close_ports();
    open();
    const other_process other(lock_first_port);
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 1U);
    fail::clear(fail::call::setsockopt);
    EXPECT_TRUE(logs.texts("logfile", k_warn).empty());
}

// The group can be joined later: the other program has gone, or the interface is up again.
TEST_F(port_group, that_could_not_be_joined_is_tried_for_again) {
    const uint64_t before = fail::count(fail::call::setsockopt);
    fail::nth(fail::call::setsockopt, 1, EINVAL);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(fail::count(fail::call::setsockopt), before + 1);
    for (int n = 0; n < 2; n++)
        _qnm_port_lock_serve();
    EXPECT_EQ(fail::count(fail::call::setsockopt), before + 3)
        << "joined, and tried whether it is kept to";
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(fail::count(fail::call::listen), 1U);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(port_group, that_another_one_has_joined_meanwhile_refuses_who_has_the_name) {
    fail::nth(fail::call::setsockopt, 1, EINVAL);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    const other_process other(lock_first_port);
    EXPECT_EQ(_qnm_port_lock_take(0), 0) << "not known yet";
    _qnm_port_lock_serve();
    EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
    EXPECT_EQ(logs.count(k_error, k_unseen), 1U);
}

TEST_F(port_group, that_does_not_keep_others_out_leaves_the_decision_to_the_name) {
    use(fake_netif::fanout::unkept);
    {
        const other_process other(lock_first_port);
        EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
        EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 1U);
    }
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    const uint64_t calls = fail::count(fail::call::setsockopt);
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(fail::count(fail::call::setsockopt), calls);
    const other_process other(expect_refused);
}

// The group is not even tried, so whoever holds the name is not passed over.
TEST_F(port_group, that_cannot_be_tried_leaves_the_decision_to_the_name_and_keeps_others_out) {
    close_ports();
    fail::nth(fail::call::socket, 4, EMFILE);  // behind those for the group, the name and questions
    open();
    {
        const other_process other(take_name_alone);
        EXPECT_EQ(_qnm_port_lock_take(0), EBUSY);
        EXPECT_EQ(logs.count(k_error, line_of(other.pid(), "")), 1U);
    }
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    const other_process other(expect_refused);
}

TEST_F(port_group, without_a_socket_leaves_the_decision_to_the_name) {
    close_ports();
    const uint64_t before = fail::count(fail::call::setsockopt);
    fail::nth(fail::call::socket, 1, EMFILE);
    open();
    EXPECT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(fail::count(fail::call::setsockopt), before);
    EXPECT_EQ(fail::count(fail::call::listen), 1U);
    EXPECT_TRUE(logs.lines().empty());
}

// ---- Who is a manager ---------------------------------------------------------------------------

struct port_holder : port_lock {
    static qnm_port_holder_t ask() {
        qnm_port_holder_t holder;
        const int fd = _qnm_port_socket();
        EXPECT_NE(fd, -1);
        _qnm_ask_port_holder(fd, k_index[0], &holder);
        close(fd);
        return holder;
    }
};

TEST_F(port_holder, of_a_free_name_is_nobody) {
    const qnm_port_holder_t holder = ask();
    EXPECT_EQ(holder.eph_kind, QNM_HOLDER_NOBODY);
    EXPECT_EQ(holder.eph_pid, 0);
    EXPECT_STREQ(holder.eph_name, "");
}

TEST_F(port_holder, is_a_manager_as_far_as_can_be_told) {
    ASSERT_EQ(_qnm_port_lock_take(0), 0);
    EXPECT_EQ(ask().eph_kind, QNM_HOLDER_MANAGER) << "nothing can be read of it";
    EXPECT_EQ(ask().eph_pid, getpid());
    fail::nth(fail::call::kill, 1, EPERM);
    EXPECT_EQ(ask().eph_kind, QNM_HOLDER_MANAGER) << "it is another user's";
}

TEST_F(port_holder, has_an_address_that_names_the_interface) {
    struct sockaddr_un address;
    const socklen_t length = _qnm_port_address(1234, &address);
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_EQ(std::string(address.sun_path, length - offsetof(struct sockaddr_un, sun_path)),
              std::string("\0libqnm.port.1234", 17));
}

}  // namespace
