// test_config.cpp - the defaults, the reading of qnm.conf key by key, and the printing of the
// values.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "config_file.h"
#include "fail.h"
#include "log_capture.h"
#include "qnm_config.h"
#include "qnm_log4cxxif.h"

namespace {

using testing::IsEmpty;

constexpr int k_error = 1;
constexpr int k_warn = 2;
constexpr int k_info = 3;
constexpr uint32_t k_max = 0xFFFFFFFF;

// ---- The keys -----------------------------------------------------------------------------------

// A key whose value is one number. Field and flag are read through the record's own members.
struct number_key {
    const char* key;
    uint32_t qnm_conf_t::*field;
    int qnm_conf_flag_t::*flag;
    uint32_t initial;
    uint32_t min;
    uint32_t max;
    bool sign_checked = true;
};

#define KEY(name) #name, &qnm_conf_t::name, &qnm_conf_flag_t::ecf_##name
#define KEY_LC(name) #name "_livecheck", &qnm_conf_t::name##_lc, &qnm_conf_flag_t::ecf_##name##_lc

constexpr number_key k_number_keys[] = {
    {KEY(devinfo_check_interval), 1000, 1000, 100000},
    {KEY(devinfo_expire_time), 5000, 1000, 100000},
    {KEY(devinfo_flag_check_interval), 100, 1, 100000},
    {KEY(vlan_check_interval), 10, 1, 1000},
    {KEY(frame_retry_interval), 100, 1, 1000},
    {KEY(frame_retry_count), 10, 0, 100},
    {KEY_LC(frame_retry_interval), 100, 1, 1000},
    {KEY_LC(frame_retry_count), 10, 0, 100},
    {KEY(eeprom_id_number), 256, 1, 32768, false},
    {KEY(eeprom_retry_interval), 50, 1, 1000},
    {KEY(eeprom_retry_count), 100, 0, 1000},
    {KEY(eeprom_check_interval), 1, 0, 1000},
    {KEY(eeprom_check_retry_count), 50, 0, 1000},
    {KEY(eeprom_verify_count), 20, 0, 60},
    {KEY(eeprom_verify_interval), 1, 1, k_max},
    {KEY(eeprom_lock_other_bit), 8, 0, k_max, false},
    {KEY(eeprom_rw_interval), 100, 0, 1000},
    {KEY(tag_min), 0, 0, 255},
    {KEY(tag_max), 255, 0, 255},
    {KEY(id_list_upper_limit), k_max, 0, k_max, false},
    {KEY(log_level), 3, 0, 5},
    {KEY(network_composition), 2, 1, 2},
    {KEY(eeprom_type), 0, 0, 1},
    {KEY(stats_interval), 3600, 1, 2592000},
    {KEY(stats_verbose_level), 0, 0, k_max},
    {KEY(force_lock_try_count), 10, 0, 1000},
    {KEY(register_verify_interval), 0, 0, 1000},
    {KEY(update_evt_mask), 2, 1, 2},
};

#undef KEY
#undef KEY_LC

// For the messages of GoogleTest.
void PrintTo(const number_key& row, std::ostream* out) {
    *out << row.key;
}

std::string name_of(const testing::TestParamInfo<number_key>& row) {
    return row.param.key;
}

std::vector<number_key> keys_with_a_range() {
    std::vector<number_key> rows;
    std::copy_if(std::begin(k_number_keys), std::end(k_number_keys), std::back_inserter(rows),
                 [](const number_key& row) { return row.min > 0 || row.max < k_max; });
    return rows;
}

// ---- Reading ------------------------------------------------------------------------------------

class Config : public testing::Test {
  protected:
    Config() {
        memset(&qnm_config, 0x5A, sizeof qnm_config);
        memset(&qnm_flag, 0x5A, sizeof qnm_flag);
    }

    int read(const std::string& text) {
        dir_.write_conf(text);
        log_.clear();
        return read_path(dir_.conf());
    }
    static int read_path(std::string path) { return _qnm_config_read(path.data()); }

    // The file is refused with this one line.
    void expect_refused(const std::string& text, const std::string& message) {
        EXPECT_EQ(read(text), EPROTO) << text;
        EXPECT_EQ(log_.texts("logfile", k_error),
                  std::vector<std::string>{"_qnm_config_read: " + message})
            << text;
        EXPECT_EQ(log_.lines().size(), 1u) << text;
    }
    void expect_parse_error(const std::string& key, const std::string& value) {
        expect_refused(key + " =" + value + "\n", "config parameter parse error: " + key);
    }
    void expect_range_error(const std::string& key, const std::string& value) {
        expect_refused(key + " =" + value + "\n", "out of range error: " + key);
    }

    static void expect_number(const number_key& row, uint32_t value) {
        EXPECT_EQ(qnm_config.*row.field, value) << row.key;
        EXPECT_EQ(qnm_flag.*row.flag, 1) << row.key;
    }

    static void expect_defaults() {
        for (const number_key& row : k_number_keys)
            EXPECT_EQ(qnm_config.*row.field, row.initial) << row.key;
        EXPECT_STREQ(qnm_config.ether_port_name[0], "eth0");
        EXPECT_STREQ(qnm_config.ether_port_name[1], "eth1");
        EXPECT_EQ(qnm_config.broadcast_mac, 0x0300FFFFFFFFu);
        EXPECT_EQ(qnm_config.ether_port_ifindex[0], 0u);
        EXPECT_EQ(qnm_config.ether_port_ifindex[1], 1u);
        EXPECT_EQ(qnm_config.use_port_num_win, 2u);
        EXPECT_EQ(qnm_config.use_port_num_linux, 2u);
        EXPECT_EQ(qnm_config.ether_type, 0x88B6);
    }

    static bool no_key_accepted() {
        const qnm_conf_flag_t none = {};
        return memcmp(&qnm_flag, &none, sizeof none) == 0;
    }

    install_dir dir_;
    log_capture log_;
    fail::guard fail_;
};

TEST_F(Config, init_stores_the_defaults) {
    EXPECT_EQ(_qnm_config_init(), 0);
    expect_defaults();
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Config, fini_logs_and_succeeds) {
    EXPECT_EQ(_qnm_config_fini(), 0);
    EXPECT_EQ(log_.texts("logfile", k_info),
              (std::vector<std::string>{"_qnm_config_fini: start.", "_qnm_config_fini: end."}));
}

TEST_F(Config, without_a_file_has_the_defaults) {
    EXPECT_EQ(read_path(dir_.conf()), ENOENT);
    expect_defaults();
    EXPECT_TRUE(no_key_accepted());
    EXPECT_EQ(log_.texts("logfile", k_warn),
              std::vector<std::string>{"_qnm_config_read: Failed to _qnm_file_exist(). path=" +
                                       dir_.conf()});
    EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(Config, in_a_directory_in_place_of_a_file_is_no_file) {
    EXPECT_EQ(read_path(dir_.path()), ENOENT);
    expect_defaults();
}

TEST_F(Config, of_an_empty_file_is_the_defaults) {
    EXPECT_EQ(read(""), 0);
    expect_defaults();
    EXPECT_TRUE(no_key_accepted());
}

TEST_F(Config, forgets_what_an_earlier_read_accepted) {
    ASSERT_EQ(read("log_level = 5\n"), 0);
    ASSERT_EQ(read("tag_min = 1\n"), 0);
    EXPECT_EQ(qnm_config.log_level, 3u);
    EXPECT_EQ(qnm_flag.ecf_log_level, 0);
    EXPECT_EQ(qnm_flag.ecf_tag_min, 1);
}

TEST_F(Config, that_cannot_be_opened_is_an_error) {
    dir_.write_conf("log_level = 5\n");
    fail::always(fail::call::open, EACCES);
    EXPECT_EQ(read_path(dir_.conf()), EPROTO);
    EXPECT_EQ(log_.texts("logfile", k_error),
              std::vector<std::string>{"_qnm_config_read: file open error: " + dir_.conf() +
                                       ". erno=" + std::to_string(EACCES)});
    EXPECT_EQ(log_.lines().size(), 1u);
    expect_defaults();
}

// Between the check and the opening, the file becomes a FIFO that nobody writes to. The reader must
// not wait for a writer.
TEST_F(Config, that_is_no_file_any_more_is_an_error) {
    struct row {
        void (*make)(const std::string& path);
        int err;
    };
    const row rows[] = {
        {[](const std::string& path) { std::filesystem::create_directory(path); }, EISDIR},
        {[](const std::string& path) { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); }, ESPIPE}};
    for (const row& it : rows) {
        dir_.write_conf("log_level = 5\n");
        fail::on(fail::call::open, [&](uint64_t) {
            std::filesystem::remove(dir_.conf());
            it.make(dir_.conf());
            return fail::pass;
        });
        EXPECT_EQ(read_path(dir_.conf()), EPROTO);
        EXPECT_EQ(log_.texts("logfile", k_error),
                  std::vector<std::string>{"_qnm_config_read: file open error: " + dir_.conf() +
                                           ". erno=" + std::to_string(it.err)});
        fail::clear(fail::call::open);
        log_.clear();
        std::filesystem::remove(dir_.conf());
    }
}

TEST_F(Config, that_cannot_be_read_is_an_error) {
    EXPECT_EQ(read_path("/proc/self/mem"), EPROTO);
    EXPECT_EQ(log_.texts("logfile", k_error),
              std::vector<std::string>{"_qnm_config_read: file read error: /proc/self/mem. errno=" +
                                       std::to_string(EIO)});
}

TEST_F(Config, file_is_closed_whatever_the_result) {
    const std::size_t before = fail::open_descriptors();
    for (const char* text :
         {"log_level = 5\n", "log_level = 6\n", "no_such_key = 1\n", "tag_min = 10\ntag_max = 5\n"})
        read(text);
    EXPECT_EQ(fail::open_descriptors(), before);
}

// ---- Lines --------------------------------------------------------------------------------------

TEST_F(Config, first_of_two_lines_with_one_key_wins) {
    EXPECT_EQ(read("tag_max = 7\ntag_max = 9\ntag_max = nonsense\ntag_max = 256\n"), 0);
    EXPECT_EQ(qnm_config.tag_max, 7u);
}

TEST_F(Config, keeps_what_was_accepted_before_a_bad_line) {
    expect_refused("log_level = 5\ntag_max = 256\nstats_interval = 9\n",
                   "out of range error: tag_max");
    EXPECT_EQ(qnm_config.log_level, 5u);
    EXPECT_EQ(qnm_config.tag_max, 255u);
    EXPECT_EQ(qnm_flag.ecf_tag_max, 0);
    EXPECT_EQ(qnm_config.stats_interval, 3600u);
}

TEST_F(Config, tag_limits_are_compared_at_the_end_of_the_file) {
    expect_refused("tag_min = 10\ntag_max = 5\n", "config parameter error: tag_min > tag_max");
    EXPECT_EQ(qnm_config.tag_min, 10u);
    EXPECT_EQ(qnm_config.tag_max, 5u);
    EXPECT_EQ(read("tag_min = 10\ntag_max = 10\n"), 0);
    EXPECT_EQ(read("tag_min = 200\ntag_max = 201\n"), 0);
}

TEST_F(Config, skips_comments_and_lines_without_a_key) {
    EXPECT_EQ(read("# log_level = 9\n#\n\n \t \r\n= 5\n  = log_level\nlog_level = 4\n"), 0);
    EXPECT_EQ(qnm_config.log_level, 4u);
}

TEST_F(Config, takes_an_indented_comment_for_a_key) {
    expect_refused("  # note\n", "Unknown config parameter: #");
    expect_refused("  #note = 1\n", "Unknown config parameter: #note");
}

TEST_F(Config, gives_a_hash_inside_a_line_no_meaning) {
    expect_parse_error("log_level", " #4");
    expect_parse_error("log_level", " 4#");
    EXPECT_EQ(read("log_level = 4 # four\n"), 0);
    EXPECT_EQ(qnm_config.log_level, 4u);
}

TEST_F(Config, refuses_unknown_keys) {
    expect_refused("no_such_key = 1\n", "Unknown config parameter: no_such_key");
    expect_refused("Log_Level = 1\n", "Unknown config parameter: Log_Level");
    expect_refused("log_leve = 1\n", "Unknown config parameter: log_leve");
    expect_refused("log_levels = 1\n", "Unknown config parameter: log_levels");
    expect_refused("use_port_num_linux = 1\n", "Unknown config parameter: use_port_num_linux");
    expect_refused("frame_retry_count_lc = 1\n", "Unknown config parameter: frame_retry_count_lc");
    expect_refused("nonsense\n", "Unknown config parameter: nonsense");
}

TEST_F(Config, separates_key_and_value_by_any_blanks) {
    for (const char* text :
         {"log_level=4", "log_level = 4\n", "\tlog_level\t=\t4\t\n", " log_level  =  4  \r\n",
          "log_level more words = 4 5 = 6\n", "log_level = 4\nno value"}) {
        read(text);
        EXPECT_EQ(qnm_config.log_level, 4u) << text;
        EXPECT_EQ(qnm_flag.ecf_log_level, 1) << text;
    }
}

TEST_F(Config, splits_at_the_first_equals_sign) {
    expect_parse_error("log_level", "= 4");
    expect_parse_error("log_level", " =4");
}

// Lines are read into a buffer of 128 bytes: what follows the first 127 characters is a line of its
// own.
TEST_F(Config, reads_a_long_line_in_pieces) {
    const std::string filler(127 - strlen("log_level = 4"), ' ');
    EXPECT_EQ(read("log_level = 4" + filler + "tag_max = 9\n"), 0);
    EXPECT_EQ(qnm_config.log_level, 4u);
    EXPECT_EQ(qnm_config.tag_max, 9u);
    const std::string comment = "#" + std::string(126, 'c');
    EXPECT_EQ(read(comment + "tag_max = 8\n"), 0);
    EXPECT_EQ(qnm_config.tag_max, 8u);
    EXPECT_EQ(read(comment.substr(1) + "\n"), EPROTO);
}

// ---- Numbers ------------------------------------------------------------------------------------

class NumberKey : public Config, public testing::WithParamInterface<number_key> {
  protected:
    const number_key& row() const { return GetParam(); }

    int read_value(const std::string& value) {
        return read(std::string(row().key) + " = " + value + "\n");
    }
};

INSTANTIATE_TEST_SUITE_P(each, NumberKey, testing::ValuesIn(k_number_keys), name_of);

class RangedKey : public NumberKey {};

INSTANTIATE_TEST_SUITE_P(each, RangedKey, testing::ValuesIn(keys_with_a_range()), name_of);

TEST_P(NumberKey, accepts_its_range_from_end_to_end) {
    for (const uint32_t value : {row().min, row().max, row().min + (row().max - row().min) / 2}) {
        EXPECT_EQ(read_value(std::to_string(value)), 0) << value;
        expect_number(row(), value);
    }
}

TEST_P(NumberKey, sets_no_other_field) {
    ASSERT_EQ(read_value(std::to_string(row().min)), 0);
    for (const number_key& other : k_number_keys) {
        if (other.field == row().field) continue;
        EXPECT_EQ(qnm_config.*other.field, other.initial) << other.key;
        EXPECT_EQ(qnm_flag.*other.flag, 0) << other.key;
    }
}

TEST_P(RangedKey, refuses_what_lies_outside_of_it) {
    if (row().min > 0) expect_range_error(row().key, std::to_string(row().min - 1));
    if (row().max < k_max) {
        expect_range_error(row().key, std::to_string(row().max + 1));
        expect_range_error(row().key, " 0xFFFFFFFF");
    }
    EXPECT_TRUE(no_key_accepted());
    EXPECT_EQ(qnm_config.*row().field, row().initial);
}

TEST_P(NumberKey, refuses_what_is_no_number) {
    for (const char* value : {"", " ", " x", " 1x", " 0x", " 08", " 1,2", " -5", " 4294967296",
                              " 0x100000000", " 99999999999999999999999", " 1.0", " \"1\""})
        expect_parse_error(row().key, value);
    EXPECT_EQ(read(row().key), EPROTO);
    EXPECT_TRUE(log_.has(
        k_error, std::string("_qnm_config_read: config parameter parse error: ") + row().key));
    EXPECT_TRUE(no_key_accepted());
}

TEST_P(NumberKey, takes_hexadecimal_and_octal_numbers) {
    char text[32];
    for (const char* format : {"0x%x", "0X%X", "0%o"}) {
        snprintf(text, sizeof text, format, row().max);
        EXPECT_EQ(read_value(text), 0) << text;
        expect_number(row(), row().max);
    }
}

// A sign in front of zero is accepted where signs are not checked.
TEST_P(NumberKey, looks_at_the_sign_of_zero_unless_exempt) {
    if (row().sign_checked) {
        expect_parse_error(row().key, " -0");
    } else if (row().min > 0) {
        expect_range_error(row().key, " -0");
    } else {
        EXPECT_EQ(read_value("-0"), 0);
        expect_number(row(), 0);
    }
}

TEST_F(Config, stats_interval_may_be_hexadecimal) {
    EXPECT_EQ(read("stats_interval = 0x10\n"), 0);
    EXPECT_EQ(qnm_config.stats_interval, 16u);
    expect_range_error("stats_interval", " 0");
    expect_parse_error("stats_interval", " -5");
}

// ---- ether_type ---------------------------------------------------------------------------------

TEST_F(Config, ether_type_is_any_16_bit_number) {
    struct {
        const char* value;
        uint16_t expected;
    } const rows[] = {{" 0", 0}, {" 65535", 65535}, {" 0x88b7", 0x88B7}, {" 017", 15}, {" -0", 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(read(std::string("ether_type =") + row.value), 0) << row.value;
        EXPECT_EQ(qnm_config.ether_type, row.expected);
        EXPECT_EQ(qnm_flag.ecf_ether_type, 1);
    }
}

TEST_F(Config, ether_type_reports_everything_else_as_a_parse_error) {
    for (const char* value : {"", " 65536", " 0x10000", " 0xFFFFFFFF", " 4294967296", " -1", " x"})
        expect_parse_error("ether_type", value);
    EXPECT_EQ(qnm_config.ether_type, 0x88B6);
}

// ---- broadcast_mac ------------------------------------------------------------------------------

TEST_F(Config, broadcast_mac_is_six_pairs_of_digits) {
    EXPECT_EQ(read("broadcast_mac = 01:23:45:67:89:ab rest\n"), 0);
    EXPECT_EQ(qnm_config.broadcast_mac, 0x0123456789ABu);
    EXPECT_EQ(qnm_flag.ecf_broadcast_mac, 1);
    EXPECT_EQ(read("broadcast_mac=FF:FF:FF:FF:FF:FE"), 0);
    EXPECT_EQ(qnm_config.broadcast_mac, 0xFFFFFFFFFFFEu);
}

TEST_F(Config, broadcast_mac_of_another_form_is_a_parse_error) {
    for (const char* value :
         {"", " ff:ff:ff:ff:ff:f", " ff:ff:ff:ff:ff:fff", " ff-ff-ff-ff-ff-ff",
          " ff:ff:ff:ff:ff:gg", " ff:ff:ff:ff:ffff:f", " ffffffffffffaaaaa", " ff:ff:ff:ff:ff: ff"})
        expect_parse_error("broadcast_mac", value);
    EXPECT_EQ(qnm_config.broadcast_mac, 0x0300FFFFFFFFu);
    EXPECT_EQ(qnm_flag.ecf_broadcast_mac, 0);
}

TEST_F(Config, broadcast_mac_above_48_bits_is_out_of_range) {
    expect_range_error("broadcast_mac", " -1:00:00:00:00:00");
    EXPECT_EQ(qnm_config.broadcast_mac, 0x0300FFFFFFFFu);
}

// ---- ether_port ---------------------------------------------------------------------------------

struct names_row {
    std::string value;
    std::string name0;
    std::string name1;
    uint32_t count;
};

TEST_F(Config, ether_port_is_one_name_or_two) {
    const names_row rows[] = {
        {" ens1f0,ens1f1\n", "ens1f0", "ens1f1", 2},
        {" ens1f0\n", "ens1f0", "", 1},
        {" ens1f0 ens1f1", "ens1f0", "ens1f1", 2},
        {"ens1f0\t,\t ens1f1 \r\n", "ens1f0", "ens1f1", 2},
        {" ens1f0\r\n", "ens1f0", "", 1},
        {" a, b, c\n", "a", "b", 2},
        {" ,,a,\n", "a", "", 1},
    };
    for (const names_row& row : rows) {
        EXPECT_EQ(read("ether_port =" + row.value), 0) << row.value;
        EXPECT_EQ(qnm_config.ether_port_name[0], row.name0) << row.value;
        EXPECT_EQ(qnm_config.ether_port_name[1], row.name1) << row.value;
        EXPECT_EQ(qnm_config.use_port_num_linux, row.count) << row.value;
        EXPECT_EQ(qnm_config.use_port_num_win, 2u);
        EXPECT_EQ(qnm_flag.ecf_ether_port_name, 1);
    }
}

TEST_F(Config, ether_port_without_a_name_is_a_parse_error) {
    for (const char* value : {"", " ", " ,", " \t,\r"}) {
        expect_parse_error("ether_port", value);
        EXPECT_STREQ(qnm_config.ether_port_name[0], "");
        EXPECT_STREQ(qnm_config.ether_port_name[1], "");
        EXPECT_EQ(qnm_flag.ecf_ether_port_name, 0);
    }
}

// ---- ether_port_ifindex -------------------------------------------------------------------------

struct indexes_row {
    const char* value;
    uint32_t index0;
    uint32_t index1;
    uint32_t count;
};

TEST_F(Config, ether_port_ifindex_is_one_number_or_two) {
    const indexes_row rows[] = {
        {" 3,4\n", 3, 4, 2},
        {" 3\n", 3, 0, 1},
        {" 3 4 5", 3, 4, 2},
        {" 0x10,\t010\r\n", 16, 8, 2},
        {" 4294967295", k_max, 0, 1},
        {" 3,x\n", 3, 0, 1},
        {" 3 4x\n", 3, 0, 1},
        {" 3,x,4\n", 3, 0, 1},
        {" 0xFFFFFFFF 0", k_max, 0, 2},
    };
    for (const indexes_row& row : rows) {
        EXPECT_EQ(read(std::string("ether_port_ifindex =") + row.value), 0) << row.value;
        EXPECT_EQ(qnm_config.ether_port_ifindex[0], row.index0) << row.value;
        EXPECT_EQ(qnm_config.ether_port_ifindex[1], row.index1) << row.value;
        EXPECT_EQ(qnm_config.use_port_num_win, row.count) << row.value;
        EXPECT_EQ(qnm_config.use_port_num_linux, 2u);
        EXPECT_EQ(qnm_flag.ecf_ether_port_ifindex, 1);
    }
}

TEST_F(Config, ether_port_ifindex_with_a_bad_number_is_a_parse_error) {
    for (const char* value :
         {"", " ,", " x", " x,3", " -1", " 3,-1", " 3,-0", " 4294967296", " 3,4294967296",
          " 00000000003", " 3,00000000004", " 3,xxxxxxxxxxx"}) {
        expect_parse_error("ether_port_ifindex", value);
        EXPECT_EQ(qnm_config.use_port_num_win, 0u) << value;
        EXPECT_EQ(qnm_config.ether_port_ifindex[1], 0u) << value;
        EXPECT_EQ(qnm_flag.ecf_ether_port_ifindex, 0);
    }
}

// ---- Printing -----------------------------------------------------------------------------------

const std::vector<std::string> k_printed_defaults = {
    "    ether_port0_name              : eth0",
    "    ether_port1_name              : eth1",
    "    broadcast_mac                 : 0300ffffffff",
    "    ether_port0_ifindex           : 0",
    "    ether_port1_ifindex           : 1",
    "    use_port_num_win              : 2",
    "    use_port_num_linux            : 2",
    "    devinfo_check_interval        : 1000",
    "    devinfo_expire_time           : 5000",
    "    devinfo_flag_check_interval   : 100",
    "    vlan_check_interval           : 10",
    "    frame_retry_interval          : 100",
    "    frame_retry_count             : 10",
    "    frame_retry_interval_livecheck: 100",
    "    frame_retry_count_livecheck   : 10",
    "    eeprom_id_number              : 0x0100",
    "    eeprom_retry_interval         : 50",
    "    eeprom_retry_count            : 100",
    "    eeprom_check_interval         : 1",
    "    eeprom_check_retry_count      : 50",
    "    eeprom_verify_count           : 20",
    "    eeprom_verify_interval        : 1",
    "    eeprom_lock_other_bit         : 0x00000008",
    "    eeprom_rw_interval            : 100",
    "    tag_min                       : 0",
    "    tag_max                       : 255",
    "    id_list_upper_limit           : 0xffffffff",
    "    log_level                     : 3",
    "    network_composition           : 2",
    "    eeprom_type                   : 0",
    "    stats_interval                : 3600",
    "    stats_verbose_level           : 0",
    "    force_lock_try_count          : 10",
    "    register_verify_interval      : 0",
    "    update_evt_mask               : 2",
    "    ether_type                    : 0x88b6",
};

std::vector<std::string> framed(std::vector<std::string> lines, const std::string& head,
                                const std::optional<std::string>& tail) {
    lines.insert(lines.begin(), head);
    if (tail.has_value()) lines.push_back(*tail);
    return lines;
}

TEST_F(Config, is_printed_after_a_successful_read) {
    EXPECT_EQ(read("# nothing\n"), 0);
    EXPECT_EQ(log_.texts("logfile", k_info),
              framed(k_printed_defaults, "_qnm_config_value_print: start.",
                     "_qnm_config_value_print: end."));
    EXPECT_EQ(log_.lines().size(), k_printed_defaults.size() + 2);
}

TEST_F(Config, is_printed_into_the_status_dump) {
    _qnm_config_init();
    _qnm_config_stats_print();
    EXPECT_EQ(log_.texts("statslogfile", k_info),
              framed(k_printed_defaults, "  - Config parameters", std::nullopt));
    EXPECT_EQ(log_.lines().size(), k_printed_defaults.size() + 1);
}

TEST_F(Config, prints_the_value_of_the_row) {
    EXPECT_EQ(read("broadcast_mac = 00:00:00:00:00:01\neeprom_lock_other_bit = 0\n"
                   "ether_type = 1\nether_port = a\nether_port_ifindex = 5\n"),
              0);
    for (const char* line :
         {"    broadcast_mac                 : 000000000001",
          "    eeprom_lock_other_bit         : 00000000",
          "    ether_type                    : 0x0001", "    ether_port0_name              : a",
          "    ether_port1_name              : ", "    ether_port0_ifindex           : 5",
          "    ether_port1_ifindex           : 0", "    use_port_num_win              : 1",
          "    use_port_num_linux            : 1"})
        EXPECT_EQ(log_.count(k_info, line), 1u) << line;
}

TEST_P(NumberKey, is_printed_under_its_own_label) {
    const uint32_t value = row().max / 2 > row().min ? row().max / 2 : row().min;
    ASSERT_EQ(read_value(std::to_string(value)), 0);
    const bool hex = !row().sign_checked;
    char expected[64];
    snprintf(expected, sizeof expected, hex ? "%#.*x" : "%.*u",
             !hex                 ? 1
             : row().max == k_max ? 8
                                  : 4,
             value);
    const std::string label = std::string(row().key) + std::string(30 - strlen(row().key), ' ');
    EXPECT_EQ(log_.count(k_info, "    " + label + ": " + expected), 1u) << expected;
}

// The sample with every key taken out of its comment: all of its values are accepted.
TEST_F(Config, the_sample_names_every_key_with_its_default) {
    std::ifstream sample(QNM_SAMPLE_CONF);
    ASSERT_TRUE(sample.is_open());
    std::string text;
    for (std::string line; std::getline(sample, line);) {
        const bool is_key = line.size() > 1 && line[0] == '#' && std::islower(line[1]) != 0 &&
                            line.find('=') != std::string::npos;
        text += (is_key ? line.substr(1) : line) + '\n';
    }
    ASSERT_EQ(_qnm_config_init(), 0);
    const qnm_conf_t defaults = qnm_config;
    EXPECT_EQ(read(text), 0);
    EXPECT_EQ(memcmp(&qnm_config, &defaults, sizeof defaults), 0);
    int flags[sizeof qnm_flag / sizeof(int)];
    memcpy(flags, &qnm_flag, sizeof qnm_flag);
    EXPECT_THAT(flags, testing::Each(1));
}

}  // namespace
