// The texts about the keys of qnm.conf.
#include "installation/config_keys.h"

#include <gtest/gtest.h>

#include <string>

namespace qnmctl {
namespace {

TEST(ConfigKeyTexts, AreComplete) {
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        EXPECT_STRNE("", key.brief) << key.name;
        EXPECT_NE('.', std::string(key.brief).back()) << key.name;
        EXPECT_TRUE(key.more[0] == '\0' || std::string(key.more).back() == '.') << key.name;
    }
}

TEST(ValueText, NamesRangeAndUnit) {
    EXPECT_EQ("1000 to 100000 milliseconds",
              value_text(*_qnm_find_config_key("devinfo_expire_time")));
    EXPECT_EQ("1 to 2592000 seconds", value_text(*_qnm_find_config_key("stats_interval")));
    EXPECT_EQ("0 or 1", value_text(*_qnm_find_config_key("eeprom_type")));
    EXPECT_EQ("any 32-bit number", value_text(*_qnm_find_config_key("stats_verbose_level")));
    EXPECT_EQ("1 or 2 interface names", value_text(*_qnm_find_config_key("ether_port")));
}

}  // namespace
}  // namespace qnmctl
