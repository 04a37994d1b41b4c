#include "daemon/src/serverd/serverd.h"
#include "util/fs.h"
#include "util/log.h"

int main(int argc, char** argv) {
  if (!vorn::fs::open_standard_descriptors()) {
    return 1;
  }
  vorn::fs::raise_descriptor_limit();
  return vorn::log::run_guarded(serverd_main, argc, argv);
}
