// test_fakes.cpp - self-test of the fake libpcap, the allocation counter, the log capture, the
// temporary installation directory and the replacement of functions between units.

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <log4cxx/logger.h>
#include <log4cxx/propertyconfigurator.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <new>
#include <thread>

#include "alloc.h"
#include "config_file.h"
#include "fake_pcap.h"
#include "fake_pcap_create.h"
#include "log_capture.h"
#include "qnm.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---- fake_pcap ----------------------------------------------------------------------------------

class FakePcap : public testing::Test {
  protected:
    ~FakePcap() override {
        fake_pcap::reset();
        fake_pcap::reset_create();
    }

    pcap_t* open(const char* name) { return pcap_open_live(name, 1024, 1, 1000, error_); }

    static bool readable(pcap_t* pcap) {
        struct pollfd fd = {pcap_get_selectable_fd(pcap), POLLIN, 0};
        return poll(&fd, 1, 0) == 1 && fd.revents == POLLIN;
    }

    char error_[PCAP_ERRBUF_SIZE];
    struct pcap_pkthdr* header_ = nullptr;
    const u_char* data_ = nullptr;
};

TEST_F(FakePcap, RecordsOpenAndClose) {
    pcap_t* pcap = open("port0");
    ASSERT_NE(pcap, nullptr);
    EXPECT_TRUE(fake_pcap::wait_open("port0"));
    EXPECT_EQ(fake_pcap::open_handles(), 1u);
    EXPECT_EQ(fake_pcap::open_handles("port1"), 0u);
    const std::vector<fake_pcap::open_call> calls = fake_pcap::open_calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].name, "port0");
    EXPECT_EQ(calls[0].snaplen, 1024);
    EXPECT_EQ(calls[0].promisc, 1);
    EXPECT_EQ(calls[0].timeout_ms, 1000);
    EXPECT_TRUE(calls[0].opened);
    pcap_close(pcap);
    EXPECT_THAT(fake_pcap::close_calls(), ElementsAre("port0"));
    EXPECT_EQ(fake_pcap::open_handles(), 0u);
}

TEST_F(FakePcap, OpenFailsOnceWithTheText) {
    fake_pcap::set_next_open_failure("port0", "no such device");
    EXPECT_EQ(open("port0"), nullptr);
    EXPECT_STREQ(error_, "no such device");
    EXPECT_FALSE(fake_pcap::open_calls().at(0).opened);
    EXPECT_NE(open("port0"), nullptr);
}

TEST_F(FakePcap, IsReadableExactlyWhileSomethingIsQueued) {
    pcap_t* pcap = open("port0");
    EXPECT_FALSE(readable(pcap));
    fake_pcap::push_frame("port0", fake_pcap::frame_t{1, 2, 3});
    fake_pcap::push_result("port0", -2);
    EXPECT_TRUE(readable(pcap));
    EXPECT_EQ(pcap_next_ex(pcap, &header_, &data_), 1);
    EXPECT_EQ(header_->caplen, 3u);
    EXPECT_EQ(header_->len, 3u);
    EXPECT_EQ(std::memcmp(data_, "\1\2\3", 3), 0);
    EXPECT_TRUE(readable(pcap));
    EXPECT_EQ(fake_pcap::queued("port0"), 1u);
    EXPECT_EQ(pcap_next_ex(pcap, &header_, &data_), -2);
    EXPECT_FALSE(readable(pcap));
    EXPECT_TRUE(fake_pcap::wait_drained("port0"));
    EXPECT_EQ(pcap_next_ex(pcap, &header_, &data_), 0);
}

TEST_F(FakePcap, CapturesNoMoreThanTheSnapshotLength) {
    pcap_t* pcap = open("port0");
    fake_pcap::push_frame("port0", fake_pcap::frame_t(1600, 9));
    fake_pcap::push_frame("port0", fake_pcap::frame_t(60, 9), 400);
    fake_pcap::push_frame("port0", fake_pcap::frame_t{});
    EXPECT_EQ(pcap_next_ex(pcap, &header_, &data_), 1);
    EXPECT_EQ(header_->caplen, 1024u);
    EXPECT_EQ(header_->len, 1600u);
    EXPECT_EQ(pcap_next_ex(pcap, &header_, &data_), 1);
    EXPECT_EQ(header_->caplen, 60u);
    EXPECT_EQ(header_->len, 400u);
    EXPECT_EQ(pcap_next_ex(pcap, &header_, &data_), 1);
    EXPECT_EQ(header_->caplen, 0u);
    EXPECT_NE(data_, nullptr);
}

TEST_F(FakePcap, SendsAreRecordedAndFailOnDemand) {
    pcap_t* pcap = open("port0");
    const u_char frame[] = {5, 6};
    fake_pcap::set_send_failure("port0", 2);
    EXPECT_EQ(pcap_sendpacket(pcap, frame, 2), 0);
    EXPECT_EQ(pcap_sendpacket(pcap, frame, 2), -1);
    EXPECT_EQ(pcap_sendpacket(pcap, frame, 1), 0);
    fake_pcap::set_send_failure("port0", 1, true);
    EXPECT_EQ(pcap_sendpacket(pcap, frame, 2), -1);
    EXPECT_EQ(pcap_sendpacket(pcap, frame, 2), -1);
    EXPECT_TRUE(fake_pcap::wait_sent("port0", 2));
    EXPECT_THAT(fake_pcap::sent("port0"), ElementsAre(ElementsAre(5, 6), ElementsAre(5)));
    EXPECT_THAT(fake_pcap::sent("port1"), IsEmpty());
}

TEST_F(FakePcap, SendHooksSeeWhatHasBeenSentByThatPort) {
    pcap_t* pcap = open("port0");
    pcap_t* other = open("port1");
    const u_char frame[] = {5, 6};
    std::vector<fake_pcap::frame_t> first;
    size_t sent_before_hook = 0;
    fake_pcap::on_send("port0", [&](const fake_pcap::frame_t& seen) { first.push_back(seen); });
    fake_pcap::on_send("port0", [&](const fake_pcap::frame_t&) {
        sent_before_hook = fake_pcap::sent("port0").size();
    });
    EXPECT_EQ(pcap_sendpacket(other, frame, 1), 0);
    fake_pcap::set_send_failure("port0", 1);
    EXPECT_EQ(pcap_sendpacket(pcap, frame, 2), -1);
    EXPECT_EQ(pcap_sendpacket(pcap, frame, 2), 0);
    EXPECT_THAT(first, ElementsAre(ElementsAre(5, 6)));
    EXPECT_EQ(sent_before_hook, 1u);
}

TEST_F(FakePcap, DescriptorsAreTheHandlesOwnUnlessSet) {
    pcap_t* pcap = open("port0");
    const int fd = pcap_fileno(pcap);
    EXPECT_EQ(fake_pcap::owner_of_fileno(fd), "port0");
    EXPECT_NE(fd, pcap_get_selectable_fd(pcap));
    fake_pcap::set_fileno("port0", -1);
    fake_pcap::set_selectable_fd("port0", 12345);
    EXPECT_EQ(pcap_fileno(pcap), -1);
    EXPECT_EQ(pcap_get_selectable_fd(pcap), 12345);
    fake_pcap::set_fileno("port0", std::nullopt);
    EXPECT_EQ(pcap_fileno(pcap), fd);
    pcap_close(pcap);
    EXPECT_EQ(fake_pcap::owner_of_fileno(fd), std::nullopt);
}

TEST_F(FakePcap, ReportsMisuse) {
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(open(""), nullptr), "no device name");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(pcap_fileno(nullptr), -1), "null handle");
    pcap_t* pcap = open("port0");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(pcap_sendpacket(pcap, nullptr, 0), -1), "nothing to send");
    pcap_close(pcap);
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(pcap_next_ex(pcap, &header_, &data_), -1), "not in a state");
    EXPECT_NONFATAL_FAILURE(pcap_close(pcap), "not in a state");
    EXPECT_THROW(fake_pcap::push_result("port0", 0), std::logic_error);
}

TEST_F(FakePcap, CarriesFramesBetweenThreads) {
    constexpr int k_frames = 5000;
    pcap_t* pcap = open("port0");
    std::thread reader([pcap] {
        for (int taken = 0; taken < k_frames;) {
            struct pollfd fd = {pcap_get_selectable_fd(pcap), POLLIN, 0};
            if (poll(&fd, 1, 60000) != 1) return;
            struct pcap_pkthdr* header;
            const u_char* data;
            if (pcap_next_ex(pcap, &header, &data) != 1) return;
            pcap_sendpacket(pcap, data, static_cast<int>(header->caplen));
            taken++;
        }
    });
    for (int i = 0; i < k_frames; i++) {
        fake_pcap::push_frame("port0", fake_pcap::frame_t{static_cast<std::uint8_t>(i)});
    }
    reader.join();
    const std::vector<fake_pcap::frame_t> sent = fake_pcap::sent("port0");
    ASSERT_EQ(sent.size(), static_cast<std::size_t>(k_frames));
    for (int i = 0; i < k_frames; i++) {
        ASSERT_THAT(sent[static_cast<std::size_t>(i)], ElementsAre(static_cast<std::uint8_t>(i)));
    }
}

// ---- fake_pcap_create ---------------------------------------------------------------------------

TEST_F(FakePcap, CreatedHandleTakesOverWhenActivated) {
    pcap_t* first = open("port0");
    pcap_t* second = pcap_create("port0", error_);
    EXPECT_EQ(pcap_set_snaplen(second, 10), 0);
    EXPECT_EQ(pcap_set_promisc(second, 1), 0);
    EXPECT_EQ(pcap_set_timeout(second, 500), 0);
    EXPECT_EQ(pcap_set_immediate_mode(second, 1), 0);
    EXPECT_EQ(pcap_set_buffer_size(second, 4096), 0);
    EXPECT_EQ(pcap_activate(second), 0);
    EXPECT_EQ(fake_pcap::open_handles(), 2u);
    const fake_pcap::create_call call = fake_pcap::create_calls().at(0);
    EXPECT_EQ(call.snaplen, 10);
    EXPECT_EQ(call.promisc, 1);
    EXPECT_EQ(call.timeout_ms, 500);
    EXPECT_EQ(call.immediate_mode, 1);
    EXPECT_EQ(call.buffer_size, 4096);
    EXPECT_TRUE(call.activated);
    fake_pcap::push_frame("port0", fake_pcap::frame_t(20, 1));
    EXPECT_FALSE(readable(first));
    EXPECT_EQ(pcap_next_ex(second, &header_, &data_), 1);
    EXPECT_EQ(header_->caplen, 10u);
    pcap_close(first);
    pcap_close(second);
    EXPECT_EQ(fake_pcap::open_handles(), 0u);
}

TEST_F(FakePcap, EveryStepOfCreationCanFail) {
    using fake_pcap::step;
    fake_pcap::set_next_result(step::create, PCAP_ERROR);
    EXPECT_EQ(pcap_create("port0", error_), nullptr);
    pcap_t* pcap = pcap_create("port0", error_);
    struct {
        step which;
        int (*set)(pcap_t*, int);
    } const k_steps[] = {{step::snaplen, pcap_set_snaplen},
                         {step::promisc, pcap_set_promisc},
                         {step::timeout, pcap_set_timeout},
                         {step::immediate_mode, pcap_set_immediate_mode},
                         {step::buffer_size, pcap_set_buffer_size}};
    for (const auto& row : k_steps) {
        fake_pcap::set_next_result(row.which, PCAP_ERROR);
        EXPECT_EQ(row.set(pcap, 1), PCAP_ERROR);
        EXPECT_EQ(row.set(pcap, 1), 0);
    }
    fake_pcap::set_next_result(step::activate, PCAP_ERROR_PERM_DENIED);
    EXPECT_EQ(pcap_activate(pcap), PCAP_ERROR_PERM_DENIED);
    EXPECT_FALSE(fake_pcap::create_calls().at(0).activated);
    EXPECT_EQ(fake_pcap::open_handles(), 1u);
    pcap_close(pcap);
    EXPECT_EQ(fake_pcap::open_handles(), 0u);
}

TEST_F(FakePcap, ReportsMisuseOfCreation) {
    pcap_t* pcap = pcap_create("port0", error_);
    EXPECT_NONFATAL_FAILURE(pcap_fileno(pcap), "not in a state");
    EXPECT_EQ(pcap_activate(pcap), 0);
    EXPECT_NONFATAL_FAILURE(pcap_set_snaplen(pcap, 1), "pcap_set_snaplen: handle is not");
    EXPECT_NONFATAL_FAILURE(pcap_activate(pcap), "pcap_activate: handle is not");
}

// ---- alloc --------------------------------------------------------------------------------------

// Hides an allocation from the optimiser, which may otherwise drop it with its delete.
void* volatile g_block;

template <typename Type>
bool nothrow_works() {
    Type* block = new (std::nothrow) Type;
    g_block = block;
    const bool works = block != nullptr;
    delete block;
    return works;
}

struct alignas(64) wide_t {
    char bytes[64];
};

TEST(Alloc, NthNothrowAllocationFailsOnce) {
    alloc::fail_nth(2);
    EXPECT_TRUE(nothrow_works<int>());
    delete new int;
    EXPECT_FALSE(nothrow_works<int>());
    EXPECT_TRUE(nothrow_works<int>());
    EXPECT_TRUE(alloc::all_used());
    alloc::fail_nth(1);
    EXPECT_FALSE(nothrow_works<wide_t>());
    alloc::fail_nth(1);
    int* array = new (std::nothrow) int[4];
    g_block = array;
    EXPECT_EQ(array, nullptr);
    delete[] array;
    alloc::fail_nth(1);
    EXPECT_FALSE(alloc::all_used());
    EXPECT_TRUE(nothrow_works<int>());
}

TEST(Alloc, NthThrowingAllocationFailsOnce) {
    const std::uint64_t failed = alloc::counts().failed;
    alloc::fail_nth_throwing(2);
    EXPECT_TRUE(nothrow_works<int>()) << "not counted";
    const auto make = [] {
        int* const block = new int;
        g_block = block;
        delete block;
    };
    make();
    EXPECT_THROW(make(), std::bad_alloc);
    make();
    EXPECT_TRUE(alloc::all_used());
    EXPECT_EQ(alloc::counts().failed, failed + 1);
}

TEST(Alloc, FailureBelongsToTheThreadUnlessAnywhere) {
    bool works = false;
    const auto try_on_thread = [&] { std::thread([&] { works = nothrow_works<int>(); }).join(); };
    alloc::fail_nth(1);
    try_on_thread();
    EXPECT_TRUE(works);
    EXPECT_FALSE(nothrow_works<int>());
    alloc::fail_nth_anywhere(1);
    try_on_thread();
    EXPECT_FALSE(works);
    EXPECT_TRUE(alloc::all_used());
}

TEST(Alloc, CountsEveryFormOnThisThread) {
    const alloc::counts_t before = alloc::counts();
    EXPECT_EQ(alloc::count_in([] {
                  g_block = new int;
                  delete static_cast<int*>(g_block);
                  nothrow_works<int>();
                  nothrow_works<wide_t>();
                  g_block = new char[100];
                  delete[] static_cast<char*>(g_block);
                  g_block = new wide_t;
                  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(g_block) % alignof(wide_t), 0u);
                  delete static_cast<wide_t*>(g_block);
              }),
              5u);
    EXPECT_EQ(alloc::counts().nothrow - before.nothrow, 2u);
    EXPECT_EQ(alloc::counts().failed, before.failed);
    EXPECT_EQ(alloc::count_in([] {}), 0u);
}

// ---- log_capture and install_dir ----------------------------------------------------------------

log4cxx::LoggerPtr logger(const char* name) {
    return log4cxx::Logger::getLogger(name);
}

TEST(LogCapture, KeepsLoggerLevelTextAndThread) {
    log_capture log;
    LOG4CXX_FATAL(logger("logfile"), "zero");
    LOG4CXX_TRACE(logger("syslogfile"), "five");
    std::thread([] { LOG4CXX_INFO(logger("statslogfile"), "from a thread"); }).join();
    const std::vector<log_line> lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].logger, "logfile");
    EXPECT_EQ(lines[0].level, 0);
    EXPECT_EQ(lines[0].text, "zero");
    EXPECT_EQ(lines[0].thread, std::this_thread::get_id());
    EXPECT_EQ(lines[1].logger, "syslogfile");
    EXPECT_EQ(lines[1].level, 5);
    EXPECT_EQ(lines[2].logger, "statslogfile");
    EXPECT_NE(lines[2].thread, std::this_thread::get_id());
}

TEST(LogCapture, FindsLines) {
    log_capture log;
    LOG4CXX_WARN(logger("logfile"), "f: one");
    LOG4CXX_WARN(logger("logfile"), "f: one");
    LOG4CXX_ERROR(logger("logfile"), "f: two");
    LOG4CXX_ERROR(logger("syslogfile"), "three");
    EXPECT_TRUE(log.has(2, "f: one"));
    EXPECT_FALSE(log.has(1, "f: one"));
    EXPECT_FALSE(log.has(2, "f: on"));
    EXPECT_TRUE(log.has_part(2, ": on"));
    EXPECT_FALSE(log.has(1, "three"));
    EXPECT_TRUE(log.has(1, "three", "syslogfile"));
    EXPECT_EQ(log.count(2, "f: one"), 2u);
    EXPECT_EQ(log.count_part(1, "f:"), 1u);
    EXPECT_EQ(log.count_level(1), 1u);
    EXPECT_THAT(log.texts(), ElementsAre("f: one", "f: one", "f: two"));
    EXPECT_THAT(log.texts("logfile", 1), ElementsAre("f: two"));
    log.clear();
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(LogCapture, WaitsForALine) {
    log_capture log;
    std::thread writer([] {
        for (int i = 0; i < 3; i++)
            LOG4CXX_INFO(logger("logfile"), "again");
    });
    EXPECT_TRUE(log.wait_for(3, "again", 3));
    EXPECT_TRUE(log.wait_for([](const std::vector<log_line>& lines) { return lines.size() == 3; }));
    writer.join();
    EXPECT_FALSE(log.wait_for(3, "never", 1, "logfile", std::chrono::seconds(0)));
}

TEST(LogCapture, RestoresTheLoggers) {
    const log4cxx::LevelPtr level = logger("logfile")->getLevel();
    const bool additivity = logger("logfile")->getAdditivity();
    {
        const log_capture log;
        EXPECT_FALSE(logger("logfile")->getAdditivity());
    }
    EXPECT_EQ(logger("logfile")->getLevel(), level);
    EXPECT_EQ(logger("logfile")->getAdditivity(), additivity);
    EXPECT_THAT(logger("logfile")->getAllAppenders(), IsEmpty());
}

TEST(InstallDir, HoldsTheFilesAndIsRemoved) {
    std::string path;
    {
        const install_dir dir("log_level = 5\n");
        path = dir.path();
        EXPECT_EQ(std::filesystem::file_size(dir.conf()), 14u);
        EXPECT_TRUE(std::filesystem::exists(dir.properties()));
        dir.remove_properties();
        EXPECT_FALSE(std::filesystem::exists(dir.properties()));
        EXPECT_FALSE(std::filesystem::exists(install_dir().conf()));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(InstallDir, PropertiesLeaveTheCaptureInPlace) {
    const install_dir dir;
    log_capture log;
    log4cxx::PropertyConfigurator::configure(log4cxx::File(dir.properties()));
    for (const char* name : {"logfile", "syslogfile", "statslogfile"}) {
        LOG4CXX_TRACE(logger(name), "still here");
        EXPECT_TRUE(log.has(5, "still here", name));
    }
}

// ---- WRAP ---------------------------------------------------------------------------------------

std::atomic<int> g_asked;

}  // namespace

extern "C" int __real__qnm_file_exist(const char* path);

extern "C" int __wrap__qnm_file_exist(const char* path) {
    g_asked++;
    return __real__qnm_file_exist(path);
}

TEST(Wrap, ReplacesAFunctionForTheUnitsThatCallIt) {
    const install_dir dir;
    log_capture log;
    EXPECT_EQ(qnm_log_init(dir.path().c_str()), QNM_API_SUCCESS);
    EXPECT_EQ(g_asked, 1);
}
