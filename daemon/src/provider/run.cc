#include "daemon/src/provider/run.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "daemon/src/provider/health.h"
#include "daemon/src/provider/nodes.h"
#include "daemon/src/provider/popen3.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/str.h"

namespace {

constexpr const char* kLogSource = "daemon/src/provider";

// The reason results are being lost, and how many were since it began.
struct lost_results {
  std::mutex mutex;
  std::string reason;
  int64_t count = 0;
};

lost_results& lost() {
  static lost_results record;
  return record;
}

void count_run(const popen3_job& job, int rc) {
  node_health& health = node_health_counters();
  ++health.runs;
  if (rc != 0 || job.exit_status != 0 || job.timed_out) {
    ++health.failures;
  }
  if (killed_at_time_out(job.stderr_data)) {
    ++health.timeouts;
  }
}

}  // namespace

std::string provider_command_line(const provider& record, const daemon_config& config,
                                  const std::string& environment, int64_t timeout) {
  std::string line = record.command;
  if (record.min_nodes >= 2) {
    line = "VORN_DP_NODEFILE=" + record.nodefile + " " + line;
  }
  line = vorn::str::replace(line, "%PROVIDER_AUXILIARY_PATH%", config.provider_auxiliary_path);
  line = environment + line;
  return "VORN_TIMEOUT=" + std::to_string(timeout) + " " + line;
}

option_set_map provider_option_sets(const provider& record, const daemon_config& config) {
  // Looked up by the name exactly as it stands, though the keys are upper case.
  auto entry = config.option_sets.find(record.name);
  if (entry == config.option_sets.end()) {
    return {{"None", ""}};
  }
  return entry->second;
}

void fill_hostname(provider_result& result) {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) {
    VORN_LOG(3) << "Unable to get hostname " << vorn::log::sys_error(errno);
    return;
  }
  vorn::str::copy(result.header.hostname, name);
}

int run_provider(provider& record, const daemon_config& config, provider_result& result,
                 const std::string& environment) {
  uint16_t num_nodes = 0;
  std::string nodes_csv;
  if (!record.nodefile.empty() && !read_node_file(record.nodefile, num_nodes, nodes_csv)) {
    num_nodes = 0;
    nodes_csv.clear();
  }
  popen3_job job;
  job.timeout = scale_timeout(record.timeout, num_nodes, record.timeout_scale);
  job.max_output_size = config.max_output_size;
  job.command = provider_command_line(record, config, environment, job.timeout);
  int rc = popen3(job);
  if (job.stopped) {
    // Cut short by the daemon's stop: not a result of the provider.
    VORN_LOG(5) << "Run of data provider '" << record.name << "' ended by the stop; no result";
    return 0;
  }
  count_run(job, rc);
  if (rc != 0) {
    VORN_LOG(3) << "Error executing popen3 " << vorn::log::sys_error(errno);
    return 0;
  }
  if (job.exit_status != 0) {
    VORN_LOG(6) << "Non-zero exit status from data provider '" << record.name << "'";
  }
  if (::gettimeofday(&record.last_run, nullptr) != 0) {
    VORN_LOG(3) << "Error getting time " << vorn::log::sys_error(errno);
    return 0;
  }
  result_header& h = result.header;
  result.stdout_data = std::move(job.stdout_data);
  result.stderr_data = std::move(job.stderr_data);
  result.nodes_csv = nodes_csv;
  h.api = 1;
  h.exit_status = job.exit_status;
  std::memset(h.name, 0, sizeof h.name);
  vorn::str::copy(h.name, record.name);
  h.encoding = static_cast<int32_t>(record.encoding);
  h.timestamp = record.last_run;
  h.duration = job.duration;
  fill_hostname(result);
  h.num_nodes = num_nodes;
  h.stdout_size = result.stdout_data.size();
  h.stderr_size = result.stderr_data.size();
  h.nodes_size = result.nodes_csv.size();
  h.version = record.version;
  return 1;
}

int write_output_file(const provider_result& result, const std::string& directory,
                      std::string* path, std::string* error) {
  auto fail = [error](const std::string& reason) {
    if (error != nullptr) {
      *error = reason;
    } else {
      VORN_LOG(3) << "Error writing the output file: " << reason;
    }
    return 0;
  };
  char name[4096] = {};
  std::snprintf(name, sizeof name, "%s/%s.XXXXXX", directory.c_str(), result.header.name);
  // make_path logs each failure; a directory that is there but refuses the
  // file is left to mkstemp, whose reason the caller reports once.
  struct stat st;
  const bool exists = ::stat(directory.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  if (!exists && !vorn::fs::make_path(directory)) {
    return fail("its directory '" + directory + "' cannot be made");
  }
  vorn::fs::Fd file(::mkstemp(name));
  const int fd = file.get();
  if (fd < 0) {
    return fail("cannot create a file in '" + directory + "' " + vorn::log::sys_error(errno));
  }
  bool locked = ::flock(fd, LOCK_EX) == 0;
  if (!locked) {
    VORN_LOG(4) << "Unable to lock file '" << name << "' " << vorn::log::sys_error(errno);
  }
  const std::string parts[] = {
      std::string(reinterpret_cast<const char*>(&result.header), kResultHeaderSize),
      result.stdout_data, result.stderr_data, result.nodes_csv};
  for (const std::string& part : parts) {
    if (!vorn::fs::write_all(fd, part.data(), part.size())) {
      const int write_error = errno;
      ::unlink(name);
      return fail("cannot write into '" + directory + "' " + vorn::log::sys_error(write_error));
    }
  }
  if (locked && ::flock(fd, LOCK_UN) != 0) {
    VORN_LOG(4) << "Unable to unlock file '" << name << "' " << vorn::log::sys_error(errno);
  }
  if (path != nullptr) {
    *path = name;
  }
  return 1;
}

bool store_result(const provider_result& result, const daemon_config& config) {
  std::string reason;
  const bool written = write_output_file(result, config.provider_output_dir, nullptr, &reason);
  lost_results& record = lost();
  std::lock_guard<std::mutex> lock(record.mutex);
  if (!written) {
    ++node_health_counters().lost;
    ++record.count;
    if (reason != record.reason) {
      VORN_LOG(4) << "The result of data provider '" << result.header.name
                  << "' is lost: its output file " << reason
                  << ". Results are lost until output files can be written again";
      record.reason = reason;
    }
    return false;
  }
  if (record.count > 0) {
    VORN_LOG(4) << "Output files are written to '" << config.provider_output_dir << "' again; "
                << record.count << " result(s) were lost meanwhile";
    record.reason.clear();
    record.count = 0;
  }
  return true;
}

bool read_output_file(const std::string& path, provider_result& result, std::string* error) {
  // Without O_NOATIME the first read of a freshly written file updates its
  // access time, one more inode write per result when a backlog drains; it is
  // refused for files of other users, which are then read the usual way.
  vorn::fs::Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME));
  if (file.get() < 0 && errno == EPERM) {
    file.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  std::string data;
  // The writer holds an exclusive lock until the file is complete.
  if (file.get() < 0 || ::flock(file.get(), LOCK_SH) != 0 ||
      !vorn::fs::read_all(file.get(), &data)) {
    *error = "cannot read '" + path + "': " + std::strerror(errno);
    return false;
  }
  if (!parse_result_header(data, result.header)) {
    *error = "'" + path + "' is " + std::to_string(data.size()) +
             " bytes long, shorter than the 456-byte result header";
    return false;
  }
  const result_header& h = result.header;
  size_t rest = data.size() - kResultHeaderSize;
  if (h.stdout_size > rest || h.stderr_size > rest - h.stdout_size ||
      h.nodes_size > rest - h.stdout_size - h.stderr_size) {
    *error = "'" + path + "' is shorter than its header says (" + std::to_string(data.size()) +
             " bytes, header claims " + std::to_string(kResultHeaderSize) + " + " +
             std::to_string(h.stdout_size) + " + " + std::to_string(h.stderr_size) + " + " +
             std::to_string(h.nodes_size) + ")";
    return false;
  }
  size_t at = kResultHeaderSize;
  result.stdout_data = data.substr(at, h.stdout_size);
  at += h.stdout_size;
  result.stderr_data = data.substr(at, h.stderr_size);
  at += h.stderr_size;
  result.nodes_csv = data.substr(at, h.nodes_size);
  return true;
}
