// Why a card has changed.
#include "records/reason.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

constexpr std::uint64_t heard = 1'700'000'000'000;

// A path of the card before and after it was lost, this long after it was last heard.
struct loss {
    qnm_qnio_t before = sample_device();
    qnm_qnio_t after = sample_device();

    loss(int port, int path, std::uint64_t silent) {
        before.eio_com_dev.ecd_state[port][path] = 1;
        after.eio_com_dev.ecd_state[port][path] = 0;
        after.eio_com_dev.ecd_recvtime[port][path] = heard;
        after.eio_com_dev.ecd_updatetime = heard + silent;
    }
};

field path_of(const card& of, const std::string& key) {
    const std::vector<field> fields = sections(of).front().fields;
    return *std::find_if(fields.begin(), fields.end(), [&](const field& one) {
        return one.about == aspect::path && key == one.key;
    });
}

reason why(watch_facts& facts, const card& before, const card& after, const char* key) {
    return find_reason(facts, after, path_of(before, key), path_of(after, key));
}

TEST(Reason, OfALossIsTheSilenceWhenItWasLongEnough) {
    watch_facts facts{.expire_ms = 2000};
    const loss lost(1, 0, 2000);
    EXPECT_EQ("expired after 2000 ms", reason_text(why(facts, lost.before, lost.after, "P1M0")));
}

TEST(Reason, OfALossBeforeThatIsTheLink) {
    watch_facts facts{.expire_ms = 2000};
    const loss lost(1, 0, 1999);
    EXPECT_EQ("link down on port 1", reason_text(why(facts, lost.before, lost.after, "P1M0")));
    const loss other(0, 1, 0);
    EXPECT_EQ("link down on port 0", reason_text(why(facts, other.before, other.after, "P0M1")));
}

TEST(Reason, OfAPathThatIsBackIsTheAnnouncement) {
    watch_facts facts;
    const loss lost(1, 0, 5000);
    EXPECT_EQ("announced", reason_text(why(facts, lost.after, lost.before, "P1M0")));
}

TEST(Reason, IsARestartUpToTheNextAnnouncement) {
    watch_facts facts{.expire_ms = 2000};
    loss lost(1, 0, 100);
    qnm_com_dev_t& dev = lost.after.eio_com_dev;
    facts.restarted[dev.ecd_id] = {.when = heard + 1};
    EXPECT_EQ("link down on port 1", reason_text(why(facts, lost.before, lost.after, "P1M0")));
    dev.ecd_recvtime[0][0] = heard + 50;
    EXPECT_EQ("restarted", reason_text(why(facts, lost.before, lost.after, "P1M0")));
    EXPECT_EQ("restarted", reason_text(why(facts, lost.before, lost.after, "P0M0")));
    dev.ecd_recvtime[0][0] = heard + 60;
    EXPECT_EQ("link down on port 1", reason_text(why(facts, lost.before, lost.after, "P1M0")));
    EXPECT_TRUE(facts.restarted.empty());
}

TEST(ReasonJson, HasWhatBelongsToTheCause) {
    EXPECT_EQ(json::parse(R"({"reason": "expired", "silent_ms": 7})"),
              reason_json({.why = cause::expired, .silent_ms = 7}));
    EXPECT_EQ(json::parse(R"({"reason": "link_down", "port": 1})"),
              reason_json({.why = cause::link_down, .port = 1}));
    EXPECT_EQ(json::parse(R"({"reason": "announced"})"), reason_json({}));
}

}  // namespace
}  // namespace qnmctl
