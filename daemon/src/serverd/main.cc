#include "daemon/src/serverd/serverd.h"
#include "util/fs.h"

int main(int argc, char** argv) {
  if (!vorn::fs::open_standard_descriptors()) {
    return 1;
  }
  vorn::fs::raise_descriptor_limit();
  return serverd_main(argc, argv);
}
