// log_capture.h - everything that is written to the library's three loggers, kept in memory.
//
// An appender is attached to the log4cxx loggers "logfile", "syslogfile" and "statslogfile" for the
// lifetime of the object. They are set to let every level through and to pass nothing on, so
// nothing appears on the terminal; afterwards they are as before. Lines that the library drops
// because of its own running level never arrive here: a test sets that level as it needs.
//
// The lines are in the order in which they were written. All functions may be called from any
// thread. Use one object at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

struct log_line {
    std::string logger;  // "logfile", "syslogfile" or "statslogfile"
    int level;           // 0 fatal, 1 error, 2 warning, 3 info, 4 debug, 5 trace
    std::string text;
    std::thread::id thread;  // the thread that wrote it
};

class log_capture {
  public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::vector<log_line> lines() const;
    std::vector<std::string> texts(const std::string& logger = "logfile") const;
    std::vector<std::string> texts(const std::string& logger, int level) const;

    // A line with exactly this text at this level.
    bool has(int level, const std::string& text, const std::string& logger = "logfile") const;
    std::size_t count(int level, const std::string& text,
                      const std::string& logger = "logfile") const;

    // A line that contains this fragment.
    bool has_part(int level, const std::string& part, const std::string& logger = "logfile") const;
    std::size_t count_part(int level, const std::string& part,
                           const std::string& logger = "logfile") const;

    // All lines of a level.
    std::size_t count_level(int level, const std::string& logger = "logfile") const;

    // Waits until the predicate holds for the lines so far; false when the limit passes first.
    using predicate_t = std::function<bool(const std::vector<log_line>&)>;
    bool wait_for(const predicate_t& holds,
                  std::chrono::seconds limit = std::chrono::seconds(60)) const;
    // Waits for this many lines with exactly this level and text.
    bool wait_for(int level, const std::string& text, std::size_t times = 1,
                  const std::string& logger = "logfile",
                  std::chrono::seconds limit = std::chrono::seconds(60)) const;

    void clear();

    // Called with each line on the thread that writes it, before it is kept.
    using hook_t = std::function<void(const log_line&)>;
    void on_line(hook_t hook);

  private:
    struct store;
    class attachment;

    std::vector<log_line> select(const std::function<bool(const log_line&)>& want) const;

    std::shared_ptr<store> store_;
    std::unique_ptr<attachment> attachment_;
};
