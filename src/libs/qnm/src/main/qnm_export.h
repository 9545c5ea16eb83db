// qnm_export.h - marks what the shared library exports beside the declarations of qnm.h. Everything
// else is compiled hidden; qnm.map lists the names once more, for their version.
#pragma once

#define QNM_EXPORTED __attribute__((visibility("default")))
