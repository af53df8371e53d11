// GPU dumps: names, directory rule, byte counts and contents, failure codes.
#include "gl/gl_dump.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "gl_test_support.h"
#include "memory/heap.h"

namespace {

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// A fresh temporary folder per test, removed with its files afterwards.
struct TempDir {
  TempDir() {
    char pattern[] = "/tmp/vmktr_gl_dump_XXXXXX";
    const char* made = mkdtemp(pattern);
    path = made != nullptr ? made : "";
  }
  ~TempDir() {
    if (!path.empty()) {
      std::string cmd = "rm -rf '" + path + "'";
      if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", path.c_str());
    }
  }
  std::string path;
};

class GlDump : public GlFixture {
 protected:
  TempDir dir;
};

class GlDataDump : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    logFlags = kLogGl;
  }
  void TearDown() override {
    logFlags = 0;
    PropertyFixture::TearDown();
  }
  TempDir dir;
};

TEST_F(GlDump, ReadBackOf640x480IsWrittenAsRgbUnderTheConfiguredFolder) {
  ASSERT_FALSE(dir.path.empty());
  setProp(VM_GL_DUMP_DIR_PROPERTY, (dir.path + "/").c_str());
  const int w = 640, h = 480;
  std::vector<uint8_t> image = randomBytes(w * h * 4, 6), rgba(w * h * 4);
  ASSERT_EQ(gl_pipeline_upload(0, image.data(), w, h, w * 4, GL_RGBA), kGlOk);
  ASSERT_EQ(gl_pipeline_prepare_target(0, w, h), kGlOk);
  ASSERT_EQ(shader_ScalerBypass(kGlPoolInput, 0, 0), kGlOk);
  ASSERT_EQ(gl_pipeline_read_rgba(0, rgba.data(), static_cast<int64_t>(rgba.size())), kGlOk);

  // The pass left its framebuffer bound: the dump reads what it drew.
  ASSERT_EQ(OpenGLDumpGPUOutputResult(w, h, "_a"), kGlOk);
  std::vector<uint8_t> file = readFile(dir.path + "/GPU_Output_640x480_a.raw");
  ASSERT_EQ(file.size(), 921600u);
  for (int i = 0; i < w * h; ++i)
    for (int c = 0; c < 3; ++c) ASSERT_EQ(file[i * 3 + c], rgba[i * 4 + c]) << i;
}

TEST_F(GlDump, UnsetPropertyWritesTheBareNameInTheWorkingDirectory) {
  ASSERT_FALSE(dir.path.empty());
  char previous[4096];
  ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(chdir(dir.path.c_str()), 0);
  ASSERT_EQ(gl_pipeline_prepare_target(1, 5, 3), kGlOk);
  uint32_t r = OpenGLDumpGPUOutputResult(5, 3, "");
  bool written = exists(dir.path + "/GPU_Output_5x3.raw");
  ASSERT_EQ(chdir(previous), 0);
  EXPECT_EQ(r, kGlOk);
  EXPECT_TRUE(written);
  EXPECT_EQ(readFile(dir.path + "/GPU_Output_5x3.raw").size(), 45u);
}

TEST_F(GlDump, UncreatableFileAndBadSizesGiveTheirCodes) {
  // The property is a prefix: without the final slash the name is glued to the folder's.
  setProp(VM_GL_DUMP_DIR_PROPERTY, (dir.path + "/missing/").c_str());
  ASSERT_EQ(gl_pipeline_prepare_target(1, 4, 4), kGlOk);
  EXPECT_EQ(OpenGLDumpGPUOutputResult(4, 4, "_b"), kGlErrDumpFile);
  EXPECT_EQ(log.count("Write RAW Image from gpu failed!!!"), 1u);
  EXPECT_EQ(OpenGLDumpGPUOutputResult(0, 4, "_b"), kGlErrArgument);
  EXPECT_EQ(OpenGLDumpGPUOutputResult(100000, 100000, "_b"), kGlErrArgument);
  setProp(VM_GL_DUMP_DIR_PROPERTY, dir.path.c_str());
  heap_fault_inject(2, false);
  EXPECT_EQ(OpenGLDumpGPUOutputResult(4, 4, "_c"), kGlErrMemory);
  heap_fault_inject(0, false);
  EXPECT_FALSE(exists(dir.path + "GPU_Output_4x4_c.raw"));
  EXPECT_EQ(OpenGLDumpGPUOutputResult(4, 4, "_c"), kGlOk);
  EXPECT_EQ(readFile(dir.path + "GPU_Output_4x4_c.raw").size(), 48u);
  unlink((dir.path + "GPU_Output_4x4_c.raw").c_str());  // beside the folder, not in it
}

TEST_F(GlDataDump, WritesTheCallersBytesWithoutGl) {
  ASSERT_FALSE(dir.path.empty());
  setProp(VM_GL_DUMP_DIR_PROPERTY, (dir.path + "/").c_str());
  std::vector<uint8_t> data = randomBytes(6 * 4 * 2 * 3, 7);
  ASSERT_EQ(OpenGLDumpData(data.data(), 6, 4, 2, 3, "_depth"), kGlOk);
  EXPECT_EQ(readFile(dir.path + "/OpenGL_Dump_Data_6x4_depth.raw"), data);
  ASSERT_EQ(OpenGLDumpData(data.data(), 6, 4, 1, 1, nullptr), kGlOk);
  EXPECT_EQ(readFile(dir.path + "/OpenGL_Dump_Data_6x4.raw"), std::vector<uint8_t>(data.begin(), data.begin() + 24));
}

TEST_F(GlDataDump, FailuresAreCodedAndLogged) {
  setProp(VM_GL_DUMP_DIR_PROPERTY, "/nonexistent-folder/");
  std::vector<uint8_t> data(16, 1);
  EXPECT_EQ(OpenGLDumpData(data.data(), 4, 4, 1, 1, "_x"), kGlErrDumpFile);
  EXPECT_EQ(log.count("*OpenGLDumpData Failed!!!"), 1u);
  EXPECT_EQ(OpenGLDumpData(nullptr, 4, 4, 1, 1, "_x"), kGlErrArgument);
  EXPECT_EQ(OpenGLDumpData(data.data(), -4, 4, 1, 1, "_x"), kGlErrArgument);
  EXPECT_EQ(OpenGLDumpData(data.data(), 65536, 65536, 65536, 2, "_x"), kGlErrArgument);
  logFlags = 0;
  log.clear();
  EXPECT_EQ(OpenGLDumpData(data.data(), 4, 4, 1, 1, "_x"), kGlErrDumpFile);
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
