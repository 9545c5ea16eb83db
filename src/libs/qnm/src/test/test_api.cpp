// test_api.cpp - the log level, and the shape that all public calls share.

#include "qnm_api.h"

#include "units.h"

namespace {

using api = units;

TEST_F(api, start_up_sets_the_level_silently) {
    _qnm_set_loglevel(QNM_LOGLVL_WARN);
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_WARN);
    qnm_config.log_level = 4;
    _qnm_set_loglevel(QNM_LOGLVL_NONE);
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_DEBUG);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(api, a_level_is_set_and_logged) {
    EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_DEBUG), QNM_API_SUCCESS);
    EXPECT_THAT(logs.texts("logfile", k_info),
                testing::ElementsAre("qnm_set_loglevel: (IN) log_level=4",
                                     "qnm_set_loglevel: Set loglevel. old=5, new=4",
                                     "qnm_set_loglevel: (OUT) ret=0, g_log_level=4"));
    expect_counted(QNM_STATS_SET_LOGLEVEL, QNM_API_SUCCESS);
}

TEST_F(api, minus_one_restores_the_configured_level) {
    EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_NONE), QNM_API_SUCCESS);
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_INFO);
}

TEST_F(api, levels_outside_the_range_are_refused) {
    for (const int level : {-2, 6}) {
        EXPECT_EQ(qnm_set_loglevel(static_cast<qnm_log_level_t>(level)), QNM_API_EINVAL);
        EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_TRACE);
    }
    EXPECT_TRUE(logs.has(k_info, "qnm_set_loglevel: (OUT) ret=1, g_log_level=5"));
    expect_counted(QNM_STATS_SET_LOGLEVEL, QNM_API_EINVAL, 2);
}

TEST_F(api, a_manager_that_starts_or_stops_refuses) {
    for (const auto& [init, fini] : {std::pair{1U, 1U}, {0U, 0U}, {1U, 0U}}) {
        set_flags(init, 1, fini);
        EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_ERROR), QNM_API_ENOSYS);
    }
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_TRACE);
    expect_counted(QNM_STATS_SET_LOGLEVEL, QNM_API_ENOSYS, 3);
}

}  // namespace
