// What is told of qnm.conf: the sample file, the manual page, and a table for the documents, all
// made from the keys.
#pragma once

#include <string>

namespace qnmctl {

std::string config_sample();  // conf/qnm.conf
std::string config_page();    // qnm.conf(5)
std::string config_table();   // Markdown

}  // namespace qnmctl
