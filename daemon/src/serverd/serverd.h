#pragma once
// Entry routine of vorn-serverd: start-up, serving, and the ordered shutdown.
// Runs on the main thread; returns the process exit status.

int serverd_main(int argc, char** argv);
