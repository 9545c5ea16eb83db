// qnm_port_holder.cpp - asks who listens on the socket that stands for an interface.
//
// Anybody may bind an abstract name, so the name alone proves nothing. SO_PEERCRED tells which
// process listens, and it can only be a manager if it may open raw sockets here: if it has
// CAP_NET_RAW in our user namespace. A capability in a user namespace of its own does not count. If
// this cannot be found out, the process counts as a manager, because two managers on one interface
// read wrong values.

#include "qnm_port_holder.h"

#include <linux/capability.h>
#include <signal.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// An open file of a process below /proc; it reads as empty if it cannot be opened.
class proc_file {
  public:
    proc_file(const char* process, const char* file) {
        char name[64];
        snprintf(name, sizeof name, "/proc/%s/%s", process, file);
        stream_ = fopen(name, "re");
    }
    ~proc_file() {
        if (stream_ != nullptr) fclose(stream_);
    }
    proc_file(const proc_file&) = delete;
    proc_file& operator=(const proc_file&) = delete;
    template <int Size>
    bool read_line(char (&line)[Size]) {
        return stream_ != nullptr && fgets(line, Size, stream_) != nullptr;
    }

  private:
    FILE* stream_;
};

// The name of a process, which it may set to any bytes.
void read_name(const char* process, char (&name)[16]) {
    proc_file comm(process, "comm");
    if (!comm.read_line(name)) name[0] = '\0';
    name[strcspn(name, "\n")] = '\0';
    for (char* c = name; *c != '\0'; c++) {
        if (*c < ' ' || *c > '~') *c = '?';
    }
}

// Whether a process is known to lack CAP_NET_RAW. A capability that is permitted but not effective
// counts: the process may have opened its ports before it dropped it.
bool lacks_net_raw(const char* process) {
    constexpr char label[] = "CapPrm:";
    proc_file status(process, "status");
    char line[256];
    while (status.read_line(line)) {
        if (strncmp(line, label, strlen(label)) != 0) continue;
        const unsigned long permitted = strtoul(line + strlen(label), nullptr, 16);
        return (permitted >> CAP_NET_RAW & 1) == 0;
    }
    return false;
}

// Whether a process is in the initial user namespace, by its map. otherwise is the answer if the
// map cannot be read.
bool is_of_initial_namespace(const char* process, bool otherwise) {
    proc_file map(process, "uid_map");
    char line[128];
    unsigned long first = 0, outside = 0, count = 0;
    if (!map.read_line(line)) return otherwise;
    return sscanf(line, "%lu %lu %lu", &first, &outside, &count) == 3 && first == 0 &&
           outside == 0 && count == UINT32_MAX;
}

bool can_be_manager(const char* process) {
    if (lacks_net_raw(process)) return false;
    return !is_of_initial_namespace("self", false) || is_of_initial_namespace(process, true);
}

// Which process has called listen() for the other end of a connection; 0 if unknown.
int peer_of(int fd) {
    struct ucred peer = {};
    socklen_t length = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

// A process that has ended may have left a child behind that keeps the socket but uses no ports.
bool has_gone(int pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

}  // namespace

extern "C" {

socklen_t _qnm_port_address(int if_index, struct sockaddr_un* address) {
    *address = {};
    address->sun_family = AF_UNIX;
    const int length =
        snprintf(address->sun_path + 1, sizeof address->sun_path - 1, QNM_PORT_NAME "%d", if_index);
    return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 +
                                  static_cast<size_t>(length));
}

int _qnm_port_socket(void) {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

bool _qnm_ask_port_holder(int fd, int if_index, qnm_port_holder_t* holder) {
    *holder = {QNM_HOLDER_NOBODY, 0, ""};
    struct sockaddr_un address;
    const socklen_t length = _qnm_port_address(if_index, &address);
    if (connect(fd, reinterpret_cast<const struct sockaddr*>(&address), length) != 0) {
        const bool nobody = errno == ECONNREFUSED || errno == EAGAIN;
        holder->eph_kind = nobody ? QNM_HOLDER_NOBODY : QNM_HOLDER_MANAGER;
        return false;
    }
    const int pid = peer_of(fd);
    if (pid > 0 && has_gone(pid)) return true;
    holder->eph_kind = QNM_HOLDER_MANAGER;
    if (pid <= 0) return true;
    char process[16];
    snprintf(process, sizeof process, "%d", pid);
    holder->eph_pid = pid;
    read_name(process, holder->eph_name);
    if (!can_be_manager(process)) holder->eph_kind = QNM_HOLDER_STRANGER;
    return true;
}

}  // extern "C"
