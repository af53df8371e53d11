// tool_cli.cpp - option parsing, exit codes, the run report and checked file access of the tools.
#include "tool_cli.h"

#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <stdexcept>

const char kToolExitCodesHelp[] =
    "exit codes\n"
    "  0 done   2 bad usage or input   3 the library refused   4 nothing could be processed\n"
    "  5 an output could not be written\n";

bool tool_parse_int(const char* s, int64_t lo, int64_t hi, int64_t* out) {
  if (s == nullptr) return false;
  const char* p = s;
  if (*p == '-' || *p == '+') ++p;
  if (*p < '0' || *p > '9') return false;  // refuses spaces, empty strings and a bare sign
  for (const char* q = p; *q != '\0'; ++q)
    if (*q < '0' || *q > '9') return false;
  errno = 0;
  char* end = nullptr;
  const long long v = strtoll(s, &end, 10);
  if (errno == ERANGE || end == s || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

bool tool_parse_double(const char* s, double lo, double hi, double* out) {
  if (s == nullptr || *s == '\0') return false;
  for (const char* q = s; *q != '\0'; ++q)  // decimal digits, sign, point and exponent only
    if (strchr("0123456789+-.eE", *q) == nullptr) return false;
  char* end = nullptr;
  const double v = strtod(s, &end);
  if (end == s || *end != '\0' || !isfinite(v) || v < lo || v > hi) return false;
  *out = v;
  return true;
}

bool tool_parse_int_pair(const char* s, char sep, int64_t lo, int64_t hi, int64_t* a, int64_t* b) {
  if (s == nullptr) return false;
  const char* mid = strchr(s, sep);
  if (mid == nullptr) return false;
  const std::string first(s, mid);
  return tool_parse_int(first.c_str(), lo, hi, a) && tool_parse_int(mid + 1, lo, hi, b);
}

bool tool_parse_size(const char* s, int32_t lo, int32_t hi, int32_t* w, int32_t* h) {
  int64_t a = 0, b = 0;
  if (!tool_parse_int_pair(s, 'x', lo, hi, &a, &b)) return false;
  *w = int32_t(a);
  *h = int32_t(b);
  return true;
}

bool ToolArgs::next() {
  if (failed() || index_ + 1 >= argc_) return false;
  option_ = argv_[++index_];
  return true;
}

bool ToolArgs::value(const char** out) {
  if (index_ + 1 >= argc_) {
    fail(option_ + " needs a value");
    return false;
  }
  *out = argv_[++index_];
  return true;
}

bool ToolArgs::string_value(std::string* out) {
  const char* v = nullptr;
  if (!value(&v)) return false;
  if (*v == '\0') {
    fail(option_ + " needs a non-empty value");
    return false;
  }
  *out = v;
  return true;
}

bool ToolArgs::int_value(int64_t lo, int64_t hi, int64_t* out) {
  const char* v = nullptr;
  if (!value(&v)) return false;
  if (!tool_parse_int(v, lo, hi, out)) {
    fail(option_ + ": '" + v + "' is not a decimal number in " + std::to_string(lo) + ".." + std::to_string(hi));
    return false;
  }
  return true;
}

bool ToolArgs::int_value(int64_t lo, int64_t hi, int32_t* out) {
  int64_t v = 0;
  if (!int_value(lo < INT32_MIN ? INT32_MIN : lo, hi > INT32_MAX ? INT32_MAX : hi, &v)) return false;
  *out = int32_t(v);
  return true;
}

bool ToolArgs::double_value(double lo, double hi, double* out) {
  const char* v = nullptr;
  if (!value(&v)) return false;
  if (!tool_parse_double(v, lo, hi, out)) {
    char range[64];
    snprintf(range, sizeof range, "%g..%g", lo, hi);
    fail(option_ + ": '" + v + "' is not a decimal number in " + range);
    return false;
  }
  return true;
}

bool ToolArgs::size_value(int32_t lo, int32_t hi, int32_t* w, int32_t* h) {
  const char* v = nullptr;
  if (!value(&v)) return false;
  if (!tool_parse_size(v, lo, hi, w, h)) {
    fail(option_ + ": '" + v + "' is not WxH with both sides in " + std::to_string(lo) + ".." + std::to_string(hi));
    return false;
  }
  return true;
}

void ToolArgs::unknown() {
  fail("unknown option '" + option_ + "' (see --help)");
}

void ToolArgs::fail(const std::string& message) {
  if (error_.empty()) error_ = message;
}

void ToolReport::skip(const std::string& what, const std::string& why) {
  fprintf(stderr, "%s: skipped %s: %s\n", tool, what.c_str(), why.c_str());
  skipped.push_back(what);
}

void ToolReport::write_failed(const std::string& path, const std::string& why) {
  // The image writers' messages start with the path already; say it once.
  const std::string prefix = path + ": ";
  const std::string reason = why.compare(0, prefix.size(), prefix) == 0 ? why.substr(prefix.size()) : why;
  fprintf(stderr, "%s: could not write %s: %s\n", tool, path.c_str(), reason.c_str());
  writeFailures.push_back(path);
}

int ToolReport::finish() const {
  if (!skipped.empty()) {
    fprintf(stderr, "%s: skipped %zu item%s:", tool, skipped.size(), skipped.size() == 1 ? "" : "s");
    for (size_t i = 0; i < skipped.size() && i < 20; ++i) fprintf(stderr, " %s", skipped[i].c_str());
    fprintf(stderr, "%s\n", skipped.size() > 20 ? " ..." : "");
  }
  if (!writeFailures.empty()) {
    fprintf(stderr, "%s: %zu output%s could not be written:", tool, writeFailures.size(),
            writeFailures.size() == 1 ? "" : "s");
    for (size_t i = 0; i < writeFailures.size() && i < 20; ++i) fprintf(stderr, " %s", writeFailures[i].c_str());
    fprintf(stderr, "%s\n", writeFailures.size() > 20 ? " ..." : "");
    return kToolExitWrite;
  }
  if (processed == 0) return kToolExitNothing;
  return skipped.empty() ? kToolExitDone : kToolExitUsage;
}

int tool_main(const char* tool, int argc, char** argv, int (*body)(int, char**)) {
  try {
    return body(argc, argv);
  } catch (const std::bad_alloc&) {
    fprintf(stderr, "%s: out of memory: the input is too large to hold\n", tool);
  } catch (const std::length_error&) {
    fprintf(stderr, "%s: out of memory: the input is too large to hold\n", tool);
  }
  return kToolExitUsage;
}

bool tool_close_checked(FILE* f, std::string* error) {
  const bool flushed = fflush(f) == 0 && !ferror(f);
  const int flushErrno = errno;
  const bool closed = fclose(f) == 0;
  if (flushed && closed) return true;
  *error = strerror(flushed ? errno : flushErrno);
  return false;
}

bool tool_write_file(const std::string& path, const void* data, size_t size, std::string* error) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) {
    *error = strerror(errno);
    return false;
  }
  if (size > 0 && fwrite(data, 1, size, f) != size) {
    *error = strerror(errno);
    fclose(f);
    return false;
  }
  return tool_close_checked(f, error);
}

bool tool_is_regular_file(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool tool_read_file(const std::string& path, size_t maxBytes, std::vector<uint8_t>* out, std::string* error) {
  // O_NONBLOCK: opening a FIFO without a writer must not wait; it is refused below anyway.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    *error = strerror(errno);
    return false;
  }
  struct stat st;
  bool ok = false;
  if (fstat(fd, &st) != 0) {
    *error = strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    *error = "not a regular file";
  } else if (uint64_t(st.st_size) > uint64_t(maxBytes)) {
    *error = "larger than " + std::to_string(maxBytes) + " bytes";
  } else {
    out->resize(size_t(st.st_size));
    size_t got = 0;
    while (got < out->size()) {
      const ssize_t n = read(fd, out->data() + got, out->size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += size_t(n);
    }
    ok = got == out->size();
    if (!ok) *error = "could not be read whole";
  }
  close(fd);
  return ok;
}

bool tool_make_dirs(const std::string& path, std::string* error) {
  std::string partial;
  size_t pos = 0;
  while (pos <= path.size()) {
    const size_t slash = path.find('/', pos);
    const size_t end = slash == std::string::npos ? path.size() : slash;
    partial = path.substr(0, end);
    pos = end + 1;
    if (partial.empty()) continue;
    if (mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST) {
      *error = partial + ": " + strerror(errno);
      return false;
    }
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = path + ": not a folder";
    return false;
  }
  return true;
}
