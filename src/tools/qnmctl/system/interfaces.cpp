// Asks the kernel by ioctl() on a socket, and reads its table of counters in /proc.
#include "system/interfaces.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "common/descriptor.h"
#include "common/regular_file.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// A socket to ask about one interface by; it needs no privilege.
class inquiry {
  public:
    explicit inquiry(const std::string& name)
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
          long_name_(name.size() >= IFNAMSIZ) {
        name.copy(request_.ifr_name, IFNAMSIZ - 1);
    }

    // 0, or the errno value.
    int ask(unsigned long what) {
        if (long_name_) return ENODEV;
        return socket_.fd >= 0 && ioctl(socket_.fd, what, &request_) == 0 ? 0 : errno;
    }

    // The same of ethtool, whose question has room for the answer.
    int ask_ethtool(void* question) {
        request_.ifr_data = static_cast<char*>(question);
        return ask(SIOCETHTOOL);
    }

    const ifreq& answer() const { return request_; }

  private:
    tools::descriptor socket_;
    bool long_name_;
    ifreq request_{};
};

std::uint64_t mac_of(const ifreq& answer) {
    std::uint64_t mac = 0;
    for (int byte = 0; byte < 6; ++byte)
        mac = mac << 8 | static_cast<std::uint8_t>(answer.ifr_hwaddr.sa_data[byte]);
    return mac;
}

// ---- Features -----------------------------------------------------------------------------------

// A question of ethtool whose answer follows it, with a length that is known only at run time.
template <class Question>
struct long_question {
    explicit long_question(std::size_t answer)
        : words((sizeof(Question) + answer) / sizeof(std::uint64_t) + 1) {}
    Question* operator->() { return reinterpret_cast<Question*>(words.data()); }
    void* get() { return words.data(); }

    std::vector<std::uint64_t> words;
};

// How many features the kernel has names for.
std::uint32_t count_features(inquiry& from) {
    long_question<ethtool_sset_info> info(sizeof(std::uint32_t));
    info->cmd = ETHTOOL_GSSET_INFO;
    info->sset_mask = std::uint64_t{1} << ETH_SS_FEATURES;
    if (from.ask_ethtool(info.get()) != 0 || info->sset_mask == 0) return 0;
    return info->data[0];
}

// The index of the feature among all; nothing when there is none of the name.
std::optional<std::uint32_t> find_feature(inquiry& from, std::uint32_t count, const char* wanted) {
    long_question<ethtool_gstrings> names(std::size_t{count} * ETH_GSTRING_LEN);
    names->cmd = ETHTOOL_GSTRINGS;
    names->string_set = ETH_SS_FEATURES;
    names->len = count;
    if (from.ask_ethtool(names.get()) != 0) return std::nullopt;
    for (std::uint32_t at = 0; at < count; ++at) {
        const auto* const name =
            reinterpret_cast<const char*>(names->data) + std::size_t{ETH_GSTRING_LEN} * at;
        if (std::strncmp(name, wanted, ETH_GSTRING_LEN) == 0) return at;
    }
    return std::nullopt;
}

}  // namespace

interface_state read_interface(const std::string& name) {
    interface_state found = {.name = name};
    inquiry from(name);
    found.error = from.ask(SIOCGIFFLAGS);
    if (found.error != 0) return found;
    const auto flags = static_cast<unsigned short>(from.answer().ifr_flags);
    found.up = (flags & IFF_UP) != 0;
    found.running = found.up && (flags & IFF_RUNNING) != 0;
    found.promiscuous = (flags & IFF_PROMISC) != 0;
    if (from.ask(SIOCGIFHWADDR) == 0) {
        found.hardware = from.answer().ifr_hwaddr.sa_family;
        found.mac = mac_of(from.answer());
    }
    if (from.ask(SIOCGIFMTU) == 0) found.mtu = from.answer().ifr_mtu;
    return found;
}

std::vector<std::string> interface_names() {
    const std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)> all(if_nameindex(),
                                                                                if_freenameindex);
    std::vector<std::string> names;
    for (const auto* row = all.get(); row != nullptr && row->if_index != 0; ++row)
        names.emplace_back(row->if_name);
    return names;
}

driver_link read_driver_link(const std::string& name) {
    ethtool_value link = {.cmd = ETHTOOL_GLINK, .data = 0};
    const int error = inquiry(name).ask_ethtool(&link);
    return {.error = error, .up = link.data != 0};
}

std::optional<interface_driver> read_driver(const std::string& name) {
    ethtool_drvinfo driver{};
    driver.cmd = ETHTOOL_GDRVINFO;
    if (inquiry(name).ask_ethtool(&driver) != 0) return std::nullopt;
    const auto text = [](const auto& field) {
        return std::string(field, strnlen(field, sizeof field));
    };
    return interface_driver{.name = text(driver.driver),
                            .version = text(driver.version),
                            .firmware = text(driver.fw_version),
                            .bus = text(driver.bus_info)};
}

std::optional<feature> read_feature(const std::string& name, const char* wanted) {
    constexpr std::uint32_t bits = 32;
    inquiry from(name);
    const std::uint32_t count = count_features(from);
    const auto at = find_feature(from, count, wanted);
    if (!at) return std::nullopt;
    const std::uint32_t blocks = (count + bits - 1) / bits;
    long_question<ethtool_gfeatures> states(blocks * sizeof(ethtool_get_features_block));
    states->cmd = ETHTOOL_GFEATURES;
    states->size = blocks;
    if (from.ask_ethtool(states.get()) != 0) return std::nullopt;
    const ethtool_get_features_block& block = states->features[*at / bits];
    const std::uint32_t bit = 1U << *at % bits;
    return feature{.on = (block.active & bit) != 0,
                   .fixed = (block.never_changed & bit) != 0 || (block.available & bit) == 0};
}

all_interface_counters read_counters() {
    const auto table = tools::read_regular_file("/proc/thread-self/net/dev", SIZE_MAX);
    const auto* const text = std::get_if<std::string>(&table);
    return text != nullptr ? parse_counters(*text) : all_interface_counters();
}

all_interface_counters parse_counters(std::string_view table) {
    all_interface_counters all;
    for (const std::string& line : split(table, "\n")) {
        const std::size_t colon = line.rfind(':');  // the name of an alias has one
        if (colon == std::string::npos) continue;
        const std::vector<std::string> name = split(line.substr(0, colon), " ");
        const std::vector<std::string> numbers = split(line.substr(colon + 1), " ");
        if (name.size() != 1 || numbers.size() < counter_names.size()) continue;
        interface_counters counters{};
        bool are_numbers = true;
        for (std::size_t at = 0; at < counters.size(); ++at) {
            const auto number = parse_number(numbers[at]);
            are_numbers = are_numbers && number.has_value();
            counters[at] = number.value_or(0);
        }
        if (are_numbers) all[name.front()] = counters;
    }
    return all;
}

}  // namespace qnmctl
