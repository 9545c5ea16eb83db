// Writing to pipes, sockets, terminals and files that take nothing, little or all.
#include "common/descriptor_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <future>

#include "common/tests/signal_pipe.h"

namespace tools {
namespace {

const std::string large(1'000'000, 'x');

// Two ends: what is written to `in` comes out of `out`.
struct channel {
    int in = -1;
    int out = -1;

    channel() = default;
    channel(const channel&) = delete;
    channel& operator=(const channel&) = delete;
    ~channel() {
        close_end(in);
        close_end(out);
    }
    static void close_end(int& fd) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    std::string read_all() const {
        std::string all;
        char chunk[4096];
        for (ssize_t length = 0; (length = read(out, chunk, sizeof chunk)) > 0;)
            all.append(chunk, static_cast<std::size_t>(length));
        return all;
    }
};

void open_pipe(channel& opened) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    opened.out = ends[0];
    opened.in = ends[1];
}

void open_socket(channel& opened) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    opened.out = ends[0];
    opened.in = ends[1];
}

void open_terminal(channel& opened) {
    opened.out = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(opened.out, 0);
    ASSERT_EQ(0, grantpt(opened.out));
    ASSERT_EQ(0, unlockpt(opened.out));
    opened.in = open(ptsname(opened.out), O_RDWR | O_NOCTTY);
    ASSERT_GE(opened.in, 0);
}

struct kind {
    const char* name;
    void (*open)(channel&);
};
constexpr kind kinds[] = {
    {"pipe", open_pipe}, {"socket", open_socket}, {"terminal", open_terminal}};

TEST(DescriptorWriter, HandsOverEverythingToASlowReader) {
    for (const kind& row : kinds) {
        channel to;
        row.open(to);
        auto read = std::async(std::launch::async, [&] {
            std::string all;
            char chunk[999];
            while (all.size() < large.size()) {
                const ssize_t length = ::read(to.out, chunk, sizeof chunk);
                if (length <= 0) break;
                all.append(chunk, static_cast<std::size_t>(length));
            }
            return all;
        });
        descriptor_writer writer(to.in, -1);
        EXPECT_EQ(large.size(), writer.write(large)) << row.name;
        EXPECT_EQ(large, read.get()) << row.name;
        EXPECT_EQ(output_end::none, writer.ended());
        EXPECT_EQ("", output_problem(writer, "x"));
    }
}

TEST(DescriptorWriter, IsEndedByASignalWhileNobodyReads) {
    for (const kind& row : kinds) {
        const signal_pipe signals;
        channel to;
        row.open(to);
        descriptor_writer writer(to.in, signals.fd());
        auto written = std::async(std::launch::async, [&] { return writer.write(large); });
        pollfd taken{to.out, POLLIN, 0};
        ASSERT_EQ(1, poll(&taken, 1, -1)) << row.name;
        signals.raise(SIGTERM);
        EXPECT_LT(written.get(), large.size()) << row.name;
        EXPECT_EQ(output_end::signalled, writer.ended()) << row.name;
        EXPECT_EQ("cannot write to x: ended by a signal while its reader took nothing",
                  output_problem(writer, "x"));
        EXPECT_EQ(0U, writer.write("more"));
    }
}

TEST(DescriptorWriter, WritesWhatIsTakenInSpiteOfASignal) {
    for (const kind& row : kinds) {
        const signal_pipe signals;
        signals.raise(SIGTERM);
        channel to;
        row.open(to);
        descriptor_writer writer(to.in, signals.fd());
        EXPECT_EQ(5U, writer.write("short")) << row.name;
        EXPECT_EQ(output_end::none, writer.ended()) << row.name;
    }
}

TEST(DescriptorWriter, TellsThatItsReaderHasGone) {
    std::signal(SIGPIPE, SIG_IGN);
    for (const kind& row : {kinds[0], kinds[1]}) {
        channel to;
        row.open(to);
        channel::close_end(to.out);
        descriptor_writer writer(to.in, -1);
        EXPECT_EQ(0U, writer.write("x")) << row.name;
        EXPECT_EQ(output_end::reader_gone, writer.ended()) << row.name;
        EXPECT_EQ("cannot write to x: its reader has gone", output_problem(writer, "x"));
    }
}

TEST(DescriptorWriter, TellsWhatFails) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    descriptor_writer writer(full, -1);
    EXPECT_EQ(0U, writer.write("x"));
    EXPECT_EQ(output_end::failed, writer.ended());
    EXPECT_EQ("cannot write to x: No space left on device", output_problem(writer, "x"));
    close(full);
    const int closed = open("/dev/null", O_RDONLY | O_CLOEXEC);
    descriptor_writer to_closed(closed, -1);
    EXPECT_EQ(0U, to_closed.write("x"));
    EXPECT_EQ("cannot write to x: it is closed", output_problem(to_closed, "x"));
    close(closed);
}

// Other programs have the same descriptor.
TEST(DescriptorWriter, LeavesTheSharedDescriptorAsItWas) {
    for (const kind& row : kinds) {
        channel to;
        row.open(to);
        const descriptor_writer writer(to.in, -1);
        EXPECT_EQ(0, fcntl(to.in, F_GETFL) & O_NONBLOCK) << row.name;
    }
}

TEST(DescriptorWriter, WritesOnAtTheEndOfAFile) {
    std::string name = testing::TempDir() + "/descriptor-writer.XXXXXX";
    channel to;
    to.in = mkstemp(name.data());
    to.out = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    descriptor_writer writer(to.in, -1);
    writer.write("one ");
    ASSERT_EQ(4, ::write(to.in, "two ", 4));
    writer.write("three");
    EXPECT_EQ("one two three", to.read_all());
    unlink(name.c_str());
}

}  // namespace
}  // namespace tools
