// The tools' shared command-line piece: decimal-only numbers with ranges, the option walker's
// refusals, the run report's exit codes, and file access that refuses FIFOs and long files.
#include "tool_cli.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

TEST(ToolNumbers, DecimalOnlyWithinRange) {
  int64_t v = 0;
  EXPECT_TRUE(tool_parse_int("010", 0, 100, &v));
  EXPECT_EQ(v, 10);  // never octal
  EXPECT_TRUE(tool_parse_int("-5", -10, 10, &v));
  EXPECT_EQ(v, -5);
  for (const char* bad : {"0x10", "", " 5", "5 ", "+", "-", "1e3", "12abc", "99999999999999999999"})
    EXPECT_FALSE(tool_parse_int(bad, INT64_MIN, INT64_MAX, &v)) << bad;
  EXPECT_FALSE(tool_parse_int("101", 0, 100, &v));
  EXPECT_FALSE(tool_parse_int("2147483648", 0, INT32_MAX, &v));

  double d = 0;
  EXPECT_TRUE(tool_parse_double("1.4", 0.5, 64, &d));
  EXPECT_DOUBLE_EQ(d, 1.4);
  for (const char* bad : {"nan", "inf", "0x1p3", "1e999", "", "1.4f", "0.4"})
    EXPECT_FALSE(tool_parse_double(bad, 0.5, 64, &d)) << bad;

  int32_t w = 0, h = 0;
  EXPECT_TRUE(tool_parse_size("640x480", 1, 8192, &w, &h));
  EXPECT_EQ(w, 640);
  EXPECT_EQ(h, 480);
  for (const char* bad : {"640", "640x", "x480", "0x480", "640x480x3", "9000x10", "0640x0480junk"})
    EXPECT_FALSE(tool_parse_size(bad, 1, 8192, &w, &h)) << bad;
  int64_t a = 0, b = 0;
  EXPECT_TRUE(tool_parse_int_pair("12,-3", ',', -100, 100, &a, &b));
  EXPECT_EQ(a, 12);
  EXPECT_EQ(b, -3);
  EXPECT_FALSE(tool_parse_int_pair("2147483647,1", ',', 0, 10000, &a, &b));
}

struct Argv {
  std::vector<std::string> words;
  std::vector<char*> ptrs;
  explicit Argv(std::vector<std::string> w) : words(std::move(w)) {
    words.insert(words.begin(), "tool");
    for (auto& s : words) ptrs.push_back(&s[0]);
  }
  int argc() { return int(ptrs.size()); }
  char** argv() { return ptrs.data(); }
};

// A tool's loop as every tool writes it; returns the walker's error or "" and the values.
std::string walk(std::vector<std::string> words, int32_t* frames, double* f) {
  Argv a(std::move(words));
  ToolArgs args(a.argc(), a.argv());
  while (args.next()) {
    if (args.is("--frames")) {
      args.int_value(1, 1000, frames);
    } else if (args.is("--f")) {
      args.double_value(0.5, 64, f);
    } else {
      args.unknown();
    }
  }
  return args.error();
}

TEST(ToolArgs, NamesTheOptionInEveryRefusal) {
  int32_t frames = 0;
  double f = 0;
  EXPECT_EQ(walk({"--frames", "010", "--f", "2"}, &frames, &f), "");
  EXPECT_EQ(frames, 10);
  EXPECT_EQ(f, 2.0);
  EXPECT_NE(walk({"--bogus"}, &frames, &f).find("unknown option '--bogus'"), std::string::npos);
  EXPECT_NE(walk({"--frames"}, &frames, &f).find("--frames needs a value"), std::string::npos);
  EXPECT_NE(walk({"--frames", "0x10"}, &frames, &f).find("--frames: '0x10'"), std::string::npos);
  // The first error stands; later options are not walked.
  EXPECT_NE(walk({"--frames", "0", "--bogus"}, &frames, &f).find("--frames"), std::string::npos);
}

TEST(ToolReport, ExitCodesFollowWhatWasLeftUndone) {
  ToolReport r;
  r.tool = "t";
  EXPECT_EQ(r.finish(), kToolExitNothing);
  r.processed = 3;
  EXPECT_EQ(r.finish(), kToolExitDone);
  r.skip("scene A", "unreadable");
  EXPECT_EQ(r.finish(), kToolExitUsage);
  r.write_failed("out/x.png", "No space left on device");
  EXPECT_EQ(r.finish(), kToolExitWrite);
}

class ToolFiles : public testing::Test {
 protected:
  void SetUp() override {
    dir = testing::TempDir() + "/tool_cli_" + std::to_string(getpid());
    std::string e;
    ASSERT_TRUE(tool_make_dirs(dir + "/a/b", &e)) << e;
  }
  std::string dir;
};

TEST_F(ToolFiles, ReadsRegularFilesWithinTheirBoundOnly) {
  std::string e;
  const std::string path = dir + "/a/file";
  ASSERT_TRUE(tool_write_file(path, "12345", 5, &e)) << e;
  std::vector<uint8_t> bytes;
  EXPECT_TRUE(tool_read_file(path, 5, &bytes, &e)) << e;
  EXPECT_EQ(bytes.size(), 5u);
  EXPECT_FALSE(tool_read_file(path, 4, &bytes, &e));
  EXPECT_NE(e.find("larger than 4"), std::string::npos);
  EXPECT_FALSE(tool_read_file(dir + "/a", 100, &bytes, &e));
  EXPECT_EQ(e, "not a regular file");
  // A FIFO with no writer: refused at once, never waited on.
  const std::string fifo = dir + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(tool_read_file(fifo, 100, &bytes, &e));
  EXPECT_EQ(e, "not a regular file");
  EXPECT_FALSE(tool_is_regular_file(fifo));
  EXPECT_TRUE(tool_is_regular_file(path));
}

TEST_F(ToolFiles, WriteFailuresAreReported) {
  std::string e;
  // A file where a folder should be, and a folder where a file should be.
  EXPECT_FALSE(tool_make_dirs(dir + "/a/file/sub", &e));
  ASSERT_TRUE(tool_write_file(dir + "/plain", "x", 1, &e));
  EXPECT_FALSE(tool_make_dirs(dir + "/plain", &e));
  EXPECT_FALSE(tool_write_file(dir + "/a", "x", 1, &e));
  // A full device: every byte is accepted into the buffer, the failure shows at the latest on close.
  if (access("/dev/full", W_OK) == 0) {
    std::vector<uint8_t> big(1 << 16, 7);
    EXPECT_FALSE(tool_write_file("/dev/full", big.data(), big.size(), &e));
    EXPECT_NE(e.find("No space"), std::string::npos) << e;
  }
}

}  // namespace
