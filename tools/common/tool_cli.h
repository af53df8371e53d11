// tool_cli.h - what every host tool shares on its command line and at its end: the exit codes,
// decimal number parsing with range checks, an option walker that refuses unknown options, and a
// run report that counts skipped items and failed writes and turns them into the exit code.
#ifndef VM_TOOLS_TOOL_CLI_H
#define VM_TOOLS_TOOL_CLI_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

// Exit codes of every tool; each tool's --help prints kToolExitCodesHelp.
enum ToolExit {
  kToolExitDone = 0,     // everything asked for was done
  kToolExitUsage = 2,    // bad usage or bad input (an option, a number, a file's content)
  kToolExitRefused = 3,  // the library or an engine refused the work
  kToolExitNothing = 4,  // nothing could be processed
  kToolExitWrite = 5,    // an output could not be written
};
extern const char kToolExitCodesHelp[];

// Decimal numbers only: an optional sign, digits, nothing else (no spaces, no 0x, no octal).
bool tool_parse_int(const char* s, int64_t lo, int64_t hi, int64_t* out);
// A finite decimal number in [lo, hi] (no hex floats, inf or nan).
bool tool_parse_double(const char* s, double lo, double hi, double* out);
// "WxH" with both sides in [lo, hi].
bool tool_parse_size(const char* s, int32_t lo, int32_t hi, int32_t* w, int32_t* h);
// "A,B" (or with another separator) with both in [lo, hi].
bool tool_parse_int_pair(const char* s, char sep, int64_t lo, int64_t hi, int64_t* a, int64_t* b);

// Walks argv. Typical use:
//   ToolArgs args(argc, argv);
//   while (args.next()) {
//     if (args.is("--frames")) { if (!args.int_value(1, 1000, &frames)) break; }
//     else if (args.is_help()) { ... } else { args.unknown(); break; }
//   }
//   if (args.failed()) { fprintf(stderr, "tool: %s\n", args.error().c_str()); return kToolExitUsage; }
class ToolArgs {
 public:
  ToolArgs(int argc, char** argv) : argc_(argc), argv_(argv) {}
  bool next();  // moves to the next option; false at the end or after an error
  const std::string& option() const { return option_; }
  bool is(const char* name) const { return option_ == name; }
  bool is_help() const { return option_ == "--help" || option_ == "-h"; }
  // Values of the current option; each returns false with the option named in error().
  bool value(const char** out);
  bool string_value(std::string* out);  // refuses an empty value
  bool int_value(int64_t lo, int64_t hi, int64_t* out);
  bool int_value(int64_t lo, int64_t hi, int32_t* out);
  bool double_value(double lo, double hi, double* out);
  bool size_value(int32_t lo, int32_t hi, int32_t* w, int32_t* h);
  void unknown();                         // the current option is not one of the tool's
  void fail(const std::string& message);  // a tool-specific refusal, named by the caller
  bool failed() const { return !error_.empty(); }
  const std::string& error() const { return error_; }

 private:
  int argc_;
  char** argv_;
  int index_ = 0;
  std::string option_;
  std::string error_;
};

// What a run did not do. Each skipped item and each failed output is said at once on stderr
// with its name; finish() says how many at the end and gives the exit code.
struct ToolReport {
  const char* tool = "tool";
  int64_t processed = 0;
  std::vector<std::string> skipped;
  std::vector<std::string> writeFailures;

  void skip(const std::string& what, const std::string& why);
  void write_failed(const std::string& path, const std::string& why);
  // 5 when an output failed, 4 when nothing was processed, 2 when something was skipped, else 0.
  int finish() const;
};

// Runs a tool's main body and turns an allocation failure into a message and kToolExitUsage
// (an input too large to hold), never an abort.
int tool_main(const char* tool, int argc, char** argv, int (*body)(int, char**));

// Checked writes: false (with errno's text in *error) when the file cannot be opened, any byte
// cannot be written, or the close fails (a full disk shows there at the latest).
bool tool_write_file(const std::string& path, const void* data, size_t size, std::string* error);
bool tool_close_checked(FILE* f, std::string* error);

// Reads a whole regular file of at most maxBytes. FIFOs, devices and folders are refused
// without blocking; a longer file is refused, never read in part.
bool tool_read_file(const std::string& path, size_t maxBytes, std::vector<uint8_t>* out, std::string* error);
// True for an existing regular file (stat, no open).
bool tool_is_regular_file(const std::string& path);
// Creates the folder (and its parents); false with a message naming it when it cannot.
bool tool_make_dirs(const std::string& path, std::string* error);

#endif  // VM_TOOLS_TOOL_CLI_H
