// qmtnm's commands for a change that rolls back unless confirmed: try, confirm, rollback and
// pending.
#pragma once

namespace cli {

// Runs one "set AREA field=value ..." of a try (argv[0] is the area) as 'qmtnm set' does;
// returns its exit status.
using set_runner = int (*)(void *context, int argc, char **argv);

// Whether cmd is one of these commands.
bool is_pending_command(const char *cmd);
// Runs it with the words after it; json for 'pending --json'.
int pending_command(const char *cmd, int argc, char **argv, bool json, set_runner run,
                    void *context);

} // namespace cli
