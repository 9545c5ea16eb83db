// Texts that are made from the table of keys: the sample file, the manual page and a table for the
// documents.
#pragma once

#include <string>

namespace qnmctl {

std::string config_sample();  // conf/qnm.conf
std::string config_page();    // qnm.conf(5)
std::string config_table();   // Markdown

}  // namespace qnmctl
