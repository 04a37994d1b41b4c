#include "daemon/src/provider/scheduler.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

#include "daemon/src/adhoc_cluster/adhoc_cluster.h"
#include "daemon/src/adhoc_cluster/invitations.h"
#include "daemon/src/provider/nodes.h"
#include "daemon/src/provider/run.h"
#include "daemon/src/provider/sleep_mode.h"
#include "daemon/src/provider/stop.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/provider";

int64_t now_seconds() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return now.tv_sec;
}

// Blocks while sleep mode is set; false when the stop was requested.
bool pass_sleep_mode() {
  std::unique_lock<std::mutex> lock(sleep_mutex);
  if (sleep_mode) {
    VORN_LOG(6) << "Entering sleep mode";
    sleep_cond.wait(lock, [] { return !sleep_mode || vorn::stop::stop_requested(); });
    VORN_LOG(6) << "Exiting sleep mode";
  }
  return !vorn::stop::stop_requested();
}

// True when the one-minute load lets the provider run. A skip is a warning,
// so that the usual syslog mask shows why a provider stays silent, but only
// once until the load lets the provider through again: a busy node would
// otherwise log it every pass.
bool load_allows(provider& record, const daemon_config& config) {
  double load[3];
  if (::getloadavg(load, 3) != 3) {
    VORN_LOG(3) << "Unable to obtain system load average";
    return true;
  }
  double limit = std::min(record.loadavg, config.provider_loadavg);
  if (load[0] > limit) {
    if (!record.load_skip_logged) {
      VORN_LOG(4) << "Skipping provider because the system load exceeds " << limit << ": "
                  << record.name << " (load " << load[0] << ")";
      record.load_skip_logged = true;
    }
    return false;
  }
  record.load_skip_logged = false;
  return true;
}

// A cluster provider's visit; false when it did not run this pass.
bool run_on_cluster(provider& record, const daemon_config& config, adhoc_member_list& members,
                    int& status) {
  if (!form_adhoc_cluster(record, config, members)) {
    return false;
  }
  if (!write_adhoc_nodefile(members, record.nodefile)) {
    dissolve_adhoc_cluster(members);
    return false;
  }
  bool ran = check_node_requirements(record);
  if (ran) {
    status = run_due_provider(record, config);
  }
  dissolve_adhoc_cluster(members);
  ::unlink(record.nodefile.c_str());
  record.nodefile.clear();
  return ran;
}

// Spends `seconds` where other nodes can invite this one, or plainly.
void wait_between_passes(const daemon_config& config, int64_t seconds) {
  const int64_t deadline = now_seconds() + seconds;
  if (config.enable_adhoc_clusters) {
    listen_for_invitations(config, static_cast<int>(std::min<int64_t>(seconds, INT32_MAX)));
  }
  // Also the rest of the wait when the listener could not listen.
  int64_t left = deadline - now_seconds();
  if (left > 0) {
    vorn::stop::wait_for_stop(static_cast<int>(std::min<int64_t>(left, INT32_MAX / 1000) * 1000));
  }
}

}  // namespace

int run_due_provider(provider& record, const daemon_config& config) {
  for (const auto& [set_name, environment] : provider_option_sets(record, config)) {
    provider_result result;
    vorn::str::copy(result.header.option_id, set_name);
    if (!run_provider(record, config, result, environment)) {
      return 1;
    }
    if (!store_result(result, config)) {
      return 1;
    }
    record.next_run = record.last_run;
    record.next_run.tv_sec += static_cast<uint32_t>(record.period);
  }
  return 0;
}

void run_scheduler(const daemon_config& config) {
  provider_list providers;
  read_provider_config_dir(config, providers);
  adhoc_member_list cluster_nodes;
  while (!vorn::stop::stop_requested()) {
    const timeval* earliest = nullptr;
    for (provider* p = providers.head.get(); p != nullptr; p = p->next.get()) {
      if (!pass_sleep_mode()) {
        return;
      }
      if (p->disabled || !load_allows(*p, config)) {
        continue;
      }
      if (!architecture_matches(*p)) {
        p->disabled = true;
        continue;
      }
      if (p->next_run.tv_sec <= now_seconds()) {
        int status = 1;
        if (p->min_nodes <= 1) {
          status = run_due_provider(*p, config);
        } else if (!config.enable_adhoc_clusters) {
          VORN_LOG(6) << "Adhoc clusters are disabled, so disabling data provider " << p->name;
          p->disabled = true;
          continue;
        } else if (!run_on_cluster(*p, config, cluster_nodes, status)) {
          continue;
        }
        if (status == 0 && p->period == 0) {
          p->disabled = true;
        }
      }
      if (earliest == nullptr) {
        earliest = &p->next_run;
      } else if (!p->disabled && p->next_run.tv_sec < earliest->tv_sec) {
        earliest = &p->next_run;
      }
    }
    if (vorn::stop::stop_requested()) {
      return;
    }
    int64_t wait = 0;
    if (earliest != nullptr) {
      wait = earliest->tv_sec - now_seconds();
      if (wait <= 0) {
        VORN_LOG(6) << "Either a provider took a long time to complete or a provider period is "
                       "probably too short.";
        wait = 0;
      }
    }
    // Never less than provider_period, compared as unsigned numbers.
    if (static_cast<uint64_t>(wait) < static_cast<uint32_t>(config.provider_period)) {
      wait = static_cast<uint32_t>(config.provider_period);
    }
    wait_between_passes(config, wait);
    cluster_nodes.clear();
  }
}
