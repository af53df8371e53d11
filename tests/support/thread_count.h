// thread_count.h - how many threads this process has, for tests that check no worker is left.
#ifndef VMKTR_TESTS_THREAD_COUNT_H
#define VMKTR_TESTS_THREAD_COUNT_H

#include <dirent.h>
#include <time.h>

// Threads of this process, from the kernel's list.
inline int thread_count_now() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

// The count once it is at most `atMost`, or after two seconds: a joined thread can stay in the
// kernel's list for a moment after pthread_join returns (under qemu-user it often does), so a
// count taken at once may still include it, and so may a baseline taken before a check: compare
// "at most the baseline". A thread really left behind keeps the count up.
inline int thread_count_settled(int atMost) {
  for (int i = 0; i < 200; ++i) {
    const int n = thread_count_now();
    if (n <= atMost) return n;
    const timespec pause = {0, 10 * 1000 * 1000};
    nanosleep(&pause, nullptr);
  }
  return thread_count_now();
}

#endif  // VMKTR_TESTS_THREAD_COUNT_H
