// config_file.h - a temporary installation directory for tests that start the manager or read a
// configuration.
//
// Holds conf/qnm.conf with the text given (none at all: no such file) and a
// conf/qnm_log4c.properties that leaves the library's loggers to log_capture.h. The directory and
// everything in it is removed on destruction.
#pragma once

#include <optional>
#include <string>

class install_dir {
  public:
    explicit install_dir(const std::optional<std::string>& conf_text = std::nullopt);
    ~install_dir();
    install_dir(const install_dir&) = delete;
    install_dir& operator=(const install_dir&) = delete;

    const std::string& path() const { return path_; }  // for qnm_init_manager
    std::string conf() const;                          // conf/qnm.conf
    std::string properties() const;                    // conf/qnm_log4c.properties

    void write_conf(const std::string& text) const;
    void remove_properties() const;

  private:
    std::string path_;
};
