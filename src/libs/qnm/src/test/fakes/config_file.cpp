// config_file.cpp - a temporary installation directory; see config_file.h.

#include "config_file.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace {

constexpr char k_properties[] = "log4j.rootLogger=OFF\n";

void write_file(const std::string& name, const std::string& text) {
    std::ofstream file(name, std::ios::binary);
    file << text;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + name);
}

}  // namespace

install_dir::install_dir(const std::optional<std::string>& conf_text) {
    path_ = (std::filesystem::temp_directory_path() / "qnm-test-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot make " + path_);
    std::filesystem::create_directory(path_ + "/conf");
    write_file(properties(), k_properties);
    if (conf_text.has_value()) write_conf(*conf_text);
}

install_dir::~install_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string install_dir::conf() const {
    return path_ + "/conf/qnm.conf";
}

std::string install_dir::properties() const {
    return path_ + "/conf/qnm_log4c.properties";
}

void install_dir::write_conf(const std::string& text) const {
    write_file(conf(), text);
}

void install_dir::remove_properties() const {
    std::filesystem::remove(properties());
}
