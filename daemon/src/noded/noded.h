#pragma once
// Entry routine of vorn-noded, the node daemon: start-up, the provider
// scheduler on the main thread, the publisher that delivers results to the
// accumulate server, the thread of health rows (health_row.h), and the
// signal thread (SIGTERM/SIGINT stop, SIGUSR1 puts the node to sleep, SIGUSR2
// wakes it). Returns the exit status.

int noded_main(int argc, char** argv);
