// Host stand-ins: property store limits and sources, log return values and sinks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "log_capture.h"
#include "vm_host_platform.h"

namespace {

class HostPlatform : public PropertyFixture {};

TEST_F(HostPlatform, PropertyValuesAreCutAtThePlatformMaximum) {
  const std::string longValue(200, 'v');
  setProp("persist.long", longValue.c_str());
  char value[VM_HOST_PROP_VALUE_MAX];
  EXPECT_EQ(__system_property_get("persist.long", value), 91);
  EXPECT_EQ(std::string(value), longValue.substr(0, 91));
  EXPECT_EQ(__system_property_get("persist.none", value), 0);
  EXPECT_STREQ(value, "");
  setProp("persist.long", nullptr);
  EXPECT_EQ(__system_property_get("persist.long", value), 0);
  EXPECT_EQ(vm_host_property_set(nullptr, "x"), -1);
  EXPECT_EQ(vm_host_property_set(std::string(300, 'n').c_str(), "x"), -1);
}

TEST_F(HostPlatform, PropertiesFromFileAndList) {
  const std::string path = testing::TempDir() + "/props_" + std::to_string(getpid()) + ".txt";
  {
    std::ofstream f(path);
    f << "# comment\npersist.a = 5\npersist.b=from-file\n\nnot a property\n";
  }
  setenv("VM_HOST_PROPERTY_FILE", path.c_str(), 1);
  setenv("VM_HOST_PROPERTIES", "persist.b=from-list;persist.c=7", 1);
  vm_host_property_reset();
  char v[VM_HOST_PROP_VALUE_MAX];
  EXPECT_EQ(__system_property_get("persist.a", v), 1);
  EXPECT_STREQ(v, "5");
  __system_property_get("persist.b", v);
  EXPECT_STREQ(v, "from-list");  // the list is applied after the file
  __system_property_get("persist.c", v);
  EXPECT_STREQ(v, "7");
  unsetenv("VM_HOST_PROPERTY_FILE");
  unsetenv("VM_HOST_PROPERTIES");
  vm_host_property_reset();
  EXPECT_EQ(__system_property_get("persist.a", v), 0);
}

TEST_F(HostPlatform, LogReturnsBytesAndWritesBriefStyleToAFile) {
  const std::string path = testing::TempDir() + "/log_" + std::to_string(getpid()) + ".txt";
  std::remove(path.c_str());
  setenv("VM_HOST_LOG", path.c_str(), 1);
  const int n = __android_log_print(6, "System.out", "hello %d\n", 7);
  unsetenv("VM_HOST_LOG");
  std::ifstream f(path);
  std::string line;
  std::getline(f, line);
  const std::string want = "E/System.out(" + std::to_string(getpid()) + "): hello 7";
  EXPECT_EQ(line, want);
  EXPECT_EQ(n, static_cast<int>(want.size()) + 1);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0], "hello 7\n");
  setenv("VM_HOST_LOG", "none", 1);
  EXPECT_GT(__android_log_print(6, "System.out", "%s", ""), 0);  // silenced still counts as sent
  unsetenv("VM_HOST_LOG");
}

TEST_F(HostPlatform, LongLinesAreKeptWhole) {
  setenv("VM_HOST_LOG", "none", 1);
  const std::string big(5000, 'x');
  __android_log_print(6, "t", "%s", big.c_str());
  unsetenv("VM_HOST_LOG");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].size(), 5000u);
}

}  // namespace
