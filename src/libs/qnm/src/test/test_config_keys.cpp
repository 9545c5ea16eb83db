// test_config_keys.cpp - the rows of the table of keys, and the reading of a value without the
// file.

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <set>
#include <string>

#include "qnm_config_keys.h"

namespace {

using qnm::config_form;
using qnm::config_verdict;

config_verdict set(const char* key, const std::string& value, qnm_conf_t& config) {
    std::string text = value;
    return _qnm_set_config_value(_qnm_find_config_key(key), text.data(), &config);
}

TEST(config_keys, each_has_its_name_and_its_flag) {
    std::set<std::string> names;
    qnm_conf_flag_t flags = {};
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        EXPECT_TRUE(names.insert(key.name).second) << key.name;
        EXPECT_EQ(&key, _qnm_find_config_key(key.name));
        flags.*key.flag = 1;
    }
    int words[sizeof flags / sizeof(int)];
    memcpy(words, &flags, sizeof flags);
    EXPECT_EQ(std::size(words), names.size());
    for (const int word : words)
        EXPECT_EQ(1, word);
    EXPECT_EQ(nullptr, _qnm_find_config_key("tag"));
    EXPECT_EQ(nullptr, _qnm_find_config_key(""));
}

TEST(config_keys, each_takes_its_default_and_is_in_range_by_it) {
    qnm_conf_t defaults;
    _qnm_set_config_defaults(&defaults);
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        qnm_conf_t config = defaults;
        EXPECT_EQ(config_verdict::ok, set(key.name, key.initial, config)) << key.name;
        EXPECT_EQ(0, memcmp(&defaults, &config, sizeof config)) << key.name;
        EXPECT_EQ(key.form == config_form::number, key.field != nullptr) << key.name;
    }
}

TEST(config_keys, each_is_described_in_sentences) {
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        EXPECT_STRNE("", key.brief) << key.name;
        EXPECT_NE('.', std::string(key.brief).back()) << key.name;
        EXPECT_TRUE(key.more[0] == '\0' || std::string(key.more).back() == '.') << key.name;
    }
}

TEST(config_keys, a_number_that_cannot_be_taken_changes_nothing) {
    qnm_conf_t config;
    _qnm_set_config_defaults(&config);
    EXPECT_EQ(config_verdict::out_of_range, set("tag_max", "256", config));
    EXPECT_EQ(config_verdict::not_understood, set("tag_max", "-1", config));
    EXPECT_EQ(config_verdict::not_understood, set("tag_max", " ", config));
    EXPECT_EQ(config_verdict::out_of_range, set("ether_type", "65536", config));
    EXPECT_EQ(config_verdict::not_understood, set("ether_type", "-1", config));
    qnm_conf_t defaults;
    _qnm_set_config_defaults(&defaults);
    EXPECT_EQ(0, memcmp(&defaults, &config, sizeof config));
}

TEST(config_keys, a_number_is_whole_and_fits_32_bits) {
    uint32_t number = 7;
    for (const char* const none : {"", "x", "1x", "08", "4294967296", "99999999999999999999"})
        EXPECT_FALSE(_qnm_config_number(none, &number)) << none;
    EXPECT_EQ(7U, number);
    EXPECT_TRUE(_qnm_config_number("010", &number));
    EXPECT_EQ(8U, number);
    EXPECT_TRUE(_qnm_config_number("0xFFFFFFFF", &number));
    EXPECT_EQ(0xFFFFFFFFU, number);
}

}  // namespace
