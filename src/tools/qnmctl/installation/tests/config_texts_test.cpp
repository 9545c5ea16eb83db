// Texts about qnm.conf. The committed files have to be what the table of keys makes of them; if
// they are not, qnm-config-texts writes them again.
#include "installation/config_texts.h"

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "common/man_language.h"
#include "installation/config_keys.h"

namespace qnmctl {
namespace {

std::string text_of(const char* path) {
    std::ifstream file(path);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(ConfigSample, IsTheCommittedFile) {
    EXPECT_EQ(config_sample(), text_of(QNM_SAMPLE_CONF)) << "run: qnm-config-texts sample";
}

TEST(ConfigSample, HasLinesThatFit) {
    std::istringstream lines(config_sample());
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(line.size(), 100u) << line;
}

TEST(ConfigTable, StandsInTheDocument) {
    EXPECT_THAT(text_of(QNM_CONFIGURATION_DOCUMENT), testing::HasSubstr(config_table()))
        << "run: qnm-config-texts table";
}

TEST(ConfigPage, HasEveryKeyWithItsText) {
    const std::string page = config_page();
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        const std::string text = ".BR \"" + std::string(key.name) + "\" \" = \" ";
        const std::size_t at = page.find(text);
        ASSERT_NE(std::string::npos, at) << text;
        const std::string value = man_language::escaped("Value: " + value_text(key));
        EXPECT_LT(page.find(value, at), page.find(".TP", at)) << key.name;
    }
}

TEST(ConfigPage, HasKeysInBold) {
    EXPECT_THAT(config_page(), testing::HasSubstr("so up to one \\fBdevinfo_check_interval\\fP "));
}

}  // namespace
}  // namespace qnmctl
