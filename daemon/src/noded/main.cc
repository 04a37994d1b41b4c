#include "daemon/src/noded/noded.h"

int main(int argc, char** argv) {
  return noded_main(argc, argv);
}
