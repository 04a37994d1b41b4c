#include "daemon/src/provider/sleep_mode.h"

std::atomic<bool> sleep_mode{false};
std::mutex sleep_mutex;
std::condition_variable sleep_cond;
