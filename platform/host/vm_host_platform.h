// vm_host_platform.h - host stand-ins for the Android log and property functions, and the
// host-only controls that tests and tools use on them.
//
// Environment:
//   VM_HOST_LOG            "stderr" (default): logcat brief style on stderr; "none": silent;
//                          any other value: a file path, lines appended to it.
//   VM_HOST_PROPERTY_FILE  a file of name=value lines loaded at first use ('#' starts a comment).
//   VM_HOST_PROPERTIES     a list "name=value;name=value" loaded after the file.
//   VM_HOST_DUMP_DIR       the folder that stands in for the phone's dump directory; unset or
//                          empty: the phone's directory itself.
#ifndef VM_HOST_PLATFORM_H
#define VM_HOST_PLATFORM_H

#ifdef __cplusplus
extern "C" {
#endif

#define VM_HOST_PROP_VALUE_MAX 92 /* the platform's maximum value size, zero included */
#define VM_HOST_PROP_NAME_MAX 256

int __android_log_print(int prio, const char* tag, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
int __system_property_get(const char* name, char* value);

/* Sets (or with a null value removes) a property; values longer than 91 bytes are cut there.
 * Returns 0, or -1 for a null or over-long name. */
int vm_host_property_set(const char* name, const char* value);
/* Forgets every property and reloads the environment's file and list. */
void vm_host_property_reset(void);

/* Capture hook: called for every log line with the formatted message, under the log lock.
 * A null function removes the hook. The hook is called whether or not output is silenced. */
typedef void (*vm_host_log_hook)(void* user, int prio, const char* tag, const char* message);
void vm_host_log_set_hook(vm_host_log_hook hook, void* user);

/* The directory a library built for the host writes its raw dumps into: VM_HOST_DUMP_DIR when
 * it is set and not empty, else `designed` (the phone's directory, returned as given). Read at
 * each call; set it before a session starts. A phone build has no such hook. */
const char* vm_host_dump_dir(const char* designed);

#ifdef __cplusplus
}
#endif

#endif /* VM_HOST_PLATFORM_H */
