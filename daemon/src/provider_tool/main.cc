// vorn-provider: check provider definition files, run a provider the way the
// daemon's scheduler does, and read output files.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/src/config/config.h"
#include "daemon/src/provider/nodes.h"
#include "daemon/src/provider/provider.h"
#include "daemon/src/provider/result.h"
#include "daemon/src/provider/run.h"
#include "daemon/src/startup/startup.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/node.h"
#include "util/str.h"

namespace {

const char* kUsage =
    "Usage:\n"
    "  %1$s check FILE...\n"
    "      Check provider definition files as the daemon loads them and print each\n"
    "      accepted provider. Exit status 0 when every file is accepted, else 1.\n"
    "  %1$s run FILE [-c CONFIG] [-o DIR] [-s OPTIONSET] [-N NODEFILE]\n"
    "      Run the provider once per option set of the configuration (or only the\n"
    "      set named by -s), as the daemon would, and print each output file and\n"
    "      its result.\n"
    "        -c CONFIG    daemon configuration [default = %2$s]\n"
    "        -o DIR       directory for the output files [default = provider_output_dir]\n"
    "        -s OPTIONSET run with this option set only\n"
    "        -N NODEFILE  node file of a multi-node provider's run\n"
    "  %1$s show OUTPUTFILE...\n"
    "      Print output files in the daemon's text form.\n"
    "  %1$s -h\n"
    "      Print this help.\n";

int usage(const char* program, int status) {
  std::fprintf(status == 0 ? stdout : stderr, kUsage, program, installation().config_file.c_str());
  return status;
}

const char* scale_label(::timeout_scale scale) {
  for (const auto& [text, value] : timeout_scale_names) {
    if (value == scale) {
      return text.c_str();
    }
  }
  return "?";
}

void print_provider(const provider& p) {
  std::string roles;
  for (int role : p.roles) {
    roles += (roles.empty() ? "" : " ") + vorn::node::role_name(role);
  }
  std::printf(
      "%s\n"
      "  name:         %s\n"
      "  command:      %s\n"
      "  period:       %d s\n"
      "  loadavg:      %g\n"
      "  timeout:      %lld s, %s (a run without a node file gets %lld s)\n"
      "  nodes:        %u to %u, invitations open %d s\n"
      "  architecture: %s, cluster %s\n"
      "  encoding:     %s\n"
      "  nodelist:     %s, %d\n"
      "  roles:        %s\n"
      "  priority:     %d\n"
      "  version:      %d\n"
      "  disabled:     %s\n",
      p.path.c_str(), p.name.c_str(), p.command.c_str(), p.period, p.loadavg,
      static_cast<long long>(p.timeout), scale_label(p.timeout_scale),
      static_cast<long long>(scale_timeout(p.timeout, 0, p.timeout_scale)), p.min_nodes,
      p.max_nodes, p.adhoc_cluster_invite_time, provider_architecture_label(p.architecture),
      p.cluster == cluster_kind::uniform ? "uniform" : "any", provider_encoding_label(p.encoding),
      nodelist_method_label(p.nodelist_method), p.nodelist_number, roles.c_str(), p.priority,
      p.version, p.disabled ? "yes" : "no");
}

void print_result(const provider_result& result) {
  std::string text = result_text(result, api_text::number);
  std::fwrite(text.data(), 1, text.size(), stdout);
}

int check(int argc, char** argv) {
  if (argc < 1) {
    return -1;
  }
  daemon_config config;
  int status = 0;
  for (int i = 0; i < argc; ++i) {
    provider p;
    int rc = check_provider_file(argv[i], config, p);
    if (rc == -4) {
      std::fprintf(stderr, "%s: accepted, but this machine's architecture may not run it\n",
                   argv[i]);
    }
    if (rc != 0) {
      status = 1;
      continue;
    }
    print_provider(p);
  }
  return status;
}

int run(int argc, char** argv) {
  std::string config_file = installation().config_file;
  std::string output_dir;
  std::string only_set;
  std::string nodefile;
  std::vector<std::string> files;
  // Options may stand before or after the file.
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "-c" || arg == "-o" || arg == "-s" || arg == "-N") {
      if (i + 1 >= argc) {
        return -1;
      }
      std::string value = argv[++i];
      (arg == "-c"   ? config_file
       : arg == "-o" ? output_dir
       : arg == "-s" ? only_set
                     : nodefile) = value;
    } else if (!arg.empty() && arg[0] == '-') {
      return -1;
    } else {
      files.push_back(arg);
    }
  }
  if (files.size() != 1) {
    return -1;
  }

  daemon_config config;
  const install_paths& paths = installation();
  vorn::str::copy(config.provider_config_dir, paths.provider_config_dir);
  vorn::str::copy(config.provider_auxiliary_path, paths.provider_auxiliary_dir);
  if (read_config(config, config_file.c_str()) != 0) {
    return 1;
  }
  if (output_dir.empty()) {
    output_dir = config.provider_output_dir;
  }
  provider p;
  int rc = check_provider_file(files[0].c_str(), config, p);
  if (rc == -4) {
    std::fprintf(stderr, "%s: this machine's architecture may not run provider '%s'\n",
                 files[0].c_str(), p.name.c_str());
  }
  if (rc != 0) {
    return 1;
  }
  p.nodefile = nodefile;
  if (!check_node_requirements(p)) {
    return 1;
  }

  option_set_map sets = provider_option_sets(p, config);
  if (!only_set.empty()) {
    auto set = sets.find(only_set);
    if (set == sets.end()) {
      std::fprintf(stderr, "Provider '%s' has no option set '%s'\n", p.name.c_str(),
                   only_set.c_str());
      return 1;
    }
    sets = {*set};
  }
  for (const auto& [set_name, environment] : sets) {
    provider_result result;
    vorn::str::copy(result.header.option_id, set_name);
    std::string path;
    if (!run_provider(p, config, result, environment) ||
        !write_output_file(result, output_dir, &path)) {
      return 1;
    }
    std::printf("%s\n", path.c_str());
    print_result(result);
  }
  return 0;
}

int show(int argc, char** argv) {
  if (argc < 1) {
    return -1;
  }
  int status = 0;
  for (int i = 0; i < argc; ++i) {
    provider_result result;
    std::string error;
    if (!read_output_file(argv[i], result, &error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
      status = 1;
      continue;
    }
    print_result(result);
  }
  return status;
}

int run_program(int argc, char** argv) {
  if (!vorn::fs::open_standard_descriptors()) {
    return 1;
  }
  vorn::log::LOG_OUTPUT = 0;
  if (argc < 2) {
    return usage(argv[0], 2);
  }
  std::string command = argv[1];
  if (command == "-h" || command == "--help" || command == "help") {
    return usage(argv[0], 0);
  }
  int status = -1;
  if (command == "check") {
    status = check(argc - 2, argv + 2);
  } else if (command == "run") {
    status = run(argc - 2, argv + 2);
  } else if (command == "show") {
    status = show(argc - 2, argv + 2);
  }
  return status < 0 ? usage(argv[0], 2) : status;
}

}  // namespace

int main(int argc, char** argv) {
  return vorn::log::run_guarded(run_program, argc, argv);
}
