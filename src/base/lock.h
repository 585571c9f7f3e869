// SPDX-License-Identifier: Apache-2.0
// The one guard of the daemon's mutexes. No state; any thread.
#pragma once

#include <pthread.h>

// Holds a mutex for the length of a scope, in which the thread cannot be cancelled: it would never
// give the lock back. Not recursive.
class mutex_guard {
  public:
    explicit mutex_guard(pthread_mutex_t* mutex) : mutex_(mutex) {
        (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);  // never fails
        pthread_mutex_lock(mutex_);
    }
    ~mutex_guard() {
        pthread_mutex_unlock(mutex_);
        (void)pthread_setcancelstate(cancel_state_, nullptr);
    }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

  private:
    pthread_mutex_t* mutex_;
    int cancel_state_ = 0;
};
