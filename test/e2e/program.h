// program.h - a program that a test starts, watches and ends.
#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

namespace e2e {

// Its standard output and error go to one file in the directory. Killed if it is still there at the
// end.
class program {
  public:
    program(std::vector<std::string> words, const std::string& dir);
    ~program();
    program(const program&) = delete;
    program& operator=(const program&) = delete;

    std::string output() const;
    bool prints(const std::string& line) const;  // within the limit

    // Until SIGINT is blocked; before that it would kill the program.
    void wait_for_signals() const;
    void send(int signal) const;

    // The exit status; -1 when it has not ended within the limit, and the negative number of the
    // signal that ended it.
    int wait();

  private:
    std::string output_;
    pid_t pid_ = -1;
};

}  // namespace e2e
