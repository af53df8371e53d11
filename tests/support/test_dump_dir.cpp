// test_dump_dir.cpp - makes the test process's own dump folder before any test runs.
#include "test_dump_dir.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct DumpFolder {
  std::string path;
  DumpFolder() {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/vmktr-dumps-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
      perror("vmktr tests: cannot create the dump folder");
      abort();
    }
    path = pattern;
    setenv("VM_HOST_DUMP_DIR", path.c_str(), 1);
  }
  // The library writes only plain files into it.
  ~DumpFolder() {
    if (DIR* d = opendir(path.c_str())) {
      while (dirent* e = readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") unlink((path + "/" + n).c_str());
      }
      closedir(d);
    }
    rmdir(path.c_str());
  }
};

DumpFolder& folder() {
  static DumpFolder f;
  return f;
}

// Made before main, so that a test that never names the folder still dumps into it.
const bool kMadeAtStart = (folder(), true);

}  // namespace

const char* vmktr_test_dump_dir(void) {
  return folder().path.c_str();
}
