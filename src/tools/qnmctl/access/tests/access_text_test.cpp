// Texts about accesses: results, dumps, failures.
#include "access/access_text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "output/text.h"

namespace qnmctl {
namespace {

constexpr std::uint64_t id = 0x020000001000;

constexpr access_item read_items[] = {{"addr", "register ", 0, 8}, {"value", ": ", from_card, 8}};
constexpr access_words read_words = {"qnm_read_register", access_scope::registers, read_items, "",
                                     nullptr};
constexpr access_item write_items[] = {{"vlan_id", "VLAN ID ", 0, 0}};
constexpr access_words write_words = {"qnm_set_vlanid", access_scope::vlan, write_items, " sent",
                                      " announced"};

TEST(OutcomeText, TellsOperandsAndWhatTheCardAnswered) {
    EXPECT_EQ("0x020000001000 register 0x00000100: 0x0000beef",
              outcome_text({id, QNM_API_SUCCESS, 0xBEEF}, {&read_words, {0x100}, 0}));
}

TEST(OutcomeText, TellsWhetherItWasVerified) {
    EXPECT_EQ("0x020000001000 VLAN ID 30 sent",
              outcome_text({id, QNM_API_SUCCESS, 0}, {&write_words, {30}, QNM_FLAG_LIVECHECK}));
    EXPECT_EQ("0x020000001000 VLAN ID 30 announced",
              outcome_text({id, QNM_API_SUCCESS, 0}, {&write_words, {30}, QNM_FLAG_VERIFY}));
}

TEST(OutcomeJson, HasNumbersForValuesAndTextForIds) {
    EXPECT_EQ(json::parse(R"({"id": "0x020000001000", "addr": 256, "value": 48879,
                              "result": "QNM_API_SUCCESS"})"),
              outcome_json({id, QNM_API_SUCCESS, 0xBEEF}, {&read_words, {0x100}, 0}));
}

TEST(OutcomeJson, HasNoValueAfterAFailure) {
    EXPECT_EQ(json::parse(R"({"id": "0x020000001000", "addr": 256, "value": null,
                              "result": "QNM_API_ETIMEDOUT"})"),
              outcome_json({id, QNM_API_ETIMEDOUT, 0}, {&read_words, {0x100}, 0}));
}

TEST(OutcomeJson, HasNoResultWhereTheCardsTurnNeverCame) {
    EXPECT_EQ(json::parse(R"({"id": "0x020000001000", "addr": 256, "value": null,
                              "result": null})"),
              outcome_json({id, std::nullopt, 0}, {&read_words, {0x100}, 0}));
}

TEST(OutcomeJson, IsVerifiedOnlyBySuccess) {
    const auto verified = [](qnm_api_code_t code, std::uint32_t flags) {
        return outcome_json({id, code, 0}, {&write_words, {30}, flags}).at("verified").get<bool>();
    };
    EXPECT_TRUE(verified(QNM_API_SUCCESS, QNM_FLAG_VERIFY));
    EXPECT_FALSE(verified(QNM_API_SUCCESS, 0));
    EXPECT_FALSE(verified(QNM_API_ETIMEDOUT, QNM_FLAG_VERIFY));
}

TEST(FailureText, NamesCallAndCodeAndWhatToTry) {
    EXPECT_EQ(
        "0x020000001000: qnm_read_eeprom failed: QNM_API_EBUSY\n"
        "Another party keeps the EEPROM lock. Try again later; if that party has gone, free the "
        "lock by \"eeprom unlock\" or take it by --force-lock. Or another process accessed cards "
        "by the same port until now; then trying again is enough.",
        failure_text(id, "qnm_read_eeprom", access_scope::eeprom, QNM_API_EBUSY));
}

TEST(FailureText, IsThatOfTheCodeWhereNothingIsSpecial) {
    EXPECT_EQ("0x020000001000: qnm_read_register failed: QNM_API_ENOENT\n" +
                  std::string(code_remedy(QNM_API_ENOENT)),
              failure_text(id, "qnm_read_register", access_scope::registers, QNM_API_ENOENT));
}

// The log of a run without --log is gone when the text is read.
TEST(FailureText, NamesNoLogWithoutTellingHowToGetIt) {
    constexpr access_scope scopes[] = {access_scope::registers,   access_scope::eeprom,
                                       access_scope::eeprom_lock, access_scope::vlan,
                                       access_scope::reset,       access_scope::mms};
    for (const access_scope scope : scopes) {
        for (int code = 0; code < QNM_API_CODE_MAX; ++code) {
            const std::string text =
                failure_text(id, "call", scope, static_cast<qnm_api_code_t>(code));
            if (text.find(" log") == std::string::npos) continue;
            EXPECT_NE(std::string::npos, text.find("--log FILE")) << text;
        }
    }
}

TEST(FailureText, DoesNotAdviseOptionsThatTheVerbLacks) {
    for (const access_scope scope : {access_scope::eeprom_lock, access_scope::reset}) {
        const std::string text = failure_text(id, "call", scope, QNM_API_ENOLINK);
        EXPECT_EQ(std::string::npos, text.find("--livecheck")) << text;
    }
}

TEST(DumpText, HasFourWordsALineAndTheirBytes) {
    EXPECT_EQ(
        "0x00000100  64636261 00000001 7e207f1f deadbeef  |abcd...... ~....|\n"
        "0x00000110  00000042                             |B...|\n",
        dump_text({id, 0x100, {0x64636261, 1, 0x7E207F1F, 0xDEADBEEF, 0x42}}));
}

TEST(DumpText, OfNothingIsEmpty) {
    EXPECT_EQ("", dump_text({id, 0, {}}));
}

TEST(DumpJson, HasTheWordsAsNumbers) {
    EXPECT_EQ(json::parse(R"({"id": "0x020000001000", "addr": 8, "words": [1, 4294967295],
                              "result": "QNM_API_SUCCESS"})"),
              dump_json({id, 8, {1, 0xFFFFFFFF}}, QNM_API_SUCCESS));
    EXPECT_EQ(json::parse(R"({"id": "0x020000001000", "addr": 8, "words": [], "result": null})"),
              dump_json({id, 8, {}}, std::nullopt));
}

TEST(DifferenceText, HasALineForEachWord) {
    EXPECT_EQ(
        "0x00000004: 0x00000001 -> 0x000000ff\n"
        "0x00000010: 0xffffffff -> 0x00000000\n",
        difference_text({{4, 1, 0xFF}, {16, 0xFFFFFFFF, 0}}));
}

TEST(DifferenceJson, IsAlwaysAnArray) {
    EXPECT_EQ(json::parse(R"([{"addr": 4, "old": 1, "new": 255}])"),
              difference_json({{4, 1, 0xFF}}));
    EXPECT_EQ(json::array(), difference_json({}));
}

}  // namespace
}  // namespace qnmctl
