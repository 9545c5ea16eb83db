// The forms of output.
#include "writer.h"

#include <gtest/gtest.h>

#include "written.h"

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
        "{\"schema\":1,\"record\":\"first\",\"id\":\"0x1\",\"list\":[]}\n"
        "{\"schema\":1,\"record\":\"second\",\"number\":2}\n",
        written(output_form::json_lines, "list", tell_two));
}

TEST(Writer, WritesADocumentAroundTheRecords) {
    EXPECT_EQ(
        "{\"schema\":1,\"command\":\"list\",\"records\":[\n"
        "{\"record\":\"first\",\"id\":\"0x1\",\"list\":[]},\n"
        "{\"record\":\"second\",\"number\":2}\n"
        "],\"status\":17}\n",
        written(output_form::json_document, "list", tell_two));
}

TEST(Writer, WritesADocumentWithoutRecords) {
    EXPECT_EQ("{\"schema\":1,\"command\":\"list\",\"records\":[],\"status\":0}\n",
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
        "{\"schema\":1,\"record\":\"error\",\"status\":13,\"result\":\"QNM_API_ENOENT\","
        "\"message\":\"no card\\nHelp.\"}\n"
        "{\"schema\":1,\"record\":\"error\",\"status\":1,\"result\":null,\"message\":\"no "
        "file\"}\n",
        line);
}

TEST(Writer, TakesTextThatIsNoUtf8) {
    EXPECT_NO_THROW(written(output_form::json_lines, "list", [](writer& told) {
        told.record("restore", {{"file", "a\xFF"}});
    }));
}

}  // namespace
}  // namespace qnmctl
