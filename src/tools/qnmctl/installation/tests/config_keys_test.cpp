// The table of keys against the library's own reading of the file: what the table says of names,
// defaults and limits is what the library does.
#include "installation/config_keys.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "qnm_config.h"
#include "qnm_log4cxxif.h"

namespace qnmctl {
namespace {

constexpr std::uint32_t any = 0xFFFFFFFF;

class ConfigKeys : public testing::Test {
  protected:
    ConfigKeys() { g_log_level = QNM_LOGLVL_NONE; }
    ~ConfigKeys() override { std::remove(path_.c_str()); }

    bool accepts(const std::string& text) {
        std::FILE* const file = std::fopen(path_.c_str(), "w");
        if (file == nullptr) throw std::runtime_error("cannot write " + path_);
        std::fputs(text.c_str(), file);
        std::fclose(file);
        return _qnm_config_read(path_.data()) == 0;
    }

    bool accepts(const config_key& key, const std::string& value) {
        return accepts(std::string(key.name) + " = " + value + '\n');
    }

    bool accepts(const config_key& key, std::uint64_t value) {
        return accepts(key, std::to_string(value));
    }

  private:
    std::string path_ =
        testing::TempDir() + "qnm-config-keys." + std::to_string(getpid()) + ".conf";
};

TEST_F(ConfigKeys, AreTheLibrarysOwn) {
    std::string all;
    std::set<std::string_view> names;
    for (const config_key& key : config_keys()) {
        EXPECT_TRUE(names.insert(key.name).second) << key.name;
        all += std::string(key.name) + " = " + key.initial + '\n';
    }
    ASSERT_TRUE(accepts(all));
    int flags[sizeof qnm_flag / sizeof(int)];
    std::memcpy(flags, &qnm_flag, sizeof qnm_flag);
    for (const int flag : flags)
        EXPECT_EQ(1, flag);
    EXPECT_EQ(std::size(flags), names.size());
    EXPECT_FALSE(accepts("tag_maximum = 1\n"));
}

TEST_F(ConfigKeys, HaveTheDefaultsOfTheLibrary) {
    _qnm_config_init();
    const qnm_conf_t defaults = qnm_config;
    for (const config_key& key : config_keys()) {
        std::memset(&qnm_config, 0x5A, sizeof qnm_config);
        ASSERT_TRUE(accepts(key, key.initial)) << key.name;
        EXPECT_EQ(0, std::memcmp(&defaults, &qnm_config, sizeof defaults)) << key.name;
    }
}

TEST_F(ConfigKeys, HaveTheLimitsOfTheLibrary) {
    for (const config_key& key : config_keys()) {
        if (key.form != value_form::number) continue;
        EXPECT_TRUE(accepts(key, key.least)) << key.name;
        EXPECT_TRUE(accepts(key, key.most)) << key.name;
        EXPECT_FALSE(accepts(key, std::uint64_t{key.most} + 1)) << key.name;
        EXPECT_FALSE(key.least > 0 && accepts(key, key.least - 1)) << key.name;
        EXPECT_FALSE(accepts(key, "word")) << key.name;
    }
}

TEST_F(ConfigKeys, HaveValuesOfTheirForms) {
    const config_key& ports = *find_config_key("ether_port");
    ASSERT_EQ(value_form::interfaces, ports.form);
    EXPECT_TRUE(accepts(ports, "a"));
    EXPECT_TRUE(accepts(ports, "a b"));
    EXPECT_FALSE(accepts(ports, ""));
    const config_key& indexes = *find_config_key("ether_port_ifindex");
    ASSERT_EQ(value_form::indexes, indexes.form);
    EXPECT_TRUE(accepts(indexes, std::to_string(any)));
    EXPECT_FALSE(accepts(indexes, "4294967296"));
    EXPECT_FALSE(accepts(indexes, "a"));
    const config_key& mac = *find_config_key("broadcast_mac");
    ASSERT_EQ(value_form::mac, mac.form);
    EXPECT_TRUE(accepts(mac, "00:11:22:33:44:aF"));
    EXPECT_FALSE(accepts(mac, "0:11:22:33:44:55"));
    EXPECT_FALSE(accepts(mac, "0x001122334455"));
}

TEST(ConfigKeyTexts, AreComplete) {
    for (const config_key& key : config_keys()) {
        EXPECT_STRNE("", key.brief) << key.name;
        EXPECT_NE('.', std::string(key.brief).back()) << key.name;
        EXPECT_TRUE(key.more[0] == '\0' || std::string(key.more).back() == '.') << key.name;
    }
    EXPECT_EQ(nullptr, find_config_key("tag"));
}

TEST(ValueText, NamesRangeAndUnit) {
    EXPECT_EQ("1000 to 100000 milliseconds", value_text(*find_config_key("devinfo_expire_time")));
    EXPECT_EQ("1 to 2592000 seconds", value_text(*find_config_key("stats_interval")));
    EXPECT_EQ("0 or 1", value_text(*find_config_key("eeprom_type")));
    EXPECT_EQ("any 32-bit number", value_text(*find_config_key("stats_verbose_level")));
    EXPECT_EQ("1 or 2 interface names", value_text(*find_config_key("ether_port")));
}

}  // namespace
}  // namespace qnmctl
