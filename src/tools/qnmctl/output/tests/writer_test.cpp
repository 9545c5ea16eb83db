// Results as text, JSON and lines of JSON.
#include "output/writer.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/written.h"

namespace qnmctl {
namespace {

void tell_two(writer& told) {
    told.text("two\n");
    told.record("first", {{"id", "0x1"}, {"list", json::array()}});
    told.record("second", {{"number", 2}});
    told.end(17);
}

TEST(Writer, WritesTextsWithoutRecords) {
    EXPECT_EQ("two\n", written(output_form::text, "list", tell_two));
    EXPECT_EQ("two\n", written(output_form::dot, "list", tell_two));
}

TEST(Writer, WritesARecordALine) {
    EXPECT_EQ(
        "{\"schema\":2,\"record\":\"first\",\"id\":\"0x1\",\"list\":[]}\n"
        "{\"schema\":2,\"record\":\"second\",\"number\":2}\n",
        written(output_form::json_lines, "list", tell_two));
}

TEST(Writer, WritesADocumentAroundTheRecords) {
    EXPECT_EQ(
        "{\"schema\":2,\"command\":\"list\",\"records\":[\n"
        "{\"record\":\"first\",\"id\":\"0x1\",\"list\":[]},\n"
        "{\"record\":\"second\",\"number\":2}\n"
        "],\"status\":17}\n",
        written(output_form::json_document, "list", tell_two));
}

TEST(Writer, WritesADocumentWithoutRecords) {
    EXPECT_EQ("{\"schema\":2,\"command\":\"list\",\"records\":[],\"status\":0}\n",
              written(output_form::json_document, "list", [](writer& told) { told.end(0); }));
    EXPECT_EQ("", written(output_form::json_lines, "list", [](writer& told) { told.end(0); }));
}

TEST(Writer, TellsFailuresTwice) {
    testing::internal::CaptureStderr();
    const std::string line = written(output_form::json_lines, "list", [](writer& told) {
        told.failure("no card\nHelp.", 13, QNM_API_ENOENT);
        told.failure("no file", 1, std::nullopt);
    });
    EXPECT_EQ("qnmctl: no card\n  Help.\nqnmctl: no file\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(
        "{\"schema\":2,\"record\":\"error\",\"status\":13,\"result\":\"QNM_API_ENOENT\","
        "\"message\":\"no card\\nHelp.\"}\n"
        "{\"schema\":2,\"record\":\"error\",\"status\":1,\"result\":null,\"message\":\"no "
        "file\"}\n",
        line);
}

TEST(Writer, TakesTextThatIsNoUtf8) {
    EXPECT_NO_THROW(written(output_form::json_lines, "list", [](writer& told) {
        told.record("restore", {{"file", "a\xFF"}});
    }));
}

// What a terminal would obey, from wherever it came.
TEST(Writer, MakesForeignTextVisible) {
    const std::string foreign = "a\033[31m\x7F\xC2\x9B\xC3\xA4\xFF\tb";
    EXPECT_EQ("a\\x1b[31m\\x7f\\xc2\\x9b\xC3\xA4\\xff\tb\n",
              written(output_form::text, "list", [&](writer& told) { told.text(foreign + '\n'); }));
    testing::internal::CaptureStderr();
    const std::string line = written(output_form::json_lines, "list",
                                     [&](writer& told) { told.failure(foreign, 1, std::nullopt); });
    EXPECT_EQ("qnmctl: a\\x1b[31m\\x7f\\xc2\\x9b\xC3\xA4\\xff\tb\n",
              testing::internal::GetCapturedStderr());
    EXPECT_NE(std::string::npos,
              line.find("\"a\\u001b[31m\\u007f\\u009b\xC3\xA4\xEF\xBF\xBD\\tb\""))
        << line;
    EXPECT_EQ("a\033[31m\x7F\xC2\x9B\xC3\xA4\xEF\xBF\xBD\tb",
              json::parse(line).at("message").get<std::string>());
}

// A record holds any text, without the forms that are for terminals.
TEST(Writer, KeepsOtherCharactersOfRecords) {
    const std::string line = written(output_form::json_lines, "list", [](writer& told) {
        told.record("one", {{"\xC2\x9F", "\xC2\xA0\xC2"}});
    });
    EXPECT_EQ("{\"schema\":2,\"record\":\"one\",\"\\u009f\":\"\xC2\xA0\xEF\xBF\xBD\"}\n", line);
}

}  // namespace
}  // namespace qnmctl
