#include "daemon/src/noded/noded.h"
#include "util/fs.h"

int main(int argc, char** argv) {
  if (!vorn::fs::open_standard_descriptors()) {
    return 1;
  }
  return noded_main(argc, argv);
}
