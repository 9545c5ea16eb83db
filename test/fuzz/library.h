// library.h - the library on two fake ports, for the targets that drive it.
//
// It is what the unit tests use. What is a test failure there (misuse of libpcap, or counters that
// do not balance in the end) throws here and so ends the program.
#pragma once

#include "answering_card.h"
#include "fuzz.h"
#include "ports.h"
#include "qnm_completion.h"

namespace fuzz {

// In a base class, because it has to exist before the first call that can go wrong.
struct strictness {
    strictness() { GTEST_FLAG_SET(throw_on_failure, true); }
};

struct library : strictness, ports {
    explicit library(qnm_log_level_t level) {
        // Every line up to the level is formatted; the text is discarded.
        qnm::store(g_log_level, level);
        require(_qnm_cmp_init() == 0, "the tags are ready");
        require(pipe(qnm_terminate_fd_link) == 0, "there is a pipe for the link watcher");
    }

    ~library() override {
        alloc::all_used();  // an order that nothing came of
        card_units::expect_all_tags_free();
        _qnm_cmp_fini();
        for (int& fd : qnm_terminate_fd_link) {
            close(fd);
            fd = -1;
        }
    }

    void TestBody() override {}  // for a target instead of GoogleTest
};

}  // namespace fuzz
