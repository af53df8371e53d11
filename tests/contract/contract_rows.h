// contract_rows.h - what a row of the log-line and dump contract tables checks: a line written as
// the library's printf format (its variable fields matched loosely, everything else exactly),
// the function that must log it, and how often it must appear.
#ifndef VMKTR_TESTS_CONTRACT_ROWS_H
#define VMKTR_TESTS_CONTRACT_ROWS_H

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace contract {

// Line layouts every message is printed in.
#define CT_LINE "<VEMTA_LOG>[vmKtrRT_SC] %s:%d: "
#define CT_PROFILE "<VEMTA_LOG>[vmKtrRT_SC][PROFILE] %s:%d: "

// How many times a row's line or file must be seen.
enum class Times {
  kExactly,      // n
  kPerFrame,     // frames run minus n
  kAtLeastOnce,  // 1 or more
  kNever,        // 0
  kPerFakeCall,  // as often as the fake engine function fakeName was called
};

struct Count {
  Times times;
  int64_t n;
  const char* fakeName;
};
inline Count exactly(int64_t n) {
  return {Times::kExactly, n, nullptr};
}
inline Count perFrame(int64_t minus = 0) {
  return {Times::kPerFrame, minus, nullptr};
}
inline Count atLeastOnce() {
  return {Times::kAtLeastOnce, 0, nullptr};
}
inline Count never() {
  return {Times::kNever, 0, nullptr};
}
inline Count perFakeCall(const char* name) {
  return {Times::kPerFakeCall, 0, name};
}

inline std::string describe(const Count& c) {
  switch (c.times) {
    case Times::kExactly:
      return "exactly " + std::to_string(c.n);
    case Times::kPerFrame:
      return "once per frame minus " + std::to_string(c.n);
    case Times::kAtLeastOnce:
      return "at least once";
    case Times::kNever:
      return "never";
    case Times::kPerFakeCall:
      return std::string("once per call of ") + c.fakeName;
  }
  return "?";
}

// Turns a printf format into a regular expression that matches the whole line: %d, %ld, %5d
// and %04d match decimal numbers (padded to their width), %x and %04x hexadecimal, %f and %.2f
// fixed-point numbers, %s any text. With fn given, the first %s (the logging function's name in
// the line layout) must be exactly fn. With optionalNewline, one line feed may end the line (for
// messages whose text is given without the line's end).
inline std::string patternToRegex(const std::string& format, const char* fn, bool optionalNewline = false) {
  std::string re;
  bool fnPlaced = fn == nullptr;
  auto literal = [&re](char c) {
    if (c == '\n') {
      re += "\\n";
    } else if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) {
      re += '\\';
      re += c;
    } else {
      re += c;
    }
  };
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') {
      literal(format[i]);
      continue;
    }
    size_t j = i + 1;
    if (j < format.size() && format[j] == '%') {
      re += '%';
      i = j;
      continue;
    }
    std::string flags;
    while (j < format.size() && (isdigit(static_cast<unsigned char>(format[j])) || format[j] == '.'))
      flags += format[j++];
    while (j < format.size() && format[j] == 'l') ++j;
    const char conv = j < format.size() ? format[j] : '\0';
    const bool zeroPad = !flags.empty() && flags[0] == '0';
    const int width = flags.empty() || flags[0] == '.' ? 0 : atoi(flags.c_str());
    switch (conv) {
      case 'd':
      case 'i':
        re += zeroPad ? "-?[0-9]{" + std::to_string(width) + ",}" : (width > 0 ? " *-?[0-9]+" : "-?[0-9]+");
        break;
      case 'x':
        re += zeroPad ? "[0-9a-f]{" + std::to_string(width) + ",}" : "[0-9a-f]+";
        break;
      case 'f': {
        const size_t dot = flags.find('.');
        const std::string digits = dot == std::string::npos ? "6" : flags.substr(dot + 1);
        re += "(-?[0-9]+\\.[0-9]{" + digits + "}|-?nan|-?inf)";
        break;
      }
      case 's':
        if (!fnPlaced) {
          for (const char* p = fn; *p != '\0'; ++p) literal(*p);
          fnPlaced = true;
        } else {
          re += ".*";
        }
        break;
      default:
        re += "<unknown conversion>";
        break;
    }
    i = j;
  }
  if (optionalNewline) re += "\\n?";
  return re;
}

inline size_t countMatching(const std::vector<std::string>& texts, const std::string& format, const char* fn,
                            bool optionalNewline = false) {
  const std::regex re(patternToRegex(format, fn, optionalNewline));
  size_t n = 0;
  for (const std::string& t : texts)
    if (std::regex_match(t, re)) ++n;
  return n;
}

// Up to limit texts that contain the longest literal piece of format (for failure messages).
inline std::string alike(const std::vector<std::string>& texts, const std::string& format, size_t limit) {
  std::string best, piece;
  for (size_t i = 0; i <= format.size(); ++i) {
    if (i == format.size() || format[i] == '%') {
      if (piece.size() > best.size() && piece.find("<VEMTA_LOG>") == std::string::npos) best = piece;
      piece.clear();
      while (i < format.size() && !isalpha(static_cast<unsigned char>(format[i]))) ++i;
    } else {
      piece += format[i];
    }
  }
  const std::string key = best.substr(0, 16);
  std::string out;
  size_t n = 0;
  for (const std::string& t : texts)
    if (t.find(key) != std::string::npos && n++ < limit) out += "  " + t + (t.empty() || t.back() != '\n' ? "\n" : "");
  return out;
}

// The files of a folder with their byte counts.
inline std::map<std::string, int64_t> listFiles(const std::string& dir) {
  std::map<std::string, int64_t> out;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return out;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    struct stat st;
    if (name == "." || name == ".." || stat((dir + "/" + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    out[name] = static_cast<int64_t>(st.st_size);
  }
  closedir(d);
  return out;
}

inline void removeFiles(const std::string& dir) {
  for (const auto& f : listFiles(dir)) unlink((dir + "/" + f.first).c_str());
}

}  // namespace contract

#endif  // VMKTR_TESTS_CONTRACT_ROWS_H
