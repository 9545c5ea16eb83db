// The command as a program that a test runs: its exit status, what it prints, how it ends.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "common/tests/temporary_dir.h"

namespace qnmctl {

using words = std::vector<std::string>;

// The words that run qnmctl with these arguments.
words invocation(const words& arguments);

bool holds(const std::string& text, const std::string& part);

enum class standard_files { pipes, socket, terminal };

// A running program; its temporary files go into a directory of its own. With pipes its standard
// error goes to a file there, and standard output can be a socket in place of one; a terminal is
// all three of its standard files.
class program {
  public:
    explicit program(words command, standard_files files = standard_files::pipes);
    ~program();
    program(const program&) = delete;
    program& operator=(const program&) = delete;

    void say(const std::string& line) const;
    void signal(int number) const;
    pid_t pid() const { return pid_; }
    void close_input() { close_end(in_); }
    void close_output() { close_end(out_); }

    // Reads on until the text has been seen, or the end; returns everything that was read.
    const std::string& read_until(const std::string& text);
    const std::string& read_all();

    // The exit status, 128 + the number of a signal that ended it.
    int end();

    std::string errors() const;
    bool left_something() const;

  private:
    void open_pipes(standard_files files);
    void open_terminal();
    [[noreturn]] void become(words command) const;
    bool read_some(std::chrono::steady_clock::time_point deadline);
    static void close_end(int& fd);

    tools::temporary_dir dir_;
    int theirs_[3] = {-1, -1, -1};  // the program's ends
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string seen_;
};

// Tests whose programs run in a network namespace of their own; skipped where none can be made.
class NamespaceTest : public testing::Test {
  protected:
    void SetUp() override;
};

}  // namespace qnmctl
