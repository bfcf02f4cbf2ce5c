// The hardware store's calls as the library itself uses them (the WAN address and netmask that
// save_hw_conf keeps): the same requests and parse as the exported calls, with no report on
// standard output, which belongs to the program that loaded the library. Private to the library.
#pragma once

#include "qmt_hconf.h"

namespace nm::hconf {

// qmt_hconf_entry, qmt_hconf_write_entry and qmt_hconf_sync without their messages and dumps.
qmt_hconf_entry_rec *entry_quiet(const char *text);
int write_entry_quiet(const qmt_hconf_entry_rec *entry);
int sync_quiet();

} // namespace nm::hconf
