#include "daemon/src/serverd/serverd.h"

int main(int argc, char** argv) {
  return serverd_main(argc, argv);
}
