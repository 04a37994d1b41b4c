#include "daemon/src/noded/noded.h"
#include "util/fs.h"
#include "util/log.h"

int main(int argc, char** argv) {
  if (!vorn::fs::open_standard_descriptors()) {
    return 1;
  }
  return vorn::log::run_guarded(noded_main, argc, argv);
}
