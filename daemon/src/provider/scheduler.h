#pragma once
// The provider runner's loop: loads the provider directory once, then walks
// the list in alphabetical order, runs every provider that is due and allowed
// (sleep mode, load average, architecture), forms an ad hoc cluster for those
// that need several nodes, writes each result as an output file in
// provider_output_dir, and waits for the next due provider: never less than
// provider_period seconds, inside the invitation listener when ad hoc
// clusters are enabled, so that this node can join other nodes' clusters
// meanwhile.
//
// Thread safety: runs on the calling thread, which alone touches the provider
// records; other threads only set sleep mode (sleep_mode.h) or request the
// stop (stop.h).

#include <string>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/provider.h"

// Runs until the stop is requested, which ends it between two providers, in
// sleep mode, or while it waits (a run in progress is killed).
void run_scheduler(const daemon_config& config);

// One visit of a due provider: a run per option set of the provider (looked
// up by its name exactly as it stands; one set "None" without an entry), each
// written to an output file. 0 when all ran and were written, 1 when one
// failed (the rest are then not run).
int run_due_provider(provider& record, const daemon_config& config);
