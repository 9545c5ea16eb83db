// What a writer has written, by way of a file.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "output/writer.h"

namespace qnmctl {

// `fill` tells something and ends the writer.
inline std::string written(output_form form, const char* command,
                           const std::function<void(writer&)>& fill) {
    std::string name = "/tmp/qnmctl-written.XXXXXX";
    const int fd = mkstemp(name.data());
    if (fd < 0) std::abort();
    unlink(name.c_str());
    const int signals = eventfd(0, 0);  // there are none
    output out(fd, signals);
    writer results(out, form, command);
    fill(results);
    std::string text(static_cast<std::size_t>(lseek(fd, 0, SEEK_END)), '\0');
    if (pread(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) std::abort();
    close(signals);
    close(fd);
    return text;
}

}  // namespace qnmctl
