#pragma once
// The server's command-line and run record, owned by the entry routine for
// the whole life of the process and used only on the main thread.

#include <string>

struct daemon_options {
  std::string config_file = "/etc/vornd.xml";
  bool daemon_mode = false;
  bool debug_mode = false;
  std::string pid_file;
};
