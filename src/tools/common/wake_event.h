// An event by which one thread wakes another that waits in poll().
#pragma once

#include "common/descriptor.h"

namespace tools {

class wake_event {
  public:
    wake_event();  // throws std::system_error

    int fd() const { return fd_.fd; }  // readable while the event is set

    // From any thread.
    void set() const;
    void clear() const;

  private:
    descriptor fd_;
};

}  // namespace tools
