// log_capture.cpp - an appender that keeps what the library logs; see log_capture.h.

#include "log_capture.h"

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/helpers/transcoder.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "wait.h"

namespace {

constexpr const char* k_loggers[] = {"logfile", "syslogfile", "statslogfile"};

struct level_row {
    int log4cxx_level;
    int level;
};

constexpr level_row k_levels[] = {
    {log4cxx::Level::FATAL_INT, 0}, {log4cxx::Level::ERROR_INT, 1}, {log4cxx::Level::WARN_INT, 2},
    {log4cxx::Level::INFO_INT, 3},  {log4cxx::Level::DEBUG_INT, 4}, {log4cxx::Level::TRACE_INT, 5},
};

int level_of(const log4cxx::spi::LoggingEvent& event) {
    for (const level_row& row : k_levels) {
        if (row.log4cxx_level == event.getLevel()->toInt()) return row.level;
    }
    throw std::logic_error("log_capture: unknown level");
}

std::vector<std::string> texts_of(std::vector<log_line> lines) {
    std::vector<std::string> texts;
    for (log_line& line : lines)
        texts.push_back(std::move(line.text));
    return texts;
}

std::string plain(const log4cxx::LogString& text) {
    std::string result;
    log4cxx::helpers::Transcoder::encodeUTF8(text, result);
    return result;
}

}  // namespace

struct log_capture::store {
    mutable std::mutex mutex;
    std::vector<log_line> lines;
    hook_t hook;
};

// The macros of log4cxx name these without their scope.
namespace helpers = log4cxx::helpers;
using log4cxx::AppenderSkeleton;

// Takes every event on the thread that logs; log4cxx calls it with the appender locked. It stands
// at global scope as log4cxx's class registration asks for.
class capture_appender : public log4cxx::AppenderSkeleton {
  public:
    using sink_t = std::function<void(log_line)>;

    explicit capture_appender(sink_t sink) : sink_(std::move(sink)) {}

    DECLARE_ABSTRACT_LOG4CXX_OBJECT(capture_appender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(capture_appender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()

    void close() override {}
    bool requiresLayout() const override { return false; }

  protected:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override {
        sink_({plain(event->getLoggerName()), level_of(*event), plain(event->getRenderedMessage()),
               std::this_thread::get_id()});
    }

  private:
    sink_t sink_;
};

IMPLEMENT_LOG4CXX_OBJECT(capture_appender)

// The loggers, what they were set to before, and our appender on them.
class log_capture::attachment {
  public:
    explicit attachment(const std::shared_ptr<store>& target)
        : appender_(std::make_shared<capture_appender>([target](log_line line) {
              hook_t hook;
              {
                  const std::lock_guard lock(target->mutex);
                  hook = target->hook;
              }
              if (hook != nullptr) hook(line);
              const std::lock_guard lock(target->mutex);
              target->lines.push_back(std::move(line));
          })) {
        for (const char* name : k_loggers) {
            const log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger(name);
            before_.push_back({logger, logger->getLevel(), logger->getAdditivity()});
            logger->setLevel(log4cxx::Level::getAll());
            logger->setAdditivity(false);
            logger->addAppender(appender_);
        }
    }

    ~attachment() {
        for (const before_t& before : before_) {
            before.logger->removeAppender(appender_);
            before.logger->setAdditivity(before.additivity);
            before.logger->setLevel(before.level);
        }
    }

    attachment(const attachment&) = delete;
    attachment& operator=(const attachment&) = delete;

  private:
    struct before_t {
        log4cxx::LoggerPtr logger;
        log4cxx::LevelPtr level;
        bool additivity;
    };

    log4cxx::AppenderPtr appender_;
    std::vector<before_t> before_;
};

log_capture::log_capture()
    : store_(std::make_shared<store>()), attachment_(std::make_unique<attachment>(store_)) {}

log_capture::~log_capture() = default;

std::vector<log_line> log_capture::lines() const {
    const std::lock_guard lock(store_->mutex);
    return store_->lines;
}

void log_capture::on_line(hook_t hook) {
    const std::lock_guard lock(store_->mutex);
    store_->hook = std::move(hook);
}

std::vector<log_line> log_capture::select(const std::function<bool(const log_line&)>& want) const {
    std::vector<log_line> found;
    const std::lock_guard lock(store_->mutex);
    std::copy_if(store_->lines.begin(), store_->lines.end(), std::back_inserter(found), want);
    return found;
}

std::vector<std::string> log_capture::texts(const std::string& logger) const {
    return texts_of(select([&](const log_line& line) { return line.logger == logger; }));
}

std::vector<std::string> log_capture::texts(const std::string& logger, int level) const {
    return texts_of(
        select([&](const log_line& line) { return line.logger == logger && line.level == level; }));
}

bool log_capture::has(int level, const std::string& text, const std::string& logger) const {
    return count(level, text, logger) != 0;
}

std::size_t log_capture::count(int level, const std::string& text,
                               const std::string& logger) const {
    return select([&](const log_line& line) {
               return line.logger == logger && line.level == level && line.text == text;
           })
        .size();
}

bool log_capture::has_part(int level, const std::string& part, const std::string& logger) const {
    return count_part(level, part, logger) != 0;
}

std::size_t log_capture::count_part(int level, const std::string& part,
                                    const std::string& logger) const {
    return select([&](const log_line& line) {
               return line.logger == logger && line.level == level &&
                      line.text.find(part) != std::string::npos;
           })
        .size();
}

std::size_t log_capture::count_level(int level, const std::string& logger) const {
    return texts(logger, level).size();
}

bool log_capture::wait_for(const predicate_t& holds, std::chrono::seconds limit) const {
    return wait_until([&] { return holds(lines()); }, limit);
}

bool log_capture::wait_for(int level, const std::string& text, std::size_t times,
                           const std::string& logger, std::chrono::seconds limit) const {
    return wait_until([&] { return count(level, text, logger) >= times; }, limit);
}

void log_capture::clear() {
    const std::lock_guard lock(store_->mutex);
    store_->lines.clear();
}
