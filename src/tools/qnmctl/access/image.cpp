// Reads images, and writes them so that no half-written one is ever left.
#include "access/image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/regular_file.h"
#include "output/text.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

constexpr mode_t everybody = 0666;
constexpr char already_there[] = " is there already\n--force replaces it.";

mode_t mode_of_new_files() {
    const mode_t mask = umask(0);
    umask(mask);
    return everybody & ~mask;
}

// Where a symbolic link leads, so that its target is replaced and not the link.
fs::path resolved(const std::string& name) {
    std::error_code ignored;  // a file that is not there yet is the usual case
    const fs::path target = fs::canonical(name, ignored);
    return target.empty() ? fs::path(name) : target;
}

}  // namespace

std::string to_bytes(const word_list& words) {
    std::string bytes;
    bytes.reserve(words.size() * word_bytes);
    for (const std::uint32_t word : words) {
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(word >> shift & 0xFF);
    }
    return bytes;
}

word_list from_bytes(const std::string& bytes) {
    word_list words(bytes.size() / word_bytes);
    for (std::size_t at = 0; at < words.size() * word_bytes; ++at) {
        const std::uint32_t byte = static_cast<unsigned char>(bytes[at]);
        words[at / word_bytes] |= byte << at % word_bytes * 8;
    }
    return words;
}

std::string read_file(const std::string& name, std::size_t limit) {
    auto read = tools::read_regular_file(name, limit);
    if (const auto* problem = std::get_if<tools::file_problem>(&read))
        throw error("cannot read " + name + ": " + problem->text);
    return std::get<std::string>(std::move(read));
}

word_list read_image(const std::string& name, std::size_t limit) {
    const std::string contents = read_file(name, limit);
    if (contents.empty() || contents.size() % word_bytes != 0) {
        throw error(name + " is no image: it has " + std::to_string(contents.size()) +
                    " bytes\nAn image has whole words of 4 bytes.");
    }
    return from_bytes(contents);
}

new_file::new_file(const std::string& name, const rules& by)
    : target_(resolved(name)), temporary_(target_.string() + ".XXXXXX"), replaces_(by.replaces) {
    struct stat old {};
    const bool exists = stat(target_.c_str(), &old) == 0;
    if (exists && !replaces_) throw error(name + already_there);
    // Renaming a file over a device or a pipe would remove it from the system.
    if (exists && !S_ISREG(old.st_mode)) {
        throw error(name + " is not a regular file\nName a file that may be replaced.");
    }
    if (exists && access(target_.c_str(), W_OK) != 0) {
        throw error("cannot write " + name + ": " + strerror(errno));
    }
    file_ = tools::descriptor(mkostemp(temporary_.data(), O_CLOEXEC));
    if (file_.fd < 0) {
        temporary_.clear();
        throw error("cannot write " + name + ": " + strerror(errno));
    }
    // Failure only means that fewer users can read it.
    [[maybe_unused]] const int ignored =
        fchmod(file_.fd, by.mode.value_or(exists ? old.st_mode & everybody : mode_of_new_files()));
}

new_file::~new_file() {
    if (!temporary_.empty()) unlink(temporary_.c_str());
}

void new_file::fail(int code) const {
    throw error("cannot write " + target_.string() + ": " + strerror(code) +
                "\nNothing was changed there.");
}

// Another file may have appeared there meanwhile. If the file system cannot check that while it
// renames, it is checked just before.
void new_file::put_in_place() const {
    const unsigned flags = replaces_ ? 0 : RENAME_NOREPLACE;
    int code = 0;
    if (renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, target_.c_str(), flags) != 0)
        code = errno;
    if (code == EINVAL && access(target_.c_str(), F_OK) != 0)
        code = rename(temporary_.c_str(), target_.c_str()) == 0 ? 0 : errno;
    if (code == EEXIST) throw error(target_.string() + already_there);
    if (code != 0) fail(code);
}

void new_file::commit(const std::string& contents) {
    for (std::size_t done = 0; done < contents.size();) {
        const ssize_t taken = write(file_.fd, contents.data() + done, contents.size() - done);
        if (taken < 0 && errno != EINTR) fail(errno);
        if (taken > 0) done += static_cast<std::size_t>(taken);
    }
    if (fsync(file_.fd) != 0) fail(errno);
    put_in_place();
    temporary_.clear();
}

std::vector<difference> differences(const word_list& now, const word_list& wanted) {
    std::vector<difference> found;
    for (std::uint32_t at = 0; at < wanted.size(); ++at) {
        if (now[at] != wanted[at]) found.push_back({at * word_bytes, now[at], wanted[at]});
    }
    return found;
}

}  // namespace qnmctl
