// vm_host_platform.cpp - log and system-property stand-ins for Linux hosts.
#include "vm_host_platform.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

struct Property {
  char name[VM_HOST_PROP_NAME_MAX];
  char value[VM_HOST_PROP_VALUE_MAX];
};

// A fixed store: property counts on a phone are in the hundreds, a host run needs a handful.
constexpr int kMaxProperties = 512;

pthread_mutex_t g_propLock = PTHREAD_MUTEX_INITIALIZER;
Property g_props[kMaxProperties];
int g_propCount = 0;
bool g_propLoaded = false;

pthread_mutex_t g_logLock = PTHREAD_MUTEX_INITIALIZER;
vm_host_log_hook g_hook = nullptr;
void* g_hookUser = nullptr;

enum class LogSink { kStderr, kNone, kFile };

int findLocked(const char* name) {
  for (int i = 0; i < g_propCount; ++i)
    if (strcmp(g_props[i].name, name) == 0) return i;
  return -1;
}

int setLocked(const char* name, const char* value) {
  if (name == nullptr || strlen(name) >= VM_HOST_PROP_NAME_MAX || name[0] == '\0') return -1;
  int i = findLocked(name);
  if (value == nullptr) {
    if (i >= 0) g_props[i] = g_props[--g_propCount];
    return 0;
  }
  if (i < 0) {
    if (g_propCount == kMaxProperties) return -1;
    i = g_propCount++;
    snprintf(g_props[i].name, sizeof g_props[i].name, "%s", name);
  }
  snprintf(g_props[i].value, sizeof g_props[i].value, "%s", value);
  return 0;
}

// Parses one "name=value" entry; surrounding blanks are trimmed, '#' lines ignored.
void loadEntryLocked(char* entry) {
  while (*entry == ' ' || *entry == '\t') ++entry;
  if (*entry == '#' || *entry == '\0') return;
  char* eq = strchr(entry, '=');
  if (eq == nullptr) return;
  *eq = '\0';
  char* value = eq + 1;
  while (*value == ' ' || *value == '\t') ++value;
  for (char* end = eq; end > entry && (end[-1] == ' ' || end[-1] == '\t'); --end) end[-1] = '\0';
  size_t n = strlen(value);
  while (n > 0 && (value[n - 1] == '\r' || value[n - 1] == '\n' || value[n - 1] == ' ')) value[--n] = '\0';
  setLocked(entry, value);
}

void loadEnvironmentLocked() {
  g_propLoaded = true;
  if (const char* path = getenv("VM_HOST_PROPERTY_FILE")) {
    if (FILE* f = fopen(path, "r")) {
      char line[VM_HOST_PROP_NAME_MAX + VM_HOST_PROP_VALUE_MAX + 8];
      while (fgets(line, sizeof line, f) != nullptr) loadEntryLocked(line);
      fclose(f);
    }
  }
  if (const char* list = getenv("VM_HOST_PROPERTIES")) {
    char* copy = strdup(list);
    if (copy == nullptr) return;
    char* save = nullptr;
    for (char* tok = strtok_r(copy, ";\n", &save); tok != nullptr; tok = strtok_r(nullptr, ";\n", &save))
      loadEntryLocked(tok);
    free(copy);
  }
}

LogSink sinkFromEnvironment(const char** path) {
  const char* v = getenv("VM_HOST_LOG");
  if (v == nullptr || v[0] == '\0' || strcmp(v, "stderr") == 0) return LogSink::kStderr;
  if (strcmp(v, "none") == 0) return LogSink::kNone;
  *path = v;
  return LogSink::kFile;
}

char priorityLetter(int prio) {
  static const char kLetters[] = "??VDIWEF";  // liblog's priority numbers 2..7
  return (prio >= 2 && prio <= 7) ? kLetters[prio] : '?';
}

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  if (tag == nullptr) tag = "";
  if (fmt == nullptr) fmt = "";
  char stackBuf[1024];
  char* msg = stackBuf;
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(stackBuf, sizeof stackBuf, fmt, ap);
  va_end(ap);
  char* heapBuf = nullptr;
  if (n >= static_cast<int>(sizeof stackBuf)) {
    heapBuf = static_cast<char*>(malloc(static_cast<size_t>(n) + 1));
    if (heapBuf != nullptr) {
      va_start(ap, fmt);
      vsnprintf(heapBuf, static_cast<size_t>(n) + 1, fmt, ap);
      va_end(ap);
      msg = heapBuf;
    } else {
      n = sizeof stackBuf - 1;  // keep the truncated line rather than lose it
    }
  }
  if (n < 0) n = 0;

  // Like logcat, one trailing run of newlines ends the line and is not repeated.
  int shown = n;
  while (shown > 0 && msg[shown - 1] == '\n') --shown;

  const char* path = nullptr;
  LogSink sink = sinkFromEnvironment(&path);
  pthread_mutex_lock(&g_logLock);
  if (g_hook != nullptr) g_hook(g_hookUser, prio, tag, msg);
  int written = 0;
  if (sink == LogSink::kStderr) {
    written = fprintf(stderr, "%c/%s(%d): %.*s\n", priorityLetter(prio), tag, static_cast<int>(getpid()), shown, msg);
  } else if (sink == LogSink::kFile) {
    if (FILE* f = fopen(path, "a")) {
      written = fprintf(f, "%c/%s(%d): %.*s\n", priorityLetter(prio), tag, static_cast<int>(getpid()), shown, msg);
      fclose(f);
    }
  }
  pthread_mutex_unlock(&g_logLock);
  free(heapBuf);
  // liblog answers with the bytes it handed to the logger; a silenced line still counts as sent.
  if (written <= 0) written = n + static_cast<int>(strlen(tag)) + 2;
  return written;
}

extern "C" int __system_property_get(const char* name, char* value) {
  if (value == nullptr) return 0;
  value[0] = '\0';
  if (name == nullptr) return 0;
  pthread_mutex_lock(&g_propLock);
  if (!g_propLoaded) loadEnvironmentLocked();
  int i = findLocked(name);
  int len = 0;
  if (i >= 0) {
    len = static_cast<int>(strlen(g_props[i].value));
    memcpy(value, g_props[i].value, static_cast<size_t>(len) + 1);
  }
  pthread_mutex_unlock(&g_propLock);
  return len;
}

extern "C" int vm_host_property_set(const char* name, const char* value) {
  pthread_mutex_lock(&g_propLock);
  if (!g_propLoaded) loadEnvironmentLocked();
  int r = setLocked(name, value);
  pthread_mutex_unlock(&g_propLock);
  return r;
}

extern "C" void vm_host_property_reset(void) {
  pthread_mutex_lock(&g_propLock);
  g_propCount = 0;
  loadEnvironmentLocked();
  pthread_mutex_unlock(&g_propLock);
}

extern "C" void vm_host_log_set_hook(vm_host_log_hook hook, void* user) {
  pthread_mutex_lock(&g_logLock);
  g_hook = hook;
  g_hookUser = user;
  pthread_mutex_unlock(&g_logLock);
}

extern "C" const char* vm_host_dump_dir(const char* designed) {
  const char* dir = getenv("VM_HOST_DUMP_DIR");
  return (dir != nullptr && dir[0] != '\0') ? dir : designed;
}
