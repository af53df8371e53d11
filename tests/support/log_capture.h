// log_capture.h - fixtures that capture the library's log lines and set system properties
// through the host stand-ins.
#ifndef VMKTR_TESTS_LOG_CAPTURE_H
#define VMKTR_TESTS_LOG_CAPTURE_H

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "vm_host_platform.h"

class LogCapture {
 public:
  LogCapture() { vm_host_log_set_hook(&LogCapture::hook, this); }
  ~LogCapture() { vm_host_log_set_hook(nullptr, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> g(mu_);
    return lines_;
  }
  void clear() {
    std::lock_guard<std::mutex> g(mu_);
    lines_.clear();
  }
  // Lines containing text.
  std::vector<std::string> matching(const std::string& text) const {
    std::vector<std::string> out;
    for (const std::string& l : lines())
      if (l.find(text) != std::string::npos) out.push_back(l);
    return out;
  }
  size_t count(const std::string& text) const { return matching(text).size(); }

 private:
  static void hook(void* user, int prio, const char* tag, const char* message) {
    auto* self = static_cast<LogCapture*>(user);
    std::lock_guard<std::mutex> g(self->mu_);
    self->lines_.push_back(message);
    self->prios_.push_back(prio);
    self->tags_.push_back(tag);
  }
  mutable std::mutex mu_;
  std::vector<std::string> lines_;

 public:
  std::vector<int> prios_;
  std::vector<std::string> tags_;
};

// Sets properties for the duration of a test and forgets them afterwards.
class PropertyFixture : public ::testing::Test {
 protected:
  void SetUp() override { vm_host_property_reset(); }
  void TearDown() override { vm_host_property_reset(); }
  static void setProp(const char* name, const char* value) { ASSERT_EQ(0, vm_host_property_set(name, value)); }
  LogCapture log;
};

#endif  // VMKTR_TESTS_LOG_CAPTURE_H
