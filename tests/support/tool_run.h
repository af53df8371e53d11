// tool_run.h - runs a host tool as a program, without a shell, for end-to-end tool tests: its
// exit code and what it printed, a time limit (a tool that blocks, on a FIFO say, fails the test
// instead of hanging the suite), and a work folder per process whose name holds a quote and a
// space, removed when the suite ends.
#ifndef VMKTR_TESTS_TOOL_RUN_H
#define VMKTR_TESTS_TOOL_RUN_H

#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct ToolRun {
  int code = -1;  // exit code; -1 a signal, -2 still running after the time limit
  std::string out, err;
};

inline std::string read_all(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

inline int tool_run_remove_entry(const char* path, const struct stat*, int, FTW*) {
  return remove(path);
}

// testing::TempDir()/<stem> <pid>, made on first use and removed with its contents at the end.
inline const std::string& tool_work_dir(const char* stem) {
  static const std::string dir = [stem] {
    const std::string d = testing::TempDir() + "/" + stem + " " + std::to_string(getpid());
    mkdir(d.c_str(), 0755);
    struct CleanUp : testing::Environment {
      std::string path;
      explicit CleanUp(std::string p) : path(std::move(p)) {}
      void TearDown() override { nftw(path.c_str(), tool_run_remove_entry, 16, FTW_DEPTH | FTW_PHYS); }
    };
    testing::AddGlobalTestEnvironment(new CleanUp(d));
    return d;
  }();
  return dir;
}

// Runs `tool` with `args` (the library's log silenced), stdout and stderr into files of `dir`.
inline ToolRun tool_run(const std::string& dir, const char* tool, const std::vector<std::string>& args,
                        int limitSeconds) {
  ToolRun r;
  const std::string outPath = dir + "/.stdout", errPath = dir + "/.stderr";
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(tool));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (o < 0 || e < 0) _exit(127);
    dup2(o, 1);
    dup2(e, 2);
    setenv("VM_HOST_LOG", "none", 1);
    execv(tool, argv.data());
    _exit(127);
  }
  int status = 0;
  for (int waited = 0;; ++waited) {
    if (waitpid(pid, &status, WNOHANG) == pid) break;
    if (waited == limitSeconds * 200) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      r.code = -2;
      return r;
    }
    const timespec tick = {0, 5 * 1000 * 1000};
    nanosleep(&tick, nullptr);
  }
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = read_all(outPath);
  r.err = read_all(errPath);
  return r;
}

#endif  // VMKTR_TESTS_TOOL_RUN_H
