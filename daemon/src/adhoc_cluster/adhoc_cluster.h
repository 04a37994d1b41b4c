#pragma once
// Ad hoc clusters, the initiator's side: when a provider needs several nodes,
// this node broadcasts an invitation, collects replies ("ADHOC RSVP") from
// willing idle nodes until it has enough or the invitation time is over,
// writes the node file of the run, and afterwards releases the members
// ("ADHOC DISSOLVE").
//
// Invitation (beacon payload): "ADHOC[ <partition>] arch=<a> load=<n> port=<p>
// time=<s>", where port is the initiator's pull socket and time the cluster's
// lifetime: the invitation time plus the provider's time-out for max_nodes.
// RSVP: three frames to that port, "ADHOC RSVP", the member's host name and
// its dissolve port. Dissolve: one frame "ADHOC DISSOLVE" to the member.
//
// Runs on the provider runner's thread; the beacon is an actor of its own.

#include <string>
#include <vector>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/provider.h"

struct adhoc_member {
  std::string host;
  std::string port;  // the member's dissolve port, as it sent it
};
using adhoc_member_list = std::vector<adhoc_member>;

// The invitation text for `record` with the initiator's pull port.
std::string adhoc_invitation(const provider& record, const daemon_config& config,
                             const std::string& architecture, int port);

// True when at least min_nodes nodes (this one included) answered; `members`
// then holds the others in order of arrival. A cluster that stays too small is
// dissolved at once.
bool form_adhoc_cluster(const provider& record, const daemon_config& config,
                        adhoc_member_list& members);

// Sends "ADHOC DISSOLVE" to every member and empties the list.
void dissolve_adhoc_cluster(adhoc_member_list& members);

// Writes this node's host name, then each member's, one per line, into a new
// file "/tmp/nodefile.XXXXXX" whose path is returned in `path`.
bool write_adhoc_nodefile(const adhoc_member_list& members, std::string& path);
