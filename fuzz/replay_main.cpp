// replay_main.cpp - runs a fuzz target's entry function over every file of the given corpus
// folders (or single files), so that seed corpora run as ordinary tests under any compiler.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool readFile(const std::string& path, std::vector<uint8_t>* out) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  out->clear();
  uint8_t buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
  fclose(f);
  return true;
}

void collect(const std::string& path, std::vector<std::string>* files) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    files->push_back(path);
    return;
  }
  DIR* d = opendir(path.c_str());
  if (d == nullptr) return;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    collect(path + "/" + name, files);
  }
  closedir(d);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) collect(argv[i], &files);
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    fprintf(stderr, "no corpus files found\n");
    return 1;
  }
  std::vector<uint8_t> data;
  for (const std::string& f : files) {
    if (!readFile(f, &data)) {
      fprintf(stderr, "cannot read %s\n", f.c_str());
      return 1;
    }
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
  printf("replayed %zu inputs\n", files.size());
  return 0;
}
