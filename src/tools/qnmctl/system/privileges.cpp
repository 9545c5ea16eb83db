// Asks for the capabilities of this process, and tries a raw socket.
#include "system/privileges.h"

#include <linux/capability.h>
#include <linux/if_packet.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "common/descriptor.h"

namespace qnmctl {

namespace fs = std::filesystem;

privileges read_privileges() {
    privileges found;
    found.root = geteuid() == 0;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) == 0) {
        found.effective = (data[0].effective >> CAP_NET_RAW & 1U) != 0;
        found.permitted = (data[0].permitted >> CAP_NET_RAW & 1U) != 0;
    }
    found.attainable = prctl(PR_CAPBSET_READ, CAP_NET_RAW) != 0;
    const tools::descriptor raw(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    found.socket_error = raw.fd < 0 ? errno : 0;
    std::error_code ignored;  // the command has a name even so
    found.program = fs::read_symlink("/proc/self/exe", ignored).string();
    if (found.program.empty()) found.program = "qnmctl";
    return found;
}

}  // namespace qnmctl
