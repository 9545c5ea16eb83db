// Where the doctor says that the library's lines go, compared with where log4cxx sends them.
#include "doctor/log_checks.h"

#include <gtest/gtest.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/helpers/bytearrayinputstream.h>
#include <log4cxx/helpers/class.h>
#include <log4cxx/helpers/loglog.h>
#include <log4cxx/helpers/properties.h>
#include <log4cxx/hierarchy.h>
#include <log4cxx/propertyconfigurator.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "common/tests/temporary_dir.h"
#include "doctor/findings_text.h"
#include "installation/log_properties.h"
#include "qnm_log_check.h"
#include "tests/sample_system.h"

namespace qnmctl {
namespace {

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class BesideLog4cxx : public testing::Test {
  protected:
    BesideLog4cxx() { log4cxx::helpers::LogLog::setQuietMode(true); }
    ~BesideLog4cxx() override { log4cxx::helpers::LogLog::setQuietMode(false); }

    // What log4cxx makes of a properties file, apart from the library's own loggers.
    static log4cxx::spi::LoggerRepositoryPtr configured(const std::string& text) {
        const std::vector<unsigned char> bytes(text.begin(), text.end());
        log4cxx::helpers::Properties properties;
        properties.load(std::make_shared<log4cxx::helpers::ByteArrayInputStream>(bytes));
        log4cxx::spi::LoggerRepositoryPtr made = log4cxx::Hierarchy::create();
        log4cxx::PropertyConfigurator().doConfigure(properties, made);
        return made;
    }

    static findings found_in(const std::string& text) {
        inspected system;
        system.properties = sample_file("properties", text);
        findings found;
        check_properties(system, found);
        return found;
    }

    // Whether a finding about a logger has this text.
    static bool finds(const findings& found, const std::string& logger, const std::string& text) {
        return std::any_of(found.begin(), found.end(), [&](const finding& one) {
            return holds(' ' + one.text, ' ' + logger + ' ') && holds(one.text, text);
        });
    }
};

// Two appenders that need no other files.
constexpr char appenders[] =
    "log4j.appender.R=org.apache.log4j.ConsoleAppender\n"
    "log4j.appender.R.layout=org.apache.log4j.SimpleLayout\n"
    "log4j.appender.LOG=org.apache.log4j.ConsoleAppender\n"
    "log4j.appender.LOG.layout=org.apache.log4j.SimpleLayout\n";

TEST_F(BesideLog4cxx, LinesAreLostOfTheSameLoggers) {
    const char* const texts[] = {
        "",
        "log4j.rootLogger=ALL, R\n",
        "log4j.rootLogger=ALL\n",
        "log4j.rootLogger=R\n",
        "log4j.rootLogger=, R\n",
        "log4j.rootCategory=ALL, R\n",
        "log4j.rootCategory=ALL, R\nlog4j.rootLogger=ALL\n",
        "log4j.rootCategory=ALL, R\nlog4j.rootLogger=\n",
        "log4j.logger.logfile=ALL, LOG\n",
        "log4j.logger.logfile=ALL\n",
        "log4j.logger.logfile=LOG\n",
        "log4j.category.logfile=ALL, LOG\n",
        "log4j.category.logfile=ALL, LOG\nlog4j.logger.logfile=ALL\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=ALL\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=ALL, LOG\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=ALL\nlog4j.additivity.logfile=false\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=ALL\nlog4j.additivity.logfile=False\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=ALL\nlog4j.additivity.logfile=true\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=ALL\nlog4j.additivity.logfile=0\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=\nlog4j.additivity.logfile=false\n",
        "log4j.rootLogger=ALL, R\nlog4j.category.logfile=ALL\nlog4j.additivity.logfile=false\n",
        "log4j.rootLogger=ALL, R\nlog4j.additivity.logfile=false\n",
    };
    for (const std::string start : texts) {
        const auto loggers = configured(start + appenders);
        const findings found = found_in(start + appenders);
        for (const char* const name : {"logfile", "syslogfile", "statslogfile"}) {
            EXPECT_EQ(_qnm_log_has_appender(loggers->getLogger(name).get()) == 0,
                      finds(found, name, "so its lines are lost"))
                << start << name << '\n'
                << findings_text(found, {});
        }
    }
}

TEST_F(BesideLog4cxx, LinesAreDroppedByTheSameLevels) {
    const char* const texts[] = {
        "log4j.rootLogger=ALL, R\n",
        "log4j.rootLogger=WARN, R\n",
        "log4j.rootLogger=, R\n",
        "log4j.rootLogger=inherited, R\n",
        "log4j.rootLogger=WARN, R\nlog4j.logger.logfile=ALL\n",
        "log4j.rootLogger=WARN, R\nlog4j.logger.logfile=, LOG\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=info\n",
        "log4j.rootLogger=ERROR, R\nlog4j.logger.logfile=inherited\n",
        "log4j.rootLogger=ALL, R\nlog4j.logger.logfile=NULL, LOG\n",
        "log4j.logger.logfile=, LOG\n",
        "log4j.logger.logfile=ALL, LOG\n",
    };
    for (const std::string start : texts) {
        const auto logger = configured(start + appenders)->getLogger("logfile");
        const findings found = found_in(start + appenders);
        const std::string level = logger->getEffectiveLevel()->toString();
        EXPECT_EQ(level != "ALL", finds(found, "logfile", "has the level " + level))
            << start << level << '\n'
            << findings_text(found, {});
    }
}

// Without being told to open or connect anything. log4cxx has ODBCAppender also where it is built
// without ODBC, with what its header promises; and one class only its configurator knows, which
// opens its file.
TEST_F(BesideLog4cxx, TheSameAppendersWantALayout) {
    const tools::temporary_dir dir;
    const auto daily = configured(
        "log4j.rootLogger=ALL, R\n"
        "log4j.appender.R=org.apache.log4j.DailyRollingFileAppender\n"
        "log4j.appender.R.File=" +
        (dir.path() / "log").string() + '\n');
    const auto wants_layout = [&](const std::string& name) -> std::optional<bool> {
        if (name == "dailyrollingfileappender") {
            const auto made = daily->getRootLogger()->getAppender("R");
            return made ? std::optional(made->requiresLayout()) : std::nullopt;
        }
        const std::string whole_name = "org.apache.log4j." + name;
        const auto& of = log4cxx::helpers::Class::forName(whole_name);
        const std::unique_ptr<log4cxx::helpers::Object> made(of.newInstance());
        const auto* const appender = dynamic_cast<const log4cxx::Appender*>(made.get());
        return appender ? std::optional(appender->requiresLayout()) : std::nullopt;
    };
    for (const appender_class& row : known_appender_classes())
        EXPECT_EQ(wants_layout(row.name), row.wants_layout) << row.name;
}

// What the root logger writes to has to be as good as an appender of the logger's own.
TEST_F(BesideLog4cxx, AppendersOfTheRootLoggerAreLookedAt) {
    const std::string text =
        "log4j.rootLogger=ALL, R\n"
        "log4j.appender.R=org.apache.log4j.FileAppender\n"
        "log4j.appender.R.File=/var/log/root.log\n";
    EXPECT_TRUE(finds(found_in(text), "logfile", "the appender R, which has no layout"));
    EXPECT_EQ((std::vector<std::string>{"/var/log/root.log"}),
              log_files(read_log_properties(text)));
    const findings shared = found_in("log4j.logger.logfile=ALL, R\n" + text);
    EXPECT_EQ(3U, count(shared, severity::error)) << findings_text(shared, {});  // one per logger
    std::string apart = text;
    for (const std::string name : {"logfile", "syslogfile", "statslogfile"})
        apart += "log4j.logger." + name + "=ALL\nlog4j.additivity." + name + "=false\n";
    EXPECT_TRUE(log_files(read_log_properties(apart)).empty());
}

}  // namespace
}  // namespace qnmctl
