#pragma once
// Sleep mode: while set, the provider runner starts no provider and declines
// every ad hoc cluster invitation.
//
// Whoever sets or clears `sleep_mode` does so holding `sleep_mutex`, and
// signals `sleep_cond` after clearing it so that a waiting runner resumes.
// Readers that must not wait (the invitation check) read the flag alone.

#include <atomic>
#include <condition_variable>
#include <mutex>

extern std::atomic<bool> sleep_mode;
extern std::mutex sleep_mutex;
extern std::condition_variable sleep_cond;
